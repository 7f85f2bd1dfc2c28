// Through the program nothing outside the library's directories and its own cache is written,
// removed or signalled, whatever is planted in them, whatever their records say, and whoever runs
// it.
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

// Where tables are kept.
constexpr char kCache[] = "/var/cache/zorv-snapusage";
constexpr char kCacheOfPhotos[] = "/var/cache/zorv-snapusage/photos";

constexpr char kLaunchLock[] = "/run/zorv-snapusage.lock";
constexpr char kEngineRows[] = "/run/zorv-btrfs-engine";

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

// What a place belongs to; a command looks at several of these before it does anything.
enum Part : unsigned { kCommon = 1, kShare = 2, kTaskOfIt = 4, kLaunches = 8, kTables = 16 };

struct Place {
  Part part;
  std::string path;
};

const std::vector<Place> kFiles = {
    {kCommon, kMap},
    {kCommon, "/usr/local/zorvbtrfssnapusage/reminder_record"},
    {kCommon, "/run/lock/zorvbtrfssnapusage/share_snap_cal_map.lock"},
    {kCommon, "/run/lock/zorvbtrfssnapusage/reminder_record.lock"},
    {kShare, kStatusOfPhotos},
    {kShare, "/run/lock/zorvbtrfssnapusage/share_task_status/photos"},
    {kShare, "/run/lock/zorvbtrfssnapusage/share_task/photos.lock"},
    {kShare, std::string(kResultsOfPhotos) + "/" + kTask + ".result"},
    {kShare, std::string(kResultsOfPhotos) + "/" + kTask + ".subvol_id"},
    {kTaskOfIt, std::string("/run/zorvbtrfssnapusage/task_status/") + kTask},
    {kTaskOfIt, std::string("/run/lock/zorvbtrfssnapusage/task_status/") + kTask + ".lock"},
    {kTaskOfIt, std::string("/run/zorvbtrfssnapusage/task_result/") + kTask + ".result"},
    {kTaskOfIt,
     std::string("/run/lock/zorvbtrfssnapusage/snap_cal_result/") + kTask + ".subvol_id"},
    {kLaunches, kLaunchLock},
    {kTables, std::string(kCacheOfPhotos) + "/" + kTask + "-7-0123456789abcdef"},
    {kTables, std::string(kCacheOfPhotos) + "/.4711.new"}};

const std::vector<Place> kDirectories = {
    {kCommon, kRun},
    {kCommon, kLock},
    {kCommon, kPersistent},
    {kCommon, "/run/zorvbtrfssnapusage/task_status"},
    {kCommon, "/run/zorvbtrfssnapusage/task_result"},
    {kCommon, "/run/lock/zorvbtrfssnapusage/task_status"},
    {kCommon, "/run/lock/zorvbtrfssnapusage/snap_cal_result"},
    {kCommon, "/run/lock/zorvbtrfssnapusage/share_task"},
    {kCommon, "/run/lock/zorvbtrfssnapusage/share_task_status"},
    {kCommon, "/usr/local/zorvbtrfssnapusage/share_task_status"},
    {kCommon, "/usr/local/zorvbtrfssnapusage/share_task_result"},
    {kShare, kResultsOfPhotos},
    {kTables, kCache},
    {kTables, kCacheOfPhotos}};

struct Command {
  const char* name;
  std::vector<std::string> words;
  unsigned looksAt;     // parts
  bool writes = false;  // when all is well

  bool LooksAt(Part part) const { return (looksAt & part) != 0; }
};

constexpr char kFirstSnapshot[] = "GMT-2024.03.01-09.04.09";

const std::vector<Command> kCommands = {
    {"shares", {"shares"}, kCommon | kShare | kTaskOfIt},
    {"run", {"run", "photos"}, kCommon | kShare | kTaskOfIt | kLaunches, true},
    {"start", {"start", "photos"}, kCommon | kShare | kTaskOfIt | kLaunches, true},
    {"wait", {"wait", "photos"}, kCommon | kShare | kTaskOfIt},
    {"status", {"status", "photos"}, kCommon | kShare | kTaskOfIt},
    {"show", {"show", "photos"}, kCommon | kShare | kTaskOfIt | kTables},
    {"plan", {"plan", "photos", "--delete", "%"}, kCommon | kShare | kTables},
    {"explain", {"explain", "photos", kFirstSnapshot}, kCommon | kShare},
    {"whyheld", {"whyheld", "photos", "kept"}, kCommon | kShare},
    {"stop", {"stop", "photos"}, kCommon | kShare | kTaskOfIt},
    {"clean", {"clean", "photos"}, kCommon | kShare | kTaskOfIt | kLaunches | kTables, true},
    {"clean all", {"clean", "--all"}, kCommon | kShare | kTaskOfIt | kLaunches | kTables, true},
    {"names", {"names"}, kCommon},
    {"names of snapshots", {"names", "photos"}, kCommon | kShare},
    {"reminder", {"reminder"}, kCommon},
    {"reminder on", {"reminder", "on"}, kCommon, true}};

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
  Part part;
  std::string place;
  const Spoiling* spoiling;
};

// Every kind at every place of these parts.
std::vector<Planting> Plantings(unsigned parts) {
  std::vector<Planting> plantings;
  const auto add = [&](const std::vector<Place>& places, const std::vector<Spoiling>& spoilings) {
    for (const Place& place : places)
      for (const Spoiling& spoiling : spoilings)
        if ((place.part & parts) != 0) plantings.push_back({place.part, place.path, &spoiling});
  };
  add(kFiles, kForFiles);
  add(kDirectories, kForDirectories);
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
  // Engines wait for their turn in a row of their own.
  static Listing Near() {
    std::vector<std::string> without = kRoots;
    without.push_back(kEngineRows);
    return List({kTreasure, "/run"}, without);
  }

  // What is looked at in the end, without the directories that the test itself plants in.
  static Listing Far() {
    std::vector<std::string> without = kRoots;
    without.push_back(kCache);
    Listing listing = List({"/opt", "/etc", "/usr/local", "/var"}, without);
    for (const char* plantedIn : {"/usr/local", "/var/cache"}) listing.erase(plantedIn);
    return listing;
  }

  static Listing Inside() {
    std::vector<std::string> trees = kRoots;
    trees.insert(trees.end(), {kCache, kLaunchLock});
    return List(trees);
  }

  static void ExpectRefusals(unsigned parts, double time);

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

// Records of a calculation that has failed, with the results of the one before; an empty cache.
void WriteRecords() {
  for (const std::string& root : kRoots) fs::remove_all(root);
  fs::remove_all(kCache);
  for (const Place& directory : kDirectories) {
    fs::create_directories(directory.path);
    fs::permissions(directory.path, fs::perms(0700));
  }
  const std::string vector("\1\0\0\0\0\0\0\0\7\0\0\0\0\0\0\0", 16);
  for (const Place& file : kFiles) {
    const std::string extension = fs::path(file.path).extension();
    const bool isVector = extension == ".result" || extension == ".subvol_id";
    WriteFile(file.path, isVector ? vector : "");
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

// For every command that looks at the place, every umask and user.
std::vector<Step> AllSteps(const std::vector<Planting>& plantings) {
  std::vector<Step> steps;
  for (const Planting& planting : plantings)
    for (const Command& command : kCommands)
      for (const User& user : kUsers)
        for (const mode_t mask : {0, 022, 077})
          if (command.LooksAt(planting.part)) steps.push_back({&planting, &command, &user, mask});
  return steps;
}

// Plants in these parts for so much of the time; each command refuses and leaves all as it was.
void Permissions::ExpectRefusals(unsigned parts, double time) {
  const Budget budget(time);
  const std::vector<Planting> plantings = Plantings(parts);
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

TEST_F(Permissions, WhateverIsPlanted) {
  ExpectRefusals(kCommon | kShare | kTaskOfIt | kLaunches, 0.45);
}

TEST_F(Permissions, WhateverIsPlantedInTheCache) { ExpectRefusals(kTables, 0.15); }

// A command that reads does not touch what it need not look at, and is not kept from its answer.
TEST_F(Permissions, WhatIsNotLookedAtIsLeftAlone) {
  const Budget budget(0.1);
  RealEngine();
  WriteFile(volume_->Path("photos/kept"), "in no snapshot");
  WriteRecords();
  const std::vector<Planting> plantings = Plantings(~0u);
  std::vector<std::pair<const Command*, const Planting*>> pairs;
  std::map<const Command*, int> statuses;
  for (const Command& command : kCommands) {
    if (command.writes) continue;
    statuses[&command] = ToolOf(kUsers[0], 022, command.words).status;
    for (const Planting& planting : plantings)
      if (!command.LooksAt(planting.part)) pairs.emplace_back(&command, &planting);
  }
  const Listing far = Far();
  size_t tried = 0, touched = 0;
  for (const size_t number : SpreadOrder(pairs.size())) {
    if ((tried >= kFewest && !budget.IsLeft()) || HasFailure()) break;
    const auto& [command, planting] = pairs[number];
    SCOPED_TRACE(std::string(command->name) + "; " + planting->place + " is a " +
                 planting->spoiling->name);
    const Planted planted(*planting);
    const Listing inside = Inside();
    const Listing outside = Near();
    const CommandResult result = ToolOf(kUsers[0], 022, command->words);
    ++tried;
    EXPECT_EQ(statuses[command], result.status) << result.out << result.err;
    const std::string change = Difference(inside, Inside()) + Difference(outside, Near());
    touched += !change.empty();
    EXPECT_EQ("", change);
  }
  EXPECT_EQ("", Difference(far, Far()));
  Figure("combinations", tried);
  Figure("of combinations", pairs.size());
  Figure("touched", touched);
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
  const Budget budget(0.3);
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
