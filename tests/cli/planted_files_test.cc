// What stands in place of a file of the library is refused by name, never followed, never waited
// for.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "tests/cli/cli_world.h"
#include "tests/support/user_rights.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

constexpr char kLockOfMap[] = "/run/lock/zorvbtrfssnapusage/share_snap_cal_map.lock";
constexpr char kTreasure[] = "/opt/treasure";

void MakeSocket(const std::string& path) {
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    throw std::runtime_error("no socket at " + path);
}

class PlantedFiles : public CliWorld {
 protected:
  PlantedFiles() {
    MustRun(Argv({"run", "photos", "--quiet"}));
    fs::remove(kTreasure);
    WriteFile(kTreasure, "not to be touched");
  }
  ~PlantedFiles() override { EXPECT_EQ("not to be touched", ReadFile(kTreasure)); }

  // The program for a minute at most: what it must not wait for, it would wait for without end.
  static CommandResult Tool(const std::vector<std::string>& words) {
    std::vector<std::string> argv = {"timeout", "-s", "KILL", "60"};
    for (const std::string& word : Argv(words)) argv.push_back(word);
    return ZorvTest::Run(argv);
  }

  static void ExpectRefusal(const CommandResult& result, const std::string& line) {
    EXPECT_EQ(16, result.status);
    EXPECT_EQ("zorv-snapusage: " + line + "\n", result.err);
    EXPECT_EQ("", result.out);
  }

  // The task that has a record of its own: one that failed.
  static std::string FailedTask() {
    FakeEngine("echo 'exclusive sizes unavailable: x'\n");
    EXPECT_EQ(11, Tool({"run", "photos", "--quiet"}).status);
    return ParseJson(ReadFile(kMap))["photos"]["task_id"].asString();
  }
};

TEST_F(PlantedFiles, EveryKindIsRefusedByEveryCommand) {
  const struct {
    const char* what;
    void (*plant)(const std::string& path);
  } kinds[] = {
      {"is a symbolic link", [](const std::string& path) { fs::create_symlink(kTreasure, path); }},
      {"is a symbolic link", [](const std::string& path) { fs::create_symlink("/nowhere", path); }},
      {"is a named pipe", [](const std::string& path) { (void)mkfifo(path.c_str(), 0600); }},
      {"is a directory", [](const std::string& path) { fs::create_directory(path); }},
      {"is a device",
       [](const std::string& path) { (void)mknod(path.c_str(), S_IFCHR | 0600, makedev(1, 3)); }},
      {"is a socket", MakeSocket},
  };
  fs::remove(kStatusOfPhotos);
  for (const auto& kind : kinds) {
    SCOPED_TRACE(kind.what);
    kind.plant(kStatusOfPhotos);
    for (const char* command : {"run", "start", "status", "show", "stop", "clean"}) {
      SCOPED_TRACE(command);
      ExpectRefusal(Tool({command, "photos"}), std::string("'") + kStatusOfPhotos + "' " +
                                                   kind.what +
                                                   "; find out who put it there, and remove it");
    }
    EXPECT_EQ(16, Tool({"clean", "--all"}).status);
    fs::remove(kStatusOfPhotos);
  }
}

TEST_F(PlantedFiles, EveryPlaceIsLookedAt) {
  const std::string task = FailedTask();
  const std::vector<std::string> places = {
      kMap,
      kLockOfMap,
      "/usr/local/zorvbtrfssnapusage/reminder_record",
      "/run/lock/zorvbtrfssnapusage/reminder_record.lock",
      kStatusOfPhotos,
      "/run/lock/zorvbtrfssnapusage/share_task_status/photos",
      "/run/lock/zorvbtrfssnapusage/share_task/photos.lock",
      std::string(kResultsOfPhotos) + "/planted.result",
      "/run/zorvbtrfssnapusage/task_status/" + task,
      "/run/lock/zorvbtrfssnapusage/task_status/" + task + ".lock",
      "/run/zorvbtrfssnapusage/task_result/" + task + ".result",
      "/run/zorvbtrfssnapusage/task_result/" + task + ".subvol_id",
      "/run/lock/zorvbtrfssnapusage/snap_cal_result/" + task + ".result",
      "/run/lock/zorvbtrfssnapusage/snap_cal_result/" + task + ".subvol_id",
  };
  for (const std::string& place : places) {
    SCOPED_TRACE(place);
    const std::string kept = place + ".kept";
    const bool was = fs::exists(place);
    if (was) fs::rename(place, kept);
    ASSERT_EQ(0, mkfifo(place.c_str(), 0600));
    for (const char* command : {"run", "status", "show", "stop", "clean"})
      ExpectRefusal(Tool({command, "photos"}),
                    "'" + place + "' is a named pipe; find out who put it there, and remove it");
    fs::remove(place);
    if (was) fs::rename(kept, place);
  }
}

TEST_F(PlantedFiles, LaunchLockIsLookedAt) {
  fs::remove("/run/zorv-snapusage.lock");
  fs::create_symlink(kTreasure, "/run/zorv-snapusage.lock");
  ExpectRefusal(Tool({"run", "photos"}),
                "'/run/zorv-snapusage.lock' is a symbolic link; find out who put it there, and "
                "remove it");
  fs::remove("/run/zorv-snapusage.lock");
}

TEST_F(PlantedFiles, ResultDirectoryIsLookedAt) {
  fs::rename(kResultsOfPhotos, "/opt/results");
  fs::create_directory_symlink("/opt/results", kResultsOfPhotos);
  for (const char* command : {"run", "show", "clean"})
    ExpectRefusal(Tool({command, "photos"}),
                  std::string("'") + kResultsOfPhotos +
                      "' is a symbolic link; find out who put it there, and remove it");
  EXPECT_FALSE(fs::is_empty("/opt/results")) << "cleaned through the link";
  fs::remove(kResultsOfPhotos);
  fs::remove_all("/opt/results");
}

TEST_F(PlantedFiles, FileWithAnotherNameIsRefused) {
  fs::create_hard_link(kMap, "/usr/local/other-name");
  ExpectRefusal(Tool({"show", "photos"}),
                std::string("'") + kMap +
                    "' has further names (hard links); find out who put it there, and remove it");
  fs::remove("/usr/local/other-name");
  EXPECT_EQ(0, Tool({"show", "photos"}).status);
}

TEST_F(PlantedFiles, FileOfSomebodyElseIsRefused) {
  ASSERT_EQ(0, chown(kMap, 4711, 0));
  ExpectRefusal(
      Tool({"show", "photos"}),
      std::string("'") + kMap +
          "' belongs to user 4711, not to root; find out who put it there, and remove it");
  ASSERT_EQ(0, chown(kMap, 0, 4711));
  EXPECT_EQ(0, Tool({"show", "photos"}).status) << "its group may read it";
}

TEST_F(PlantedFiles, FileThatOthersCanWriteIsRefused) {
  for (const mode_t mode : {0620, 0602}) {
    ASSERT_EQ(0, chmod(kMap, mode));
    const CommandResult result = Tool({"show", "photos"});
    EXPECT_EQ(16, result.status);
    EXPECT_THAT(result.err,
                HasSubstr(std::string("; look at what is in it, then: chmod go-w ") + kMap + "\n"));
  }
}

// A process with the rights of `become` that holds a read lock of a file which the test has opened,
// as one may have that did so while the directory was open to all.
class Holder {
 public:
  Holder(const std::string& lock, void (*become)())
      : fd_(open(lock.c_str(), O_RDONLY | O_CLOEXEC)), pid_(fork()) {
    if (pid_ == 0) Hold(become);
    int status = 0;
    if (waitpid(pid_, &status, WUNTRACED) != pid_ || !WIFSTOPPED(status))
      throw std::runtime_error("no holder of " + lock);
  }
  ~Holder() {
    kill(pid_, SIGKILL);
    (void)WaitForExit(pid_);
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  std::string Pid() const { return std::to_string(pid_); }

 private:
  [[noreturn]] void Hold(void (*become)()) const {
    become();
    struct flock whole = {};
    whole.l_type = F_RDLCK;
    if (fcntl(fd_.Get(), F_SETLK, &whole) != 0) _exit(1);
    raise(SIGSTOP);
    _exit(0);
  }

  const UniqueFd fd_;
  const pid_t pid_;
};

TEST_F(PlantedFiles, LockThatAStrangerHoldsIsNotWaitedFor) {
  for (const std::string& lock :
       {std::string(kLockOfMap), std::string("/run/lock/zorvbtrfssnapusage/share_task/photos.lock"),
        std::string("/run/lock/zorvbtrfssnapusage/share_task_status/photos")}) {
    SCOPED_TRACE(lock);
    const Holder stranger(lock, [] { BecomeUser(4711); });
    ExpectRefusal(Tool({"run", "photos"}), "'" + lock + "' is locked by process " + stranger.Pid() +
                                               ", which is not root's; end that process: kill " +
                                               stranger.Pid());
  }
}

// As sudo is while it asks for a password.
TEST_F(PlantedFiles, LockThatAUsersProcessWithRootsRightsHoldsIsNotWaitedFor) {
  const Holder stranger(kLockOfMap, [] { (void)!setresuid(4711, 0, 0); });
  EXPECT_EQ(16, Tool({"run", "photos"}).status);
}

TEST_F(PlantedFiles, LockOfADescriptorThatNobodyOwnsIsNotWaitedFor) {
  const UniqueFd fd(open(kLockOfMap, O_RDONLY | O_CLOEXEC));
  struct flock whole = {};
  whole.l_type = F_RDLCK;
  ASSERT_EQ(0, fcntl(fd.Get(), F_OFD_SETLK, &whole));
  ExpectRefusal(Tool({"show", "photos"}),
                std::string("'") + kLockOfMap +
                    "' is locked by a process that cannot be told; remove it: rm " + kLockOfMap);
}

// The advice was to remove the file, under a calculation at work for one.
TEST_F(PlantedFiles, LockOfAnotherPidNamespaceIsNotToBeRemoved) {
  const UniqueFd fd(open(kLockOfMap, O_RDWR | O_CLOEXEC));
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  ASSERT_EQ(0, fcntl(fd.Get(), F_SETLK, &whole));
  ExpectRefusal(ZorvTest::Run({"unshare", "--pid", "--fork", ZORV_CLI_PATH, "show", "photos"}),
                std::string("'") + kLockOfMap +
                    "' is locked by a process of another pid namespace; look for it outside this "
                    "container, and wait for its end");
}

TEST_F(PlantedFiles, LockOfRootIsWaitedFor) {
  const UniqueFd fd(open(kLockOfMap, O_RDWR | O_CLOEXEC));
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  ASSERT_EQ(0, fcntl(fd.Get(), F_SETLK, &whole));
  Background show(Argv({"show", "photos"}));
  const std::string waits = "/proc/" + std::to_string(show.Pid()) + "/syscall";
  const std::string inLock = std::to_string(SYS_fcntl) + " ";
  ASSERT_TRUE(WaitUntil([&] { return ReadFile(waits).rfind(inLock, 0) == 0; }));
  whole.l_type = F_UNLCK;
  ASSERT_EQ(0, fcntl(fd.Get(), F_SETLK, &whole));
  EXPECT_EQ(0, show.Wait().status);
}

}  // namespace
