// What the engine refuses: the reason is named on standard error, and no number is printed.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/engine/engine_run.h"
#include "tests/support/user_rights.h"

using namespace ZorvTest;

namespace {

constexpr char kMount[] = "/volume1";

}  // namespace

TEST(EngineRefuses, AnUnknownId) {
  BtrfsVolume volume(kMount);
  const struct {
    const char* id;
    const char* error;
    const char* unavailable;
  } kCases[] = {
      {"256", "there is no subvolume 256 on the file system; see btrfs subvolume list",
       "there is no subvolume # on the file system; see btrfs subvolume list"},
      {"0", "there is no subvolume 0 on the file system; see btrfs subvolume list",
       "there is no subvolume # on the file system; see btrfs subvolume list"},
      {"2", "there is no subvolume 2 on the file system; see btrfs subvolume list",
       "there is no subvolume # on the file system; see btrfs subvolume list"},
      {"18446744073709551607",
       "there is no subvolume 18446744073709551607 on the file system; see btrfs subvolume list",
       "there is no subvolume # on the file system; see btrfs subvolume list"},
      {"99999999999999999999", "99999999999999999999 is too large for a subvolume ID",
       "# is too large for a subvolume ID"},
      {"snap", "\"snap\" is not a subvolume ID: decimal digits are expected",
       "\"snap\" is not a subvolume ID: decimal digits are expected"},
      {"5x", "\"5x\" is not a subvolume ID: decimal digits are expected",
       "\"#x\" is not a subvolume ID: decimal digits are expected"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.id);
    ExpectFailure(RunEngine({"-vpm", "-r", kMount, "5", c.id}), c.error, c.unavailable);
  }
}

TEST(EngineRefuses, ANegativeId) {
  BtrfsVolume volume(kMount);
  ExpectFailure(RunEngine({"-vpm", "-r", kMount, "-5"}),
                "-5 is neither an option nor a subvolume; see btrfs subvolume size --help",
                "-# is neither an option nor a subvolume; see btrfs subvolume size --help");
}

TEST(EngineRefuses, ADeletedSubvolume) {
  BtrfsVolume volume(kMount, {256, {}, "commit=1"});  // cleaning begins with a commit
  const unsigned long long id = SubvolumeID(volume.Subvolume("gone"));
  volume.DeleteSubvolume("gone");
  MustRun({kStockBtrfs, "subvolume", "sync", kMount});
  const std::string after = " on the file system; see btrfs subvolume list";
  ExpectFailure(RunEngine({"-v", "-r", kMount, std::to_string(id)}),
                "there is no subvolume " + std::to_string(id) + after,
                "there is no subvolume #" + after);
}

TEST(EngineRefuses, APlainDirectory) {
  BtrfsVolume volume(kMount);
  std::filesystem::create_directory(volume.Path("plain"));
  ExpectFailure(RunEngine({"-v", volume.Path("plain")}),
                "/volume1/plain is not a subvolume; give the root directory of one",
                "/volume#/plain is not a subvolume; give the root directory of one");
}

TEST(EngineRefuses, TheEmptyDirectoryOfANestedSubvolume) {
  BtrfsVolume volume(kMount);
  volume.Subvolume("live");
  volume.Subvolume("live/inner");
  volume.Snapshot("live", "snap");
  ExpectFailure(
      RunEngine({"-v", volume.Path("snap/inner")}),
      "/volume1/snap/inner is the empty place of a nested subvolume; give the subvolume itself",
      "/volume#/snap/inner is the empty place of a nested subvolume; give the subvolume itself");
}

TEST(EngineRefuses, AFileAndAMissingPath) {
  BtrfsVolume volume(kMount);
  WriteFile(volume.Path("file"), "x");
  ExpectFailure(RunEngine({"-v", volume.Path("file")}),
                "cannot open /volume1/file: Not a directory",
                "cannot open /volume#/file: Not a directory");
  ExpectFailure(RunEngine({"-v", kMount, volume.Path("none")}),
                "cannot open /volume1/none: No such file or directory",
                "cannot open /volume#/none: No such file or directory");
  ExpectFailure(RunEngine({"-v", "257"}),
                "cannot open 257: No such file or directory; to give subvolume IDs, add -r DIR",
                "cannot open #: No such file or directory; to give subvolume IDs, add -r DIR");
}

TEST(EngineRefuses, WhatIsNotOnBtrfs) {
  ExpectFailure(RunEngine({"-v", "/tmp"}), "/tmp is not on btrfs", "/tmp is not on btrfs");
  ExpectFailure(RunEngine({"-v", "-r", "/tmp", "5"}), "/tmp is not on btrfs",
                "/tmp is not on btrfs");
}

TEST(EngineRefuses, PathsOfTwoFileSystems) {
  BtrfsVolume one("/volume1");
  BtrfsVolume two("/volume2");
  ExpectFailure(
      RunEngine({"-v", "/volume1", "/volume2"}),
      "/volume2 is on another file system than /volume1; ask for them one after the other",
      "/volume# is on another file system than /volume#; ask for them one after the other");
}

TEST(EngineRefuses, AnyoneButRoot) {
  BtrfsVolume volume(kMount);
  // The build tree may not be open to everyone; a copy is.
  std::filesystem::copy_file(ZORV_ENGINE_PATH, "/usr/local/engine",
                             std::filesystem::copy_options::overwrite_existing);
  const CommandResult result =
      ZorvTest::Run({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                     "/usr/local/engine", "subvolume", "size", "-v", kMount});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ("ERROR: this needs root, because the device is read directly; try sudo\n", result.err);
  EXPECT_EQ(
      "exclusive sizes unavailable: this needs root, because the device is read directly; try sudo\n",
      result.out);
}

// Root there, but with the rights of an ordinary user outside.
TEST(EngineRefuses, RootOfAUserNamespace) {
  BtrfsVolume volume(kMount);
  std::filesystem::copy_file(ZORV_ENGINE_PATH, "/usr/local/engine",
                             std::filesystem::copy_options::overwrite_existing);
  const CommandResult result =
      ZorvTest::Run({"/usr/local/engine", "subvolume", "size", "-v", kMount},
                    [] { BecomeRootOfUserNamespace(65534); });
  EXPECT_EQ(1, result.status);
  EXPECT_THAT(
      result.err,
      testing::MatchesRegex("ERROR: cannot open device /dev/loop[0-9]+: Permission denied; root of "
                            "the machine is needed, with all its rights\n"));
  EXPECT_THAT(result.out, testing::HasSubstr("exclusive sizes unavailable: cannot open device"));
}

TEST(EngineRefuses, NoArgument) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, {"-vpm"}, {"-vpm", "-r", "/volume1"}}) {
    SCOPED_TRACE(testing::PrintToString(args));
    ExpectFailure(RunEngine(args), "no subvolume is given; see btrfs subvolume size --help",
                  "no subvolume is given; see btrfs subvolume size --help");
  }
}
