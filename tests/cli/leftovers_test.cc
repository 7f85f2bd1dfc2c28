// Temporary files of writers that were killed: which the program takes away, and which never.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "base/paths.h"
#include "tests/cli/cli_world.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;
namespace fs = std::filesystem;

namespace {

constexpr char kTask[] = "8b0f0c36-8a3f-4a57-9f6f-1f7e5d0c1a55";
constexpr char kWhole[] = R"({"status":"done"})";

// No process has this number: more than the kernel gives.
constexpr char kCopyOfTheDead[] = ".zorvcopy.2000000000.0";

class Leftovers : public CliWorld {
 protected:
  // "photos" has a result, and so its files; the temporary files of others are put beside them.
  Leftovers() { MustRun(Argv({"run", "photos", "--quiet"})); }

  static std::string Put(const std::string& path, const std::string& content = kWhole) {
    WriteFile(path, content);
    return path;
  }

  // The program comes by; what it does else is of no interest.
  static void Sweep() { (void)Tool({"stop", "photos"}); }

  static bool Exists(const std::string& path) { return fs::exists(fs::symlink_status(path)); }

  static std::string ResultFile(const std::string& name) {
    return std::string(kResultsOfPhotos) + "/" + name;
  }
};

TEST_F(Leftovers, GoBesideTheMapTheReminderAndTheStatuses) {
  const std::vector<std::string> left = {
      Put(std::string(kShareMap) + ".aB3dE9"),
      Put(std::string(kReminderRecord) + ".000000", ""),
      Put(std::string(kStatusOfPhotos) + ".ZZZZZZ", "{\"sta"),
      Put(TaskStatusPath(kTask) + ".q1W2e3"),
      Put(ResultFile(kCopyOfTheDead)),
  };
  const std::string map = ReadFile(kShareMap);
  const std::string status = ReadFile(kStatusOfPhotos);
  Sweep();
  for (const std::string& path : left) EXPECT_FALSE(Exists(path)) << path;
  EXPECT_EQ(map, ReadFile(kShareMap));
  EXPECT_EQ(status, ReadFile(kStatusOfPhotos));
  EXPECT_EQ(0, Tool({"show", "photos"}).status);
}

TEST_F(Leftovers, GoWithEachCommandThatWorksOnShares) {
  const std::string left = std::string(kShareMap) + ".aB3dE9";
  for (const std::vector<std::string>& words :
       std::vector<std::vector<std::string>>{{"run", "photos"},
                                             {"start", "photos"},
                                             {"stop", "photos"},
                                             {"clean", "photos"},
                                             {"clean", "--all"},
                                             {"run", "unknown"}}) {
    SCOPED_TRACE(words.front());
    Put(left);
    (void)Tool(words);
    EXPECT_FALSE(Exists(left));
    EXPECT_TRUE(Settled());
  }
  Put(left);
  (void)Tool({"status", "photos"});
  (void)Tool({"show", "photos"});
  EXPECT_TRUE(Exists(left)) << "to look changes nothing";
}

TEST_F(Leftovers, GoWhenNobodyHasLockedSinceTheMachineCameUp) {
  fs::remove_all(kLockDir);
  const std::string left = Put(std::string(kStatusOfPhotos) + ".aB3dE9");
  Sweep();
  EXPECT_FALSE(Exists(left));
}

TEST_F(Leftovers, StayWhileTheirWriterLives) {
  const struct {
    const char* name;
    std::string target;
    std::string lock;
  } kCases[] = {
      {"map", kShareMap, kShareMapLock},
      {"reminder", kReminderRecord, kReminderLock},
      {"share", kStatusOfPhotos, ShareStatusLock("photos")},
      {"task", TaskStatusPath(kTask), TaskStatusLock(kTask)},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const std::string left = Put(c.target + ".aB3dE9");
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    const pid_t writer = fork();
    if (writer == 0) {
      const int fd = open(c.lock.c_str(), O_CREAT | O_RDWR, 0644);
      struct flock whole = {};
      whole.l_type = F_WRLCK;
      _exit(fcntl(fd, F_SETLK, &whole) == 0 && write(ready[1], "x", 1) == 1 ? pause() : 1);
    }
    char byte;
    ASSERT_EQ(1, read(ready[0], &byte, 1));
    // The map's lock stops every command but one that comes to nothing before.
    (void)Tool({"run", "unknown"});
    EXPECT_TRUE(Exists(left));
    kill(writer, SIGKILL);
    (void)WaitForExit(writer);
    (void)Tool({"run", "unknown"});
    EXPECT_FALSE(Exists(left));
    close(ready[0]);
    close(ready[1]);
  }
}

TEST_F(Leftovers, CopyOfALivingProcessStays) {
  const std::string ours = Put(ResultFile(".zorvcopy." + std::to_string(getpid()) + ".0"));
  Sweep();
  EXPECT_TRUE(Exists(ours));
}

TEST_F(Leftovers, StatusOfAShareWithSuchANameStays) {
  volume_->Subvolume("photos.aB3dE9");
  const std::string status = Put(std::string(kStatusOfPhotos) + ".aB3dE9");
  Sweep();
  EXPECT_EQ(kWhole, ReadFile(status));
}

TEST_F(Leftovers, StatusOfARecordedShareThatIsGoneStays) {
  EditJson(kMap, {"photos.aB3dE9", "task_id"}, kTask);
  const std::string status = Put(std::string(kStatusOfPhotos) + ".aB3dE9");
  Sweep();
  EXPECT_TRUE(Exists(status));
}

TEST_F(Leftovers, StatusStaysWhenTheMapCannotBeRead) {
  WriteFile(kMap, "{\"photos\"");
  const std::string status = Put(std::string(kStatusOfPhotos) + ".aB3dE9");
  Sweep();
  EXPECT_TRUE(Exists(status));
}

TEST_F(Leftovers, StatusThatSomebodyHasLockedByItsOwnNameStays) {
  const std::string share = Put(std::string(kStatusOfPhotos) + ".aB3dE9");
  Put(ShareStatusLock("photos.aB3dE9"), "");
  const std::string task = Put(TaskStatusPath(kTask) + ".aB3dE9");
  Put(TaskStatusLock(std::string(kTask) + ".aB3dE9"), "");
  Sweep();
  EXPECT_TRUE(Exists(share));
  EXPECT_TRUE(Exists(task));
}

TEST_F(Leftovers, StatusOfAShareThatMayBeOutOfReachStays) {
  WriteFile("/etc/fstab", "/dev/sdz /volume2 btrfs defaults 0 0\n");
  const std::string status = Put(std::string(kStatusOfPhotos) + ".aB3dE9");
  Sweep();
  EXPECT_TRUE(Exists(status));
  fs::remove("/etc/fstab");
  Sweep();
  EXPECT_FALSE(Exists(status));
}

TEST_F(Leftovers, OtherNamesStay) {
  const std::vector<std::string> kept = {
      Put(std::string(kShareMap) + ".aB3dE"),
      Put(std::string(kShareMap) + ".aB3dE9f"),
      Put(std::string(kShareMap) + "-aB3dE9"),
      Put(std::string(kShareMap) + ".aB3-E9"),
      Put(PathIn(kPersistentDir, ".aB3dE9")),
      Put(PathIn(kPersistentDir, "else.aB3dE9")),
      Put(ShareStatusPath("nobody.aB3dE9")),
      Put(TaskStatusPath("task.aB3dE9")),
      Put(TaskStatusPath(kTask)),
      Put(ResultFile(".zorvcopy.2000000000")),
      Put(ResultFile(".zorvcopy.2000000000.")),
      Put(ResultFile(".zorvcopy.2000000000.x")),
      Put(ResultFile(".zorvcopy.-2.0")),
      Put(ResultFile(".zorvcopy.99999999999.0")),
  };
  Sweep();
  for (const std::string& path : kept) EXPECT_TRUE(Exists(path)) << path;
}

TEST_F(Leftovers, LinksDirectoriesAndPipesStay) {
  const std::string target = Put("/tmp/elsewhere");
  const std::string link = std::string(kShareMap) + ".aB3dE9";
  const std::string directory = std::string(kShareMap) + ".aB3dE8";
  const std::string fifo = std::string(kShareMap) + ".aB3dE7";
  fs::create_symlink(target, link);
  fs::create_directory(directory);
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  Sweep();
  for (const std::string& path : {target, link, directory, fifo}) EXPECT_TRUE(Exists(path)) << path;
}

TEST_F(Leftovers, NothingBehindALinkIsLookedAt) {
  const std::string elsewhere = "/tmp/elsewhere.dir/";
  const std::string copy = Put(elsewhere + kCopyOfTheDead);
  fs::create_symlink(elsewhere, PathIn(kShareTaskResultDir, "link"));
  const std::string share = Put(elsewhere + "photos.aB3dE9");
  fs::remove_all(kShareTaskStatusDir);
  fs::create_symlink(elsewhere, kShareTaskStatusDir);
  Sweep();
  EXPECT_TRUE(Exists(copy));
  EXPECT_TRUE(Exists(share));
  fs::remove(kShareTaskStatusDir);
}

TEST_F(Leftovers, LockThatIsALinkIsNotFollowed) {
  const std::string left = Put(std::string(kReminderRecord) + ".aB3dE9");
  fs::remove(kReminderLock);
  fs::create_symlink("/tmp/nowhere", kReminderLock);
  Sweep();
  EXPECT_TRUE(Exists(left));
  EXPECT_FALSE(Exists("/tmp/nowhere"));
  fs::remove(kReminderLock);
}

}  // namespace
