// TAB in real shells with a terminal: commands, options and names of the real program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

constexpr char kFolder[] = ZORV_SOURCE_DIR "/completion";

// Shares and snapshots whose names have what shells act on.
class Completion : public testing::TestWithParam<const char*> {
 protected:
  Completion() : volume_("/volume1") {
    fs::create_symlink(ZORV_CLI_PATH, "/usr/bin/zorv-snapusage");
    for (const char* share : {"photos", "my share", "it's"}) {
      volume_.Subvolume(share);
      fs::create_directory(volume_.Path(share) + "/.snapshots");
    }
    for (const char* name : {"2024-03-01_09:04:09", "2024-03-01_10:04:09", "by hand", "q\"uo$te"})
      volume_.Snapshot("photos", std::string("photos/.snapshots/") + name);
    volume_.Snapshot("my share", "my share/.snapshots/the only one");
  }
  ~Completion() override { fs::remove("/usr/bin/zorv-snapusage"); }

  // The words of each line once it has been completed.
  static std::string Completed(const std::vector<std::string>& lines) {
    std::vector<std::string> argv = {"zsh", "-f", ZORV_SOURCE_DIR "/tests/docs/complete.zsh",
                                     GetParam(), kFolder};
    argv.insert(argv.end(), lines.begin(), lines.end());
    return MustRun(argv);
  }

  BtrfsVolume volume_;
};

TEST_P(Completion, CommandsAndOptionsAreThoseOfTheHelp) {
  EXPECT_EQ("<status>\n<run><--quiet>\n<show><photos><--format>\n<show><--format=json>\n",
            Completed({"statu", "run --qui", "show photos --form", "show --format=js"}));
}

TEST_P(Completion, NamesOfShares) {
  EXPECT_EQ(
      "<show><photos>\n<show><my share>\n<show><my share>\n<show><my share>\n<show><it's>\n"
      "<show><it's>\n",
      Completed({"show pho", "show my", "show 'my", "show \"my sh", "show it", "show \"it"}));
}

TEST_P(Completion, NamesOfTheSharesSnapshots) {
  EXPECT_EQ(
      "<plan><photos><--keep><by hand>\n<plan><photos><--keep><q\"uo$te>\n"
      "<plan><photos><--keep><q\"uo$te>\n"
      "<plan><photos><--keep><2024-03-01_09:04:09>\n<plan><my share><--keep><the only one>\n",
      Completed({"plan photos --keep b", "plan photos --keep q", "plan photos --keep \"q",
                 "plan photos --keep 2024-03-01_09:", "plan my\\ share --keep t"}));
}

TEST_P(Completion, ListsOfSnapshotsGoOnBehindTheSeparator) {
  EXPECT_EQ(
      "<plan><photos><--delete><by hand>\n<plan><photos><--delete><q,by hand>\n"
      "<plan><photos><--delete><a%q\"uo$te>\n<plan><photos><--keep><by hand>\n",
      Completed({"plan photos --delete b", "plan photos --delete q,b", "plan photos --delete a%q",
                 "plan photos --keep b"}));
}

TEST_P(Completion, ShareThatIsNotThereHasNoSnapshots) {
  EXPECT_EQ("<plan><nonesuch><--keep><b>\n", Completed({"plan nonesuch --keep b"}));
}

INSTANTIATE_TEST_SUITE_P(Shells, Completion, testing::Values("bash", "zsh"),
                         [](const auto& shell) { return std::string(shell.param); });

// Without root there are no names, and nothing is waited for.
TEST(CompletionOfAnybody, HasCommandsAndNoNames) {
  fs::create_directories("/tmp/anybody");
  fs::copy_file(ZORV_CLI_PATH, "/tmp/anybody/zorv-snapusage");
  fs::copy(kFolder, "/tmp/anybody/completion");
  fs::copy_file(ZORV_SOURCE_DIR "/tests/docs/complete.zsh", "/tmp/anybody/complete.zsh");
  for (const char* library : {ZORV_LIBRARY_PATH, ZORV_PLATFORM_PATH})
    fs::copy_file(library, "/tmp/anybody/" + fs::path(library).filename().string());
  for (const char* shell : {"bash", "zsh"}) {
    SCOPED_TRACE(shell);
    const double begin = Seconds();
    EXPECT_EQ("<status>\n<show><p>\n",
              MustRun({"setpriv", "--reuid=65534", "--clear-groups", "env",
                       "PATH=/tmp/anybody:/usr/bin:/bin", "LD_LIBRARY_PATH=/tmp/anybody", "zsh",
                       "-f", "/tmp/anybody/complete.zsh", shell, "/tmp/anybody/completion", "statu",
                       "show p"}));
    EXPECT_GT(60, Seconds() - begin);
  }
}

}  // namespace
