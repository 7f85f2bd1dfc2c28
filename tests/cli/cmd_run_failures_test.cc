// Each way in which a calculation cannot be had: one line that says so, and its exit status.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "tests/cli/cli_world.h"
#include "tests/support/syscall_stepper.h"

using namespace ZorvTest;

namespace {

class CmdRunFailures : public CliWorld {
 protected:
  // One line on standard error, nothing on standard output, this status.
  static void ExpectFailure(const CommandResult& result, int status, const std::string& line) {
    EXPECT_EQ(status, result.status);
    EXPECT_EQ("zorv-snapusage: " + line + "\n", result.err);
    EXPECT_EQ("", result.out);
  }

  // Whether the lock of launches is free.
  static bool NobodyLaunches() {
    const UniqueFd lock(open(kLaunchLock, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    return fcntl(lock.Get(), F_GETLK, &whole) == 0 && whole.l_type == F_UNLCK;
  }

  // What a launch of photos waits for when somebody holds it.
  static std::vector<std::string> LocksOfALaunch() {
    return {kLaunchLock, kClaimLock, kStatusLock,
            "/run/lock/zorvbtrfssnapusage/share_snap_cal_map.lock"};
  }

  static constexpr char kLaunchLock[] = "/run/zorv-snapusage.lock";
  static constexpr char kClaimLock[] = "/run/lock/zorvbtrfssnapusage/share_task/photos.lock";
  static constexpr char kStatusLock[] = "/run/lock/zorvbtrfssnapusage/share_task_status/photos";
  static constexpr char kInstall[] = "; install zorv-btrfs-command, or the engine as /sbin/btrfs";
};

TEST_F(CmdRunFailures, NotRoot) {
  // The build tree may lie where others cannot look.
  MustRun({"cp", "-r", ZORV_BINARY_DIR "/bin", ZORV_BINARY_DIR "/lib", "/opt/"});
  for (const char* command : {"run", "start", "status", "show", "stop", "clean"}) {
    SCOPED_TRACE(command);
    ExpectFailure(ZorvTest::Run({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                 "/opt/bin/zorv-snapusage", command, "photos"}),
                  3, "this needs root; run it with sudo");
  }
}

TEST_F(CmdRunFailures, UnknownShare) {
  for (const char* command : {"run", "start", "status", "show", "stop", "clean"}) {
    SCOPED_TRACE(command);
    ExpectFailure(Tool({command, "nope"}), 5,
                  "there is no share 'nope'; a share is a subvolume directly below /volume1, "
                  "/volume2, ...");
  }
}

TEST_F(CmdRunFailures, MistypedNamesSuggestTheNearest) {
  for (const char* command : {"run", "start", "status", "show", "stop", "clean"})
    ExpectFailure(Tool({command, "phtos"}), 5, "there is no share 'phtos'; did you mean 'photos'?");
  ExpectFailure(Tool({"run", "photos", "--snapshot", "by hnad"}), 8,
                "share 'photos' has no snapshot 'by hnad'; did you mean 'by hand'?");
}

TEST_F(CmdRunFailures, VolumeThatIsNotMountedYetIsWaitedFor) {
  for (const char* command : {"run", "start"}) {
    SCOPED_TRACE(command);
    WriteFile("/etc/fstab", "/dev/sdz /volume2 btrfs defaults 0 0\n");
    Background run(Argv({command, "late"}));
    EXPECT_TRUE(
        run.HasSaid("zorv-snapusage: waiting for the volume of share 'late' to be mounted\n"))
        << run.Err();
    // At once with its snapshot, as it comes with a mount.
    volume_->Subvolume("early");
    volume_->Snapshot("early", "early/.snapshots/one");
    std::filesystem::rename(volume_->Path("early"), volume_->Path("late"));
    EXPECT_EQ(0, run.Wait().status) << run.Err();
    EXPECT_TRUE(Settled("late"));
    std::filesystem::remove("/etc/fstab");
    volume_->DeleteSubvolume("late/.snapshots/one");
    volume_->DeleteSubvolume("late");
  }
}

// The result was there, and was not shown.
TEST_F(CmdRunFailures, VolumeThatIsUnmountedMeanwhileHidesNoResult) {
  FakeEngine(std::string(kAnswer) + "umount -l /volume1\n");
  const CommandResult result = Tool({"run", "photos", "--quiet"});
  EXPECT_EQ(0, result.status);
  EXPECT_THAT(result.out, HasSubstr(kFirst));
  EXPECT_THAT(result.err, HasSubstr("note: which snapshots are still there cannot be told: "));
  volume_->Mount();
}

// The names of the other one stood beside the numbers.
TEST_F(CmdRunFailures, VolumeThatIsExchangedMeanwhile) {
  BtrfsVolume other("/volume2");
  other.Subvolume("photos");
  for (const char* snapshot : {"one", "two"})
    other.Snapshot("photos", std::string("photos/.snapshots/") + snapshot);
  FakeEngine(std::string(kAnswer) + "umount -l /volume1; mount --bind /volume2 /volume1\n");
  const CommandResult result = Tool({"run", "photos", "--quiet"});
  EXPECT_EQ(0, result.status);
  EXPECT_THAT(result.out, HasSubstr(kFirst));
  EXPECT_THAT(result.out, Not(HasSubstr("one")));
  EXPECT_THAT(result.err, HasSubstr("note: the share lies on another file system than "));
  MustRun({"umount", "/volume1"});
  volume_->Mount();
}

TEST_F(CmdRunFailures, WaitForAVolumeCanBeEnded) {
  WriteFile("/etc/fstab", "/dev/sdz /volume2 btrfs defaults 0 0\n");
  Background run(Argv({"run", "elsewhere"}));
  EXPECT_TRUE(run.HasSaid("waiting for the volume"));
  kill(run.Pid(), SIGINT);
  EXPECT_EQ(130, run.Wait().status);
  std::filesystem::remove("/etc/fstab");
}

// After the minute that the library itself would try.
TEST_F(CmdRunFailures, ShareOutOfReach) {
  WriteFile("/etc/fstab", "/dev/sdz /volume2 btrfs defaults 0 0\n");
  const CommandResult result = Tool({"run", "elsewhere"});
  EXPECT_EQ(15, result.status);
  EXPECT_THAT(
      result.err,
      ContainsRegex("^zorv-snapusage: waiting for the volume of share 'elsewhere' to be "
                    "mounted\nzorv-snapusage: share 'elsewhere' cannot be reached for the "
                    "moment: /volume2 is not there: [^;]*; mount its volume, or try again\n$"));
  std::filesystem::remove("/etc/fstab");
}

TEST_F(CmdRunFailures, CommandMissing) {
  std::filesystem::remove("/sbin/btrfs");
  ExpectFailure(Tool({"run", "photos"}), 6, std::string("/sbin/btrfs is missing") + kInstall);
  ExpectFailure(Tool({"start", "photos"}), 6, std::string("/sbin/btrfs is missing") + kInstall);
}

TEST_F(CmdRunFailures, StockCommandIsNoEngine) {
  std::filesystem::copy_file(kStockBtrfs, "/sbin/btrfs",
                             std::filesystem::copy_options::overwrite_existing);
  ExpectFailure(
      Tool({"run", "photos"}), 7,
      std::string("/sbin/btrfs is not an engine that calculates exclusive sizes") + kInstall);
  EXPECT_FALSE(std::filesystem::exists(kMap)) << "nothing was claimed";
}

TEST_F(CmdRunFailures, CommandThatSaysNothingIsNoEngine) {
  WriteScript("/sbin/btrfs", "exit 0\n");
  EXPECT_EQ(7, Tool({"run", "photos"}).status);
}

// It is at /sbin/btrfs, and does not even say what it is. The command's pid is in kHanging then.
class CommandThatHangs : public CmdRunFailures {
 protected:
  static constexpr char kHanging[] = "/tmp/hanging.pid";

  CommandThatHangs() { std::filesystem::remove(kHanging); }

  static void Hang(const std::string& before) {
    WriteScript("/sbin/btrfs", before + "echo $$ > " + kHanging + ".new; mv " + kHanging + ".new " +
                                   kHanging + "; exec sleep 1000\n");
  }

  // What becomes of the program when it is signalled by then.
  static CommandResult Interrupted(const std::vector<std::string>& words) {
    Background program(Argv(words));
    EXPECT_TRUE(WaitUntil([] { return std::filesystem::exists(kHanging); }));
    EXPECT_EQ(0, kill(program.Pid(), SIGTERM));
    const CommandResult result = program.Wait();
    const pid_t command = atoi(ReadFile(kHanging).c_str());
    const auto isGone = [command] {
      (void)waitpid(command, nullptr, WNOHANG);  // where it has come to this process
      return kill(command, 0) != 0;
    };
    EXPECT_TRUE(WaitUntil(isGone)) << "nothing is left";
    std::filesystem::remove(kHanging);
    return result;
  }
};

TEST_F(CommandThatHangs, EndsWithTheProgram) {
  for (const char* before : {"", "exec > /dev/null 2>&1\n", "echo -n zorv\n"}) {
    SCOPED_TRACE(before);
    Hang(before);
    for (const std::vector<std::string>& words : {std::vector<std::string>{"run", "photos"},
                                                  {"plan", "photos", "--keep-last", "1"},
                                                  {"explain", "photos", kFirst}}) {
      SCOPED_TRACE(words[0]);
      const CommandResult result = Interrupted(words);
      EXPECT_EQ(130, result.status) << "it is not the command's fault";
      EXPECT_THAT(result.err, HasSubstr("interrupted"));
    }
    EXPECT_EQ(128 + SIGTERM, Interrupted({"start", "photos"}).status);
  }
}

TEST_F(CommandThatHangs, IsSaidAndGivenUp) {
  Hang("");
  ExpectFailure(Tool({"run", "photos"}), 7,
                "asking /sbin/btrfs for its version (Ctrl-C ends it)\nzorv-snapusage: /sbin/btrfs "
                "does not answer" +
                    std::string(kInstall));
}

TEST_F(CmdRunFailures, CommandThatCannotBeStarted) {
  std::filesystem::permissions("/sbin/btrfs", std::filesystem::perms(0644));
  ExpectFailure(Tool({"run", "photos"}), 7,
                std::string("/sbin/btrfs cannot be started (Permission denied)") + kInstall);
}

TEST_F(CmdRunFailures, UnknownSnapshot) {
  ExpectFailure(
      Tool({"run", "photos", "--snapshot", kFirst, "--snapshot", "GMT-1999.01.01-00.00.00"}), 8,
      "share 'photos' has no snapshot 'GMT-1999.01.01-00.00.00'; its snapshots are in "
      "'/volume1/photos/.snapshots'");
}

TEST_F(CmdRunFailures, ShareWithoutSnapshots) {
  volume_->Subvolume("empty");
  ExpectFailure(Tool({"run", "empty"}), 9,
                "share 'empty' has no snapshots; make read-only snapshots of it in "
                "'/volume1/empty/.snapshots'");
}

TEST_F(CmdRunFailures, RangeWithoutSnapshots) {
  ExpectFailure(Tool({"run", "photos", "--since", "2025-01-01", "--until", "2025-01-31"}), 9,
                "share 'photos' has no snapshots from 2025-01-01 00:00:00 to 2025-01-31 23:59:59; "
                "widen the range; snapshots whose names carry no time are in none");
}

TEST_F(CmdRunFailures, NamesThatAreNotUtf8) {
  volume_->Snapshot("photos", "photos/.snapshots/a\xFFz");
  ExpectFailure(Tool({"run", "photos", "--snapshot", "a\xFFz"}), 1,
                "the name of snapshot 'a\\xFFz' is not UTF-8; rename it");
  EXPECT_EQ(0, Tool({"run", "photos", "--snapshot", kFirst}).status);
  volume_->Subvolume("\xFF");
  volume_->Snapshot("\xFF", "\xFF/.snapshots/one");
  ExpectFailure(Tool({"run", "\xFF"}), 1, "the name of share '\\xFF' is not UTF-8; rename it");
}

// Anybody who can write in the share kept it from being calculated by such a one.
TEST_F(CmdRunFailures, SnapshotWhoseNameIsNotUtf8KeepsNoOtherFromBeingCalculated) {
  volume_->Snapshot("photos", "photos/.snapshots/a\xFFz");
  const CommandResult result = Tool({"run", "photos", "--quiet"});
  EXPECT_EQ(13, result.status);
  EXPECT_THAT(result.out, HasSubstr("by hand\n"));
  EXPECT_THAT(result.err,
              HasSubstr("zorv-snapusage: note: snapshot 'a\\xFFz' is left out, its name "
                        "is not UTF-8; rename it\n"));
  EXPECT_THAT(result.err,
              HasSubstr("1 of 4 snapshots are not in it ('a\\xFFz'); rename those whose names are "
                        "not UTF-8, and run it again with: zorv-snapusage run photos\n"));
  EXPECT_EQ(
      "started the calculation of 3 snapshots of share 'photos', without 1 whose names are not "
      "UTF-8\n",
      MustRun(Argv({"start", "photos"})));
  EXPECT_TRUE(Settled());
}

// It was said not to lie on the volume, and the system log was to say more.
TEST_F(CmdRunFailures, SnapshotThatGoesBeforeTheLaunchIsNamed) {
  std::filesystem::rename("/sbin/btrfs", "/opt/engine");
  const std::string second = volume_->Path(std::string("photos/.snapshots/") + kSecond);
  WriteScript("/sbin/btrfs", "mv " + second + " " + second + ".old\nexec /opt/engine \"$@\"\n");
  ExpectFailure(Tool({"run", "photos", "--since", "2024-03-01"}), 1,
                "the calculation of share 'photos' could not be started, its snapshot '" +
                    std::string(kSecond) + "' has gone since; try again");
  EXPECT_THAT(MustRun(Argv({"status", "photos"})), HasSubstr(", or one has gone)\n"));
}

TEST_F(CmdRunFailures, WrongTimes) {
  ExpectFailure(Tool({"run", "photos", "--since", "soon"}), 2,
                "'soon' is no time; write 2024-03-05, \"2024-03-05 17:04\", "
                "\"2024-03-05 17:04:09\" or 2024.03.05-17.04.09");
  ExpectFailure(Tool({"run", "photos", "--since", "2024-03-02", "--until", "2024-03-01"}), 2,
                "the range ends before it begins; exchange --since and --until");
  ExpectFailure(Tool({"run", "photos", "--snapshot", kFirst, "--since", "2024-03-01"}), 2,
                "snapshots and a time range cannot be asked for together; leave one of them out");
}

TEST_F(CmdRunFailures, BusyShare) {
  WaitingEngine();
  ASSERT_EQ(0, Tool({"start", "photos"}).status);
  ASSERT_TRUE(EngineWaits());
  for (const char* command : {"run", "start"}) {
    SCOPED_TRACE(command);
    ExpectFailure(Tool({command, "photos"}), 4,
                  "share 'photos' is busy: a calculation of it is under way; wait for it, or end "
                  "it with: zorv-snapusage stop photos");
  }
}

TEST_F(CmdRunFailures, ShareStaysBusyBeyondTwoMinutes) {
  WaitingEngine();
  ASSERT_EQ(0, Tool({"start", "photos"}).status);
  ASSERT_TRUE(EngineWaits());
  EditJson(kMap, {"photos", "time"}, 1);
  EXPECT_EQ(4, Tool({"run", "photos"}).status);
}

TEST_F(CmdRunFailures, FailedCalculation) {
  FakeEngine("echo 'exclusive sizes unavailable: a block does not add up'; exit 1\n");
  const CommandResult result = Tool({"run", "photos", "--quiet"});
  ExpectFailure(result, 11,
                "the calculation of share 'photos' failed (code 1: the command reported a failure, "
                "or its output could not be recorded); the system log says more; earlier results "
                "are kept");
}

TEST_F(CmdRunFailures, EngineIsAskedWhatIsWrong) {
  check_ =
      "echo 'problem: a device is missing'; "
      "echo 'verdict: a run would fail, because of a missing device'";
  FakeEngine("echo 'exclusive sizes unavailable: x'; exit 1\n");
  for (const std::vector<std::string>& words :
       std::vector<std::vector<std::string>>{{"run", "photos", "--quiet"}, {"wait", "photos"}})
    ExpectFailure(Tool(words), 11,
                  "the calculation of share 'photos' failed (code 1: the command reported a "
                  "failure, or its output could not be recorded), because of a missing device; the "
                  "system log says more; earlier results are kept");
}

TEST_F(CmdRunFailures, ReasonOfTheEngineIsSeen) {
  FakeEngine("echo 'ERROR: no such device' >&2; echo 'exclusive sizes unavailable: x'; exit 1\n");
  EXPECT_THAT(Tool({"run", "photos", "--quiet"}).err, HasSubstr("ERROR: no such device\n"));
}

TEST_F(CmdRunFailures, StoppedByAnother) {
  WaitingEngine();
  Background run(Argv({"run", "photos", "--quiet"}));
  ASSERT_TRUE(EngineWaits());
  Background stop(Argv({"stop", "photos"}));
  ASSERT_TRUE(StopArrives());
  Release();
  EXPECT_EQ(0, stop.Wait().status);
  ExpectFailure(run.Wait(), 12,
                "the calculation of share 'photos' was stopped; earlier results are kept: "
                "zorv-snapusage show photos");
}

TEST_F(CmdRunFailures, KilledCalculation) {
  WaitingEngine();
  Background run(Argv({"run", "photos", "--quiet"}));
  ASSERT_TRUE(EngineWaits());
  ASSERT_EQ(0, kill(CalculatorPid(), SIGKILL));
  ExpectFailure(run.Wait(), 11,
                "the calculation of share 'photos' ended without a result: its process is gone "
                "(killed, or out of memory); remove its record with: zorv-snapusage clean photos, "
                "and run it again");
  ExpectFailure(Tool({"run", "photos"}), 4,
                "the last calculation of share 'photos' was killed, and holds the share for two "
                "minutes from its start; wait, or remove its record with: zorv-snapusage clean "
                "photos");
  EXPECT_EQ(0, Tool({"clean", "photos"}).status);
  FakeEngine(kAnswer);
  EXPECT_EQ(0, Tool({"run", "photos"}).status);
}

TEST_F(CmdRunFailures, RecordRemovedMeanwhile) {
  WaitingEngine();
  Background run(Argv({"run", "photos", "--quiet"}));
  ASSERT_TRUE(EngineWaits());
  // From here on the calculation writes nothing until its next line.
  ASSERT_TRUE(WaitUntil(
      [] { return ReadFile(kStatusOfPhotos).find("processed_in_bytes") != std::string::npos; }));
  std::filesystem::remove(kStatusOfPhotos);
  ExpectFailure(run.Wait(), 11,
                "the record of share 'photos' was removed while its calculation ran; run it again");
}

TEST_F(CmdRunFailures, ShareTakenOverMeanwhile) {
  WaitingEngine();
  Background run(Argv({"run", "photos", "--quiet"}));
  ASSERT_TRUE(EngineWaits());
  const std::string map = ReadFile(kMap);
  EditJson(kMap, {"photos", "task_id"}, "another");
  ExpectFailure(run.Wait(), 11,
                "another calculation of share 'photos' took the place of this one; follow it with: "
                "zorv-snapusage status photos");
  WriteFile(kMap, map);
}

TEST_F(CmdRunFailures, ShareTakenOverOnceTheResultsAreStored) {
  WaitingEngine();
  Background run(Argv({"run", "photos", "--quiet"}));
  ASSERT_TRUE(EngineWaits());
  ASSERT_TRUE(WaitUntil(NobodyLaunches));  // else the stopped one keeps others from it
  ASSERT_EQ(0, kill(run.Pid(), SIGSTOP));
  Release();
  ASSERT_TRUE(WaitUntil([] { return Tool({"start", "photos"}).status == 0; }));
  ASSERT_TRUE(EngineWaits());
  ASSERT_EQ(0, kill(run.Pid(), SIGCONT));
  const CommandResult result = run.Wait();
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_THAT(result.out, HasSubstr("by hand\n"));
}

TEST_F(CmdRunFailures, OneLaunchAtATime) {
  // Between the look at a share and its claim nobody else may begin and be done.
  auto other = std::make_unique<HeldLock>(kLaunchLock);
  Background run(Argv({"run", "photos", "--quiet"}));
  EXPECT_TRUE(run.HasSaid("zorv-snapusage: waiting for another launch or removal\n"));
  EXPECT_FALSE(std::filesystem::exists(kStatusOfPhotos));
  other.reset();
  EXPECT_EQ(0, run.Wait().status);
}

// A process that locks a file and is then stopped, until the object goes.
class StoppedHolder {
 public:
  explicit StoppedHolder(const std::string& path) : pid_(fork()) {
    if (pid_ == 0) {
      const HeldLock held(path);
      raise(SIGSTOP);
      _exit(0);
    }
    (void)waitpid(pid_, nullptr, WUNTRACED);
  }
  ~StoppedHolder() {
    kill(pid_, SIGKILL);
    (void)waitpid(pid_, nullptr, 0);
  }

  std::string Pid() const { return std::to_string(pid_); }

 private:
  const pid_t pid_;
};

// It was waited for in silence, for ever.
TEST_F(CmdRunFailures, LockOfAStoppedProcessIsNotWaitedForForEver) {
  MustRun(Argv({"run", "photos", "--quiet"}));
  const struct {
    std::string path, what;
  } kCases[] = {
      {kLaunchLock, "another launch or removal"},
      {kClaimLock, "the lock '" + std::string(kClaimLock) + "', which another process holds"}};
  for (const auto& c : kCases)
    for (const char* command : {"run", "start"}) {
      SCOPED_TRACE(c.path + ": " + command);
      const StoppedHolder holder(c.path);
      const CommandResult result =
          ZorvTest::Run({"timeout", "40", ZORV_CLI_PATH, command, "photos"});
      EXPECT_EQ(1, result.status);
      EXPECT_EQ("zorv-snapusage: waiting for " + c.what + "\nzorv-snapusage: waited for " + c.what +
                    " in vain: process " + holder.Pid() +
                    " is stopped; let it go on with: kill -CONT " + holder.Pid() + "\n",
                result.err);
    }
  EXPECT_EQ(0, Tool({"run", "photos"}).status) << "nothing holds the share";
}

// With all signals held back it waited for a lock of the library, or for who did so.
TEST_F(CmdRunFailures, WaitForALockEndsAtTheFirstSignal) {
  MustRun(Argv({"run", "photos", "--quiet"}));
  for (const std::string& path : LocksOfALaunch())
    for (const int signal : {SIGINT, SIGTERM}) {
      SCOPED_TRACE(path + ": " + strsignal(signal));
      const HeldLock held(path);
      Background run(Argv({"run", "photos", "--quiet"}));
      EXPECT_TRUE(run.HasSaid("zorv-snapusage: waiting for "));
      kill(run.Pid(), signal);
      const CommandResult result = run.Wait();
      EXPECT_EQ(130, result.status);
      EXPECT_THAT(result.err, HasSubstr("zorv-snapusage: interrupted before a calculation was "
                                        "started; nothing was done\n"));
    }
  EXPECT_EQ(0, Tool({"run", "photos"}).status) << "nothing holds the share";
}

TEST_F(CmdRunFailures, WaitForALockOfOneShareIsNobodyElses) {
  volume_->Subvolume("mail");
  volume_->Snapshot("mail", "mail/.snapshots/one");
  MustRun(Argv({"run", "photos", "--quiet"}));
  for (const char* path : {kClaimLock, kStatusLock}) {
    SCOPED_TRACE(path);
    auto held = std::make_unique<HeldLock>(path);
    Background run(Argv({"run", "photos", "--quiet"}));
    EXPECT_TRUE(run.HasSaid("zorv-snapusage: waiting for the lock '" + std::string(path) + "'"));
    EXPECT_EQ(0, ZorvTest::Run({"timeout", "30", ZORV_CLI_PATH, "run", "mail"}).status);
    held.reset();
    EXPECT_EQ(0, run.Wait().status);
  }
}

TEST_F(CmdRunFailures, ResultsThatCannotBeStored) {
  FakeEngine("rmdir " + std::string(kResultsOfPhotos) + "; touch " + kResultsOfPhotos + "\n" +
             kAnswer);
  ExpectFailure(Tool({"run", "photos", "--quiet"}), 1,
                "the calculation of share 'photos' is done, but its results could not be stored; "
                "the system log says why (journalctl -t zorv-snapusage)");
}

TEST_F(CmdRunFailures, ShortResult) {
  FakeEngine("echo \"subvol($1) 10 bytes\"\n");
  const CommandResult result = Tool({"run", "photos", "--quiet"});
  EXPECT_EQ(13, result.status);
  EXPECT_EQ(
      "zorv-snapusage: the result of share 'photos' is short: 2 of 3 snapshots are not in it ('" +
          std::string(kSecond) + "', 'by hand'); run it again with: zorv-snapusage run photos\n",
      result.err);
  EXPECT_THAT(result.out, HasSubstr(kFirst)) << "what there is, is shown";
}

TEST_F(CmdRunFailures, EngineThatDiesLooksLikeNoResult) {
  FakeEngine("kill -KILL $$\n");
  const CommandResult result = Tool({"run", "photos", "--quiet"});
  EXPECT_EQ(13, result.status);
  EXPECT_THAT(result.err, HasSubstr("3 of 3 snapshots are not in it"));
}

TEST_F(CmdRunFailures, FullDiskUnderTheOutput) {
  const CommandResult result =
      ZorvTest::Run({"bash", "-c", std::string(ZORV_CLI_PATH) + " run photos --quiet > /dev/full"});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ("zorv-snapusage: the output could not be written; see to the space on its disk\n",
            result.err);
}

// Both were told to see to the space on a disk.
TEST_F(CmdRunFailures, OutputThatLeadsNowhere) {
  const std::string show = std::string(ZORV_CLI_PATH) + " names photos";
  const CommandResult closed = ZorvTest::Run({"bash", "-c", show + " >&-"});
  EXPECT_EQ(1, closed.status);
  EXPECT_EQ(
      "zorv-snapusage: the output could not be written; standard output is closed: let it lead "
      "somewhere\n",
      closed.err);
  // The reader is gone before anything is printed.
  const CommandResult gone =
      ZorvTest::Run({"bash", "-c", "trap '' PIPE; { sleep 1; " + show + "; echo $? >&2; } | true"});
  EXPECT_EQ(
      "zorv-snapusage: the output could not be written; whoever read it has gone: let it be read "
      "to its end\n1\n",
      gone.err);
}

// More than a pipe holds, whose reader has gone after the first byte.
TEST_F(CmdRunFailures, ReaderThatGoesInTheMiddle) {
  for (unsigned number = 1000; number < 1400; ++number)
    volume_->Snapshot("photos",
                      "photos/.snapshots/" + std::to_string(number) + std::string(240, 'x'));
  MustRun(Argv({"run", "photos", "--quiet"}));
  const std::string show = std::string(ZORV_CLI_PATH) + " show photos -H";
  ASSERT_LT(size_t{100} << 10, MustRun({"bash", "-c", show}).size());
  const std::string head = "; echo $? >&2; } | head -c 1 > /dev/null";
  EXPECT_EQ("141\n", ZorvTest::Run({"bash", "-c", "{ " + show + head}).err)
      << "by SIGPIPE, without a word, as programs do";
  EXPECT_EQ(
      "zorv-snapusage: the output could not be written; whoever read it has gone: let it be read "
      "to its end\n1\n",
      ZorvTest::Run({"bash", "-c", "trap '' PIPE; { " + show + head}).err);
  EXPECT_EQ(0, Tool({"show", "photos"}).status) << "nothing has become of the result";
}

TEST_F(CmdRunFailures, EmptyTimeIsNotNoTime) {
  for (const char* option : {"--since", "--until"})
    for (const char* command : {"run", "start"}) {
      SCOPED_TRACE(std::string(command) + option);
      const CommandResult result = Tool({command, "photos", option, ""});
      EXPECT_EQ(2, result.status) << "a variable that is empty by mistake measures not everything";
      EXPECT_THAT(result.err, HasSubstr("a time is expected"));
      EXPECT_EQ("", result.out);
    }
}

TEST_F(CmdRunFailures, NothingSinceATimeToCome) {
  ExpectFailure(Tool({"run", "photos", "--since", "2198-12-31"}), 9,
                "share 'photos' has no snapshots from 2198-12-31 00:00:00 on; widen the range; "
                "snapshots whose names carry no time are in none");
}

TEST_F(CmdRunFailures, FullDiskUnderTheHelp) {
  for (const char* option : {"--help", "--version"}) {
    SCOPED_TRACE(option);
    const CommandResult result =
        ZorvTest::Run({"bash", "-c", std::string(ZORV_CLI_PATH) + " " + option + " > /dev/full"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("zorv-snapusage: the output could not be written; see to the space on its disk\n",
              result.err);
  }
}

// Between the claim and the launch a lock that failed left the share claimed, for two minutes.
TEST_F(CmdRunFailures, ShareIsFreeWhicheverLockOfTheMapHasFailed) {
  bool all = false;
  int failed = 0;
  for (size_t number = 1; !all; ++number) {
    SCOPED_TRACE(number);
    size_t locks = 0;
    const int status =
        SyscallStepper(std::vector<WatchedCall>{{SYS_fcntl}})
            .Run(Program(Argv({"start", "photos"}), "/tmp/start.out"), [&](const Step& step) {
              const bool isLock = step.role == Role::kCaller &&
                                  step.text.find("share_snap_cal_map") != std::string::npos &&
                                  step.arguments[1] == F_SETLKW && ++locks == number;
              return isLock ? Action::Fail(ENOLCK) : Action::GoOn();
            });
    all = locks < number;
    failed += status != 0;
    const CommandResult next = Tool({"run", "photos", "--quiet"});
    EXPECT_EQ(0, next.status) << next.err;
  }
  EXPECT_GT(failed, 1);
}

// The signal of the limit ended the program, or the calculation in the middle of a write.
TEST_F(CmdRunFailures, LimitOnTheSizeOfFilesIsAFailedWrite) {
  const std::string limited = std::string("set -o pipefail; (ulimit -f 0; exec ") + ZORV_CLI_PATH +
                              " run photos) 2>&1 | cat";
  const CommandResult result = ZorvTest::Run({"bash", "-c", limited});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ(
      "zorv-snapusage: no calculation of share 'photos' could be created (code 1); the system log "
      "says why (journalctl -t zorv-snapusage)\n",
      result.out);
}

// It was left out of the calculation, and the rest was called complete.
TEST_F(CmdRunFailures, SnapshotThatCannotBeLookedAtIsNotLeftOut) {
  constexpr char kOutput[] = "/tmp/run.out";
  const std::string path = volume_->Path(std::string("photos/.snapshots/") + kFirst);
  const int status =
      SyscallStepper(std::vector<WatchedCall>{{SYS_readlink}})
          .Run(Program(Argv({"run", "photos"}), kOutput), [&](const Step& step) {
            return step.text == "readlink(" + path + ")" ? Action::Fail(EIO) : Action::GoOn();
          });
  EXPECT_EQ(1, status);
  EXPECT_EQ(std::string("zorv-snapusage: snapshot '") + kFirst +
                "' of share 'photos' cannot be looked at; the system log says why (journalctl -t "
                "zorv-snapusage)\n",
            ReadFile(kOutput));
}

TEST_F(CmdRunFailures, StandardErrorThatTakesNothingChangesNoStatus) {
  for (const char* redirect : {"2> /dev/full", "2>&-"}) {
    SCOPED_TRACE(redirect);
    const std::string tool = std::string(ZORV_CLI_PATH) + " ";
    const CommandResult result = ZorvTest::Run({"bash", "-c", tool + "run photos " + redirect});
    EXPECT_EQ(0, result.status);
    EXPECT_THAT(result.out, HasSubstr("by hand\n"));
    EXPECT_EQ(5, ZorvTest::Run({"bash", "-c", tool + "run nope " + redirect}).status);
    EXPECT_EQ(2, ZorvTest::Run({"bash", "-c", tool + "bogus " + redirect}).status);
    EXPECT_EQ(0, ZorvTest::Run({"bash", "-c", tool + "show photos " + redirect}).status);
  }
}

TEST_F(CmdRunFailures, ClosedStandardStreamsAreTakenByNoFile) {
  const std::string tool = std::string(ZORV_CLI_PATH) + " ";
  EXPECT_EQ(1, ZorvTest::Run({"bash", "-c", tool + "run photos <&- >&- 2>&-"}).status)
      << "the result cannot be written";
  EXPECT_EQ("", ZorvTest::Run({"grep", "-rlE", "exclusive so far|could not be written", "/run",
                               "/usr/local/zorvbtrfssnapusage"})
                    .out);
  EXPECT_EQ("done", ParseJson(ReadFile(kStatusOfPhotos))["status"].asString());
  EXPECT_THAT(MustRun(Argv({"show", "photos"})), HasSubstr("by hand\n"));
}

}  // namespace
