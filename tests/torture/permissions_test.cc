// Through the program nothing outside the library's directories is written, removed or signalled,
// whatever is planted in them, whatever their records say, and whoever runs it.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "tests/cli/cli_world.h"
#include "tests/cli/stranger.h"
#include "tests/support/torture.h"
#include "tests/support/user_rights.h"
#include "tests/torture/listing.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

const std::vector<std::string> kRoots = {kRun, kLock, kPersistent};

constexpr char kLaunchLock[] = "/run/zorv-snapusage.lock";

// What must not be touched: a directory with a file and a directory in it.
constexpr char kTreasure[] = "/opt/treasure";
constexpr char kTreasureFile[] = "/opt/treasure/file";

constexpr char kTask[] = "8b0f0c36-8a3f-4a57-9f6f-1f7e5d0c1a55";

constexpr uid_t kSomebody = 4711;

// Steps that a test takes, however long they take.
constexpr size_t kFewest = 200;

// The end of timeout(1) for a program that did not end by itself; and of one that did, by itself.
constexpr int kHung = 124;
constexpr int kLastOwnStatus = 16;

// A way to spoil a place.
struct Spoiling {
  const char* name;
  bool replaces;  // what stands there goes aside first
  void (*spoil)(const std::string& path);
};

void MakeSocket(const std::string& path) {
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  // Its address has 107 bytes at most, however long the name of its directory is.
  const UniqueFd directory(
      open(fs::path(path).parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  const std::string near =
      "/proc/self/fd/" + std::to_string(directory.Get()) + "/" + fs::path(path).filename().string();
  near.copy(address.sun_path, sizeof address.sun_path - 1);
  (void)bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
}

const std::vector<Spoiling> kForFiles = {
    {"link to a file", true, [](const std::string& p) { fs::create_symlink(kTreasureFile, p); }},
    {"link to a directory", true, [](const std::string& p) { fs::create_symlink(kTreasure, p); }},
    {"link to a place for a new file", true,
     [](const std::string& p) { fs::create_symlink("/opt/treasure/new", p); }},
    {"named pipe", true, [](const std::string& p) { (void)mkfifo(p.c_str(), 0600); }},
    {"directory", true, [](const std::string& p) { fs::create_directory(p); }},
    {"device", true,
     [](const std::string& p) { (void)mknod(p.c_str(), S_IFCHR | 0600, makedev(1, 5)); }},
    {"socket", true, MakeSocket},
    {"second name of a file", true,
     [](const std::string& p) {
       WriteFile(p, "{}");
       fs::create_hard_link(p, p + "-second");
     }},
    {"file of somebody else", true,
     [](const std::string& p) {
       WriteFile(p, "{}");
       (void)!chown(p.c_str(), kSomebody, 0);
     }},
    {"file that all can write", true,
     [](const std::string& p) {
       WriteFile(p, "{}");
       (void)chmod(p.c_str(), 0666);
     }},
};

const std::vector<Spoiling> kForDirectories = {
    {"link to a directory", true, [](const std::string& p) { fs::create_symlink(kTreasure, p); }},
    {"link to nothing", true,
     [](const std::string& p) { fs::create_symlink("/opt/treasure/new", p); }},
    {"file", true, [](const std::string& p) { WriteFile(p, "{}"); }},
    {"named pipe", true, [](const std::string& p) { (void)mkfifo(p.c_str(), 0600); }},
    {"directory of somebody else", false,
     [](const std::string& p) { (void)!chown(p.c_str(), kSomebody, 0); }},
    {"directory that all can write", false,
     [](const std::string& p) { (void)chmod(p.c_str(), 01777); }},
};

const std::vector<std::string> kFiles = {
    kMap,
    "/usr/local/zorvbtrfssnapusage/reminder_record",
    "/run/lock/zorvbtrfssnapusage/share_snap_cal_map.lock",
    "/run/lock/zorvbtrfssnapusage/reminder_record.lock",
    kStatusOfPhotos,
    "/run/lock/zorvbtrfssnapusage/share_task_status/photos",
    "/run/lock/zorvbtrfssnapusage/share_task/photos.lock",
    std::string(kResultsOfPhotos) + "/" + kTask + ".result",
    std::string(kResultsOfPhotos) + "/" + kTask + ".subvol_id",
    std::string("/run/zorvbtrfssnapusage/task_status/") + kTask,
    std::string("/run/lock/zorvbtrfssnapusage/task_status/") + kTask + ".lock",
    std::string("/run/zorvbtrfssnapusage/task_result/") + kTask + ".result",
    std::string("/run/lock/zorvbtrfssnapusage/snap_cal_result/") + kTask + ".subvol_id",
    kLaunchLock};

const std::vector<std::string> kDirectories = {kRun,
                                               kLock,
                                               kPersistent,
                                               "/run/zorvbtrfssnapusage/task_status",
                                               "/run/zorvbtrfssnapusage/task_result",
                                               "/run/lock/zorvbtrfssnapusage/task_status",
                                               "/run/lock/zorvbtrfssnapusage/snap_cal_result",
                                               "/run/lock/zorvbtrfssnapusage/share_task",
                                               "/run/lock/zorvbtrfssnapusage/share_task_status",
                                               "/usr/local/zorvbtrfssnapusage/share_task_status",
                                               "/usr/local/zorvbtrfssnapusage/share_task_result",
                                               kResultsOfPhotos};

struct Command {
  const char* name;
  std::vector<std::string> words;
  bool takesLaunchLock;
};

const std::vector<Command> kCommands = {
    {"run", {"run", "photos"}, true},        {"start", {"start", "photos"}, true},
    {"status", {"status", "photos"}, false}, {"show", {"show", "photos"}, false},
    {"stop", {"stop", "photos"}, false},     {"clean", {"clean", "photos"}, true},
    {"clean all", {"clean", "--all"}, true}};

// Who runs the program, and what it says to that when nothing else comes first.
struct User {
  const char* name;
  void (*become)();
  int refusal;
};

const std::vector<User> kUsers = {
    {"root", [] {}, 16},
    {"an ordinary user", [] { BecomeUser(kSomebody); }, 3},
    {"root of a user namespace", [] { BecomeRootOfUserNamespace(kSomebody); }, 16}};

// A place and a way to spoil it.
struct Planting {
  std::string place;
  const Spoiling* spoiling;
};

std::vector<Planting> AllPlantings() {
  std::vector<Planting> plantings;
  for (const std::string& place : kFiles)
    for (const Spoiling& spoiling : kForFiles) plantings.push_back({place, &spoiling});
  for (const std::string& place : kDirectories)
    for (const Spoiling& spoiling : kForDirectories) plantings.push_back({place, &spoiling});
  return plantings;
}

// Puts what is planted into its place for one scope.
class Planted {
 public:
  explicit Planted(const Planting& planting) : planting_(planting), aside_(planting.place + "-") {
    struct stat status;
    was_ = lstat(planting.place.c_str(), &status) == 0;
    mode_ = status.st_mode & 07777;
    if (was_ && planting.spoiling->replaces) fs::rename(planting.place, aside_);
    planting.spoiling->spoil(planting.place);
  }
  ~Planted() {
    fs::remove(planting_.place + "-second");
    if (!planting_.spoiling->replaces) {
      (void)!chown(planting_.place.c_str(), 0, 0);
      (void)chmod(planting_.place.c_str(), mode_);
      return;
    }
    fs::remove_all(planting_.place);
    if (was_) fs::rename(aside_, planting_.place);
  }
  Planted(const Planted&) = delete;
  Planted& operator=(const Planted&) = delete;

 private:
  const Planting& planting_;
  const std::string aside_;
  bool was_ = false;
  mode_t mode_ = 0;
};

class Permissions : public CliWorld {
 protected:
  // Everybody can reach the program, and nobody else changes what is looked at.
  static void SetUpTestSuite() {
    for (const char* directory : {"/opt/bin", "/opt/lib"}) fs::create_directories(directory);
    MustRun({"cp", ZORV_CLI_PATH, "/opt/bin/"});
    MustRun({"sh", "-c", "cp -a " ZORV_BINARY_DIR "/lib/*.so* /opt/lib/"});
    MustRun({"cp", "-a", "/etc", "/opt/etc"});
    if (mount("/opt/etc", "/etc", nullptr, MS_BIND, nullptr) != 0)
      throw std::runtime_error("no /etc of its own");
  }

  Permissions() {
    fs::remove_all(kTreasure);
    WriteFile(kTreasureFile, "not to be touched");
    WriteFile("/opt/treasure/deep/file", "not to be touched");
  }

  // What is looked at after each step: where the paths lead, and the directories above the roots.
  static Listing Near() { return List({kTreasure, "/run"}, kRoots); }

  // What is looked at in the end, without the directories that the test itself plants in.
  static Listing Far() {
    Listing listing = List({"/opt", "/etc", "/usr/local"}, kRoots);
    listing.erase("/usr/local");
    return listing;
  }

  static Listing Inside() {
    std::vector<std::string> trees = kRoots;
    trees.push_back(kLaunchLock);
    return List(trees);
  }

  // The program in the hands of a user, for a minute at most.
  static CommandResult ToolOf(const User& user, mode_t mask,
                              const std::vector<std::string>& words) {
    std::vector<std::string> argv = {"timeout", "-s", "KILL", "60", "/opt/bin/zorv-snapusage"};
    argv.insert(argv.end(), words.begin(), words.end());
    CommandResult result = ZorvTest::Run(argv, [&] {
      umask(mask);
      user.become();
    });
    if (result.status == 128 + SIGKILL) result.status = kHung;
    return result;
  }
};

// Records of a calculation that has failed, with the results of the one before.
void WriteRecords() {
  for (const std::string& root : kRoots) fs::remove_all(root);
  for (const std::string& directory : kDirectories) {
    fs::create_directories(directory);
    fs::permissions(directory, fs::perms(0700));
  }
  const std::string vector("\1\0\0\0\0\0\0\0\7\0\0\0\0\0\0\0", 16);
  for (const std::string& file : kFiles) {
    const std::string extension = fs::path(file).extension();
    const bool isVector = extension == ".result" || extension == ".subvol_id";
    WriteFile(file, isVector ? vector : "");
  }
  WriteFile(kMap, std::string(R"({"photos":{"task_id":")") + kTask + R"(","time":1}})");
  for (const std::string& status :
       {std::string(kStatusOfPhotos), std::string("/run/zorvbtrfssnapusage/task_status/") + kTask})
    WriteFile(status, R"({"status":"fail","error_code":"1"})");
}

// One thing to try.
struct Step {
  const Planting* planting;
  const Command* command;
  const User* user;
  mode_t mask;

  std::string Text() const {
    return planting->place + " is a " + planting->spoiling->name + "; " + command->name + " by " +
           user->name;
  }
};

// Every kind at every place, for every command, umask and user. The lock of launches, which the
// others do not take, is for those that do.
std::vector<Step> AllSteps(const std::vector<Planting>& plantings) {
  std::vector<Step> steps;
  for (const Planting& planting : plantings)
    for (const Command& command : kCommands)
      for (const User& user : kUsers)
        for (const mode_t mask : {0, 022, 077})
          if (planting.place != kLaunchLock || command.takesLaunchLock)
            steps.push_back({&planting, &command, &user, mask});
  return steps;
}

TEST_F(Permissions, WhateverIsPlanted) {
  const Budget budget(0.6);
  const std::vector<Planting> plantings = AllPlantings();
  const std::vector<Step> steps = AllSteps(plantings);
  WriteRecords();
  ASSERT_EQ(0, ToolOf(kUsers[0], 022, {"show", "photos"}).status) << "nothing is planted yet";
  const Listing far = Far();
  size_t tried = 0, refused = 0, hung = 0, touched = 0;
  for (const size_t number : SpreadOrder(steps.size())) {
    if ((tried >= kFewest && !budget.IsLeft()) || HasFailure()) break;
    const Step& step = steps[number];
    SCOPED_TRACE("step " + std::to_string(number) + ": " + step.Text());
    const Planted planted(*step.planting);
    const Listing inside = Inside();
    const Listing outside = Near();
    const CommandResult result = ToolOf(*step.user, step.mask, step.command->words);
    ++tried;
    refused += result.status == step.user->refusal;
    hung += result.status == kHung;
    EXPECT_EQ(step.user->refusal, result.status) << result.out << result.err;
    EXPECT_THAT(result.err, HasSubstr("; ")) << "what to do next";
    const std::string change = Difference(inside, Inside()) + Difference(outside, Near());
    touched += !change.empty();
    EXPECT_EQ("", change);
  }
  EXPECT_EQ("", Difference(far, Far()));
  Figure("combinations", tried);
  Figure("of combinations", steps.size());
  Figure("refused", refused);
  Figure("outside or inside touched", touched);
  Figure("hung", hung);
}

// The values of a record, and what is done with it; the first of names and tasks is innocent.
struct Records {
  std::vector<std::string> commands, states, pids, tasks, names;

  size_t Innocent() const { return commands.size() * states.size() * pids.size(); }
  size_t All() const { return Innocent() * tasks.size() * names.size(); }

  // All numbers of records: first those with an innocent name and task, then those in which one of
  // the two is hostile, then those with both.
  std::vector<size_t> Order() const {
    std::vector<size_t> order = SpreadOrder(All());
    const auto hostile = [this](size_t number) {
      return (TaskOf(number) != tasks[0]) + (NameOf(number) != names[0]);
    };
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return hostile(a) < hostile(b); });
    return order;
  }

  const std::string& CommandOf(size_t number) const { return commands[number % commands.size()]; }
  const std::string& StateOf(size_t number) const {
    return states[number / commands.size() % states.size()];
  }
  const std::string& PidOf(size_t number) const {
    return pids[number / commands.size() / states.size() % pids.size()];
  }
  const std::string& TaskOf(size_t number) const {
    return tasks[number / Innocent() % tasks.size()];
  }
  const std::string& NameOf(size_t number) const {
    return names[number / Innocent() / tasks.size()];
  }

  std::string Text(size_t number) const {
    return "record " + std::to_string(number) + ": " + CommandOf(number) + " of share '" +
           NameOf(number) + "' with task '" + TaskOf(number) + "' in state '" + StateOf(number) +
           "' of process '" + PidOf(number) + "'";
  }

  // Puts it in place; every other one is as old as to block nobody.
  void Write(size_t number) const {
    WriteRecords();
    Json::Value map, status;
    const time_t age = number % 2 == 0 ? 0 : 600;
    map[NameOf(number)]["task_id"] = TaskOf(number);
    map[NameOf(number)]["time"] = static_cast<Json::Int64>(time(nullptr) - age);
    status["status"] = StateOf(number);
    status["pid"] = PidOf(number);
    status["start_time"] = "2024.03.01-09.04.09";
    const Json::StreamWriterBuilder writer;
    WriteFile(kMap, Json::writeString(writer, map));
    for (const std::string& file : {std::string(kStatusOfPhotos),
                                    std::string("/run/zorvbtrfssnapusage/task_status/") + kTask})
      WriteFile(file, Json::writeString(writer, status));
  }

  // `start` is left out: it is `run` in the background, and would meet the next record.
  std::vector<std::string> Words(size_t number) const {
    if (CommandOf(number) == "clean all") return {"clean", "--all"};
    return {CommandOf(number), "--", NameOf(number)};
  }
};

Records HostileRecords(const std::string& victim, const std::vector<std::string>& others) {
  Records records;
  records.commands = {"run", "status", "show", "stop", "clean", "clean all"};
  records.states = {"process", "ready", "done", ""};
  records.pids = {victim,
                  " " + victim,
                  victim + " ",
                  "-" + victim,
                  "0" + victim,
                  std::to_string((1LL << 32) + std::stoll(victim)),
                  std::to_string(getpid()),
                  "",
                  "0",
                  "1",
                  "-1",
                  "-5",
                  "x",
                  "99999999999",
                  "2147483648"};
  records.pids.insert(records.pids.end(), others.begin(), others.end());
  records.tasks = {kTask,
                   "",
                   ".",
                   "..",
                   "8",
                   "8b0f0c36",
                   "../../../opt/treasure/file",
                   "../../../../opt/treasure/file",
                   std::string(kTask) + "\n",
                   std::string(kTask) + "/../../../../opt/treasure/file"};
  records.names = {"photos",
                   "../../../../opt/treasure",
                   "../../../../opt/treasure/deep",
                   "..",
                   ".",
                   "",
                   "photos/..",
                   "a\nb",
                   "--help",
                   std::string(255, 'x')};
  return records;
}

// Names, tasks, states and processes in the records, and every command.
TEST_F(Permissions, WhateverTheRecordsSay) {
  const Budget budget(0.4);
  Stranger victim({.stopBlocked = false});
  Stranger lookalike({.library = false});
  Stranger users({.root = false, .stopBlocked = false});
  const Records records = HostileRecords(
      std::to_string(victim.Pid()), {std::to_string(lookalike.Pid()), std::to_string(users.Pid())});
  const size_t fewest = records.Innocent() + kFewest;
  const Listing far = Far();
  size_t tried = 0, hung = 0, crashed = 0, touched = 0, signalled = 0;
  for (const size_t number : records.Order()) {
    if ((tried >= fewest && !budget.IsLeft()) || HasFailure()) break;
    SCOPED_TRACE(records.Text(number));
    records.Write(number);
    const Listing outside = Near();
    const CommandResult result = ToolOf(kUsers[0], 022, records.Words(number));
    ++tried;
    hung += result.status == kHung;
    crashed += result.status > kLastOwnStatus && result.status != kHung;
    EXPECT_GE(kLastOwnStatus, result.status) << result.out << result.err;
    const std::string change = Difference(outside, Near());
    touched += !change.empty();
    EXPECT_EQ("", change);
    for (Stranger* stranger : {&victim, &lookalike, &users}) {
      signalled += stranger->WasSignalled();
      EXPECT_FALSE(stranger->WasSignalled()) << stranger->Pid();
    }
  }
  EXPECT_EQ("", Difference(far, Far()));
  WriteRecords();  // nothing runs by them
  Figure("records", tried);
  Figure("of records", records.All());
  Figure("outside touched", touched);
  Figure("signalled", signalled);
  Figure("hung", hung);
  Figure("crashed", crashed);
}

}  // namespace
