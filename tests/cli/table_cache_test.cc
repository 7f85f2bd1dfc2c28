// Tables that are kept: used as long as nothing has changed, never believed when they are damaged,
// and refused where somebody else may have a hand in them.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/cli/plan_world.h"
#include "tests/support/syslog_capture.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

constexpr uid_t kSomebody = 4711;

class TableCache : public PlanWorld {
 protected:
  TableCache() { RealEngine(); }

  static CommandResult PlanAll() { return Tool({"plan", "photos", "--delete", "%"}); }

  static std::vector<std::string> Kept() {
    std::vector<std::string> paths;
    if (fs::exists(kCacheOfPhotos))
      for (const auto& entry : fs::directory_iterator(kCacheOfPhotos))
        if (!entry.path().filename().string().starts_with("of-")) paths.push_back(entry.path());
    return paths;
  }

  // Counts how often the real engine is asked from now on.
  static void CountingEngine() {
    fs::remove(kAsked);
    fs::rename("/sbin/btrfs", "/sbin/btrfs.real");
    WriteScript("/sbin/btrfs", std::string("[ \"$3\" = --version ] || echo >> ") + kAsked +
                                   "\nexec /sbin/btrfs.real \"$@\"\n");
  }

  void Change(const std::string& content) {
    WriteFile(volume_->Path("photos/changed"), content);
    MustRun({"sync", "-f", "/volume1"});
  }

  static void ExpectRefusal(const std::string& path, const std::string& what) {
    const CommandResult result = PlanAll();
    EXPECT_EQ(16, result.status);
    EXPECT_THAT(result.err, testing::StartsWith("zorv-snapusage: '" + path + "' " + what));
    EXPECT_EQ("", result.out);
    EXPECT_EQ(16, Tool({"clean", "photos"}).status);
  }
};

TEST_F(TableCache, IsRootsAlone) {
  ASSERT_EQ(0, PlanAll().status);
  EXPECT_EQ(0700, ModeOf(kCache));
  EXPECT_EQ(0700, ModeOf(kCacheOfPhotos));
  ASSERT_EQ(1u, Kept().size());
  EXPECT_EQ(0600, ModeOf(Kept()[0]));
  const Json::Value table = ParseJson(ReadFile(Kept()[0]));
  EXPECT_EQ("zorv-snapusage-table", table["format"].asString());
  EXPECT_EQ(6u, table["subvolumes"].size());
  EXPECT_THAT(Kept()[0], HasSubstr(table["file_system"].asString() + "-" +
                                   table["generation"].asString() + "-"));
}

TEST_F(TableCache, SavesReadingUntilSomethingChanges) {
  CountingEngine();
  const std::string first = PlanAll().out;
  EXPECT_EQ(1u, Asked());
  EXPECT_EQ(first, PlanAll().out) << "with its own time and generation";
  EXPECT_EQ(0, Tool({"plan", "photos", "--keep-last", "1"}).status);
  EXPECT_EQ(1u, Asked());
  Change("more");
  EXPECT_NE(first, PlanAll().out);
  EXPECT_EQ(2u, Asked());
  volume_->Unmount();
  volume_->Mount();
  EXPECT_EQ(0, PlanAll().status);
  EXPECT_LE(Asked(), 3u);
}

TEST_F(TableCache, OtherSnapshotsAreAnotherTable) {
  CountingEngine();
  ASSERT_EQ(0, PlanAll().status);
  volume_->Snapshot("photos", "photos/.snapshots/" + Day(6));
  MustRun({"sync", "-f", "/volume1"});
  EXPECT_EQ(6u, Planned({"--delete", "%"})["steps"].size());
  EXPECT_EQ(2u, Asked());
}

TEST_F(TableCache, TheNewestIsShown) {
  ASSERT_EQ(0, Tool({"run", "photos", "--quiet"}).status);
  fs::remove_all(kCache);
  for (int n = 0; n < 3; ++n) {
    Change(std::to_string(n));
    const Json::Value plan = Planned({"--delete", "%"});
    EXPECT_EQ(plan["generation"], Shown()["table"]["generation"]);
  }
  EXPECT_EQ(3u, Kept().size());
}

TEST_F(TableCache, FourAreKept) {
  std::vector<std::string> first;
  for (int n = 0; n < 6; ++n) {
    Change(std::to_string(n));
    ASSERT_EQ(0, PlanAll().status);
    if (n == 0) first = Kept();
    EXPECT_EQ(std::min<size_t>(n + 1, 4), Kept().size());
  }
  EXPECT_FALSE(fs::exists(first.at(0))) << "the oldest goes";
  CountingEngine();
  ASSERT_EQ(0, PlanAll().status);
  EXPECT_EQ(0u, Asked()) << "the newest stays";
}

// It was pushed out, and nobody can read it anew.
TEST_F(TableCache, TheOneOfTheLastResultIsKept) {
  ASSERT_EQ(0, Tool({"run", "photos", "--quiet"}).status);
  const Json::Value table = Shown()["table"];
  ASSERT_TRUE(table.isObject());
  volume_->DeleteSubvolume("photos/.snapshots/" + Day(1));
  for (unsigned day = 6; day <= 9; ++day) {
    Change(std::to_string(day) + std::string(100000, 'x'));
    volume_->Snapshot("photos", "photos/.snapshots/" + Day(day));
    ASSERT_EQ(0, PlanAll().status);
  }
  EXPECT_EQ(4u, Kept().size());
  EXPECT_EQ(table, Shown()["table"]);
}

// It was kept as one of the file system that was there before.
TEST_F(TableCache, OneThatMayBeOfAnotherFileSystemIsNotKept) {
  BtrfsVolume other("/volume2");
  other.Subvolume("photos");
  fs::rename("/sbin/btrfs", "/sbin/btrfs.real");
  WriteScript(
      "/sbin/btrfs",
      "/sbin/btrfs.real \"$@\"; status=$?\n"
      "case \"$*\" in *--table*) umount -l /volume1; mount --bind /volume2 /volume1;; esac\n"
      "exit $status\n");
  EXPECT_EQ(0, PlanAll().status);
  EXPECT_TRUE(Kept().empty());
  MustRun({"umount", "/volume1"});
  volume_->Mount();
}

// One that was killed between the new table and the oldest leaves one too many.
TEST_F(TableCache, FourAreLeftOfMore) {
  std::string first;
  for (int n = 0; n < 5; ++n) {
    Change(std::to_string(n));
    ASSERT_EQ(0, PlanAll().status);
    if (n == 0) {
      first = Kept().at(0);
      fs::copy_file(first, "/var/cache/first");
    }
  }
  fs::rename("/var/cache/first", first);
  ASSERT_EQ(5u, Kept().size());
  ASSERT_EQ(0, PlanAll().status) << "by a table that is kept";
  EXPECT_EQ(5u, Kept().size());
  Change("more");
  ASSERT_EQ(0, PlanAll().status);
  EXPECT_EQ(4u, Kept().size());
}

// Each one that could not be written cost one that was.
TEST_F(TableCache, OneThatCannotBeWrittenTakesNobodysPlace) {
  for (int n = 0; n < 4; ++n) {
    Change(std::to_string(n));
    ASSERT_EQ(0, PlanAll().status);
  }
  const std::vector<std::string> kept = Kept();
  Change("more");
  const CommandResult result = ZorvTest::Run(Argv({"plan", "photos", "--delete", "%"}), [] {
    const struct rlimit none = {0, 0};
    (void)signal(SIGXFSZ, SIG_IGN);
    (void)setrlimit(RLIMIT_FSIZE, &none);
  });
  EXPECT_NE(0, result.status) << "its output is a file, too";
  EXPECT_EQ(kept, Kept());
}

// What a disk, another program or another state may leave in a table's place.
std::vector<std::string> DamagedOf(const std::string& text) {
  const auto with = [&](const std::string& part, const std::string& other) {
    const size_t at = text.find(part);
    EXPECT_NE(std::string::npos, at) << part;
    return std::string(text).replace(at, part.size(), other);
  };
  return {"", "\n", text.substr(0, text.size() / 2), text.substr(0, text.size() - 2),
          std::string(text.size(), '\0'), text + text, std::string(100000, '['),
          with("\"version\":1", "\"version\":2"),
          // Numbers of another state, file system or set of subvolumes, under this one's name.
          with("\"generation\":", "\"generation\":1"),
          with("\"file_system\":\"", "\"file_system\":\"f"),
          with("\"subvolumes\":[", "\"subvolumes\":[1,"),
          // Other shapes.
          "[]", "{}", "null", "7", "\"text\"", with("\"sets\":[", "\"sets\":{"),
          with("\"sets\":[", "\"sets\":[[],"), with("\"sets\":[", "\"sets\":[7,"),
          with("\"sets\":[", "\"sets\":[{\"members\":7,\"data\":1,\"metadata\":1},"),
          with("\"subvolumes\":[", "\"subvolumes\":[\"257\","),
          with("\"generation\":", "\"generation\":1,\"generation\":"),
          // Numbers out of range.
          with("\"data\":", "\"data\":99999999999999999999"), with("\"data\":", "\"data\":-"),
          with("\"data\":", "\"data\":0."), with("\"data\":", "\"data\":1e"),
          with("\"metadata\":", "\"metadata\":9223372036854775807,\"more\":"),
          with("\"members\":[[", "\"members\":[[18446744073709551615,"),
          with("\"taken\":", "\"taken\":-"), with("\"taken\":", "\"taken\":9999999999")};
}

TEST_F(TableCache, DamagedOnesAreReadAnew) {
  CountingEngine();
  const std::string right = Tool({"plan", "photos", "--delete", "%", "-H"}).out;
  ASSERT_FALSE(right.empty());
  const std::string path = Kept().at(0), text = ReadFile(path);
  size_t asked = Asked();
  for (const std::string& wrong : DamagedOf(text)) {
    SCOPED_TRACE(wrong.substr(0, 300));
    WriteFile(path, wrong);
    EXPECT_EQ(right, Tool({"plan", "photos", "--delete", "%", "-H"}).out);
    EXPECT_EQ(++asked, Asked());
    EXPECT_EQ(text.substr(text.find("\"generation\"")),
              ReadFile(path).substr(ReadFile(path).find("\"generation\"")))
        << "and replaced";
  }
}

TEST_F(TableCache, DamagedOnesAreNotShown) {
  ASSERT_EQ(0, Tool({"run", "photos", "--quiet"}).status);
  fs::remove_all(kCache);
  const std::string without = Tool({"show", "photos"}).out;
  ASSERT_EQ(0, PlanAll().status);
  ASSERT_NE(without, Tool({"show", "photos"}).out);
  const std::string path = Kept().at(0), text = ReadFile(path);
  for (const std::string& wrong : DamagedOf(text)) {
    SCOPED_TRACE(wrong.substr(0, 300));
    WriteFile(path, wrong);
    const CommandResult shown = Tool({"show", "photos"});
    EXPECT_EQ(0, shown.status) << shown.err;
    EXPECT_EQ(without, shown.out);
  }
}

// Nobody waits for terabytes, nor has memory for them.
TEST_F(TableCache, HugeOnesAreReadAnew) {
  const std::string right = Tool({"plan", "photos", "--delete", "%", "-H"}).out;
  const std::string path = Kept().at(0), text = ReadFile(path);
  fs::resize_file(path, uintmax_t{1} << 40);
  EXPECT_EQ(right, Tool({"plan", "photos", "--delete", "%", "-H"}).out);
  EXPECT_LE(fs::file_size(path), text.size() + 8) << "its nanoseconds have 1 to 9 digits";
}

// A clock that was wrong, or a hand: the numbers are those of their state all the same.
TEST_F(TableCache, TimesBeyondTheCalendarHarmNobody) {
  ASSERT_EQ(0, Tool({"run", "photos", "--quiet"}).status);
  const std::string right = Tool({"plan", "photos", "--delete", "%", "-H"}).out;
  std::string text = ReadFile(Kept().at(0));
  const size_t at = text.find("\"taken\":") + 8;
  text.replace(at, text.find(',', at) - at, "9223372036854775807");
  WriteFile(Kept().at(0), text);
  EXPECT_EQ(right, Tool({"plan", "photos", "--delete", "%", "-H"}).out);
  for (const char* command : {"plan", "show"})
    for (const char* format : {"json", "table"}) {
      std::vector<std::string> words = {command, "photos", "--format", format};
      if (words[0] == "plan") words.insert(words.end(), {"--delete", "%"});
      const CommandResult result = Tool(words);
      EXPECT_EQ(0, result.status) << command << " " << format << ": " << result.err;
    }
}

TEST_F(TableCache, KilledWritersLeaveNothingForLong) {
  ASSERT_EQ(0, PlanAll().status);
  const pid_t gone = fork();
  if (gone == 0) _exit(0);
  ASSERT_EQ(0, WaitForExit(gone));
  const std::string left = std::string(kCacheOfPhotos) + "/." + std::to_string(gone) + ".new";
  const std::string alive = std::string(kCacheOfPhotos) + "/." + std::to_string(getpid()) + ".new";
  WriteFile(left, "half a tab");
  WriteFile(alive, "half a tab");
  Change("more");
  ASSERT_EQ(0, PlanAll().status);
  EXPECT_FALSE(fs::exists(left));
  EXPECT_TRUE(fs::exists(alive)) << "its writer is at work";
}

TEST_F(TableCache, CleanRemovesThoseOfTheShare) {
  ASSERT_EQ(0, Tool({"run", "photos", "--quiet"}).status);
  ASSERT_EQ(0, PlanAll().status);
  fs::create_directory(std::string(kCache) + "/other");
  ASSERT_EQ(0, Tool({"clean", "photos"}).status);
  EXPECT_FALSE(fs::exists(kCacheOfPhotos));
  EXPECT_TRUE(fs::exists(std::string(kCache) + "/other"));
}

TEST_F(TableCache, PlaceThatCannotBeWrittenIsDoneWithout) {
  SyslogCapture log;
  fs::create_directory(kCache);
  fs::permissions(kCache, fs::perms(0700));
  MustRun({"mount", "-t", "tmpfs", "-o", "ro,mode=0700", "tmpfs", kCache});
  const CommandResult result = PlanAll();
  MustRun({"umount", kCache});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ(1,
            log.Count("a table cannot be kept in /var/cache/zorv-snapusage: Read-only file system"))
      << log.Dump();
}

TEST_F(TableCache, DirectoriesOfSomebodyElseAreRefused) {
  ASSERT_EQ(0, PlanAll().status);
  for (const char* directory : {kCache, kCacheOfPhotos}) {
    SCOPED_TRACE(directory);
    ASSERT_EQ(0, chown(directory, kSomebody, 0));
    ExpectRefusal(directory, "belongs to user 4711, not to root; ");
    ASSERT_EQ(0, chown(directory, 0, 0));
    ASSERT_EQ(0, chmod(directory, 0770));
    ExpectRefusal(directory, "can be written by others (mode 0770); ");
    ASSERT_EQ(0, chmod(directory, 0700));
    fs::rename(directory, "/var/cache/moved");
    fs::create_directory_symlink("/var/cache/moved", directory);
    ExpectRefusal(directory, "is a symbolic link; ");
    fs::remove(directory);
    WriteFile(directory, "in the way");
    ExpectRefusal(directory, "is a file; ");
    fs::remove(directory);
    fs::rename("/var/cache/moved", directory);
  }
  EXPECT_EQ(0, PlanAll().status);
}

TEST_F(TableCache, FilesThatMayBeSomebodyElsesAreRefused) {
  ASSERT_EQ(0, PlanAll().status);
  const std::string path = Kept().at(0);
  fs::rename(path, "/var/cache/table");
  fs::create_symlink("/var/cache/table", path);
  ExpectRefusal(path, "is a symbolic link; ");
  fs::remove(path);
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  ExpectRefusal(path, "is a named pipe; ");
  fs::remove(path);
  fs::create_hard_link("/var/cache/table", path);
  ExpectRefusal(path, "has further names (hard links); ");
  fs::remove("/var/cache/table");
  ASSERT_EQ(0, chmod(path.c_str(), 0620));
  ExpectRefusal(path, "can be written by others (mode 0620); ");
  ASSERT_EQ(0, chmod(path.c_str(), 0600));
  ASSERT_EQ(0, chown(path.c_str(), kSomebody, 0));
  ExpectRefusal(path, "belongs to user 4711, not to root; ");
  ASSERT_EQ(0, chown(path.c_str(), 0, 0));
  EXPECT_EQ(0, PlanAll().status);
}

TEST_F(TableCache, PlaceWhereAnybodyCanExchangeItIsRefused) {
  ASSERT_EQ(0, chmod("/var/cache", 0777));
  ExpectRefusal("/var/cache", "can be changed by everybody; ");
  ASSERT_EQ(0, chmod("/var/cache", 0755));
}

}  // namespace
