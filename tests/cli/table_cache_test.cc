// Tables that are kept: used as long as nothing has changed, never believed when they are damaged,
// and refused where somebody else may have a hand in them.
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
        paths.push_back(entry.path());
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

TEST_F(TableCache, DamagedOnesAreReadAnew) {
  CountingEngine();
  const std::string right = Tool({"plan", "photos", "--delete", "%", "-H"}).out;
  ASSERT_FALSE(right.empty());
  const std::string path = Kept().at(0), text = ReadFile(path);
  size_t asked = Asked();
  const std::string wrongs[] = {
      "", "\n", text.substr(0, text.size() / 2), text.substr(0, text.size() - 2),
      std::string(text.size(), '\0'), text + text, "[]", std::string(100000, '['),
      std::string(text).replace(text.find("\"version\":1"), 11, "\"version\":2"),
      // Numbers of another state, under this one's name.
      std::string(text).replace(text.find("\"generation\":"), 13, "\"generation\":1"),
      std::string(text).replace(text.find("\"subvolumes\":["), 14, "\"subvolumes\":[1,")};
  for (const std::string& wrong : wrongs) {
    SCOPED_TRACE(wrong.substr(0, 100));
    WriteFile(path, wrong);
    EXPECT_EQ(right, Tool({"plan", "photos", "--delete", "%", "-H"}).out);
    EXPECT_EQ(++asked, Asked());
    EXPECT_EQ(text.substr(text.find("\"generation\"")),
              ReadFile(path).substr(ReadFile(path).find("\"generation\"")))
        << "and replaced";
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
