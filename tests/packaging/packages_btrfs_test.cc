// The life of the packages: installed, used, upgraded, removed and purged by dpkg, on a real
// volume.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "tests/packaging/system_manager.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"

using namespace ZorvTest;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

constexpr char kLink[] = "/sbin/btrfs";
constexpr char kEngine[] = "/usr/libexec/zorv-snapusage/btrfs";
constexpr char kResults[] = "/usr/local/zorvbtrfssnapusage/share_task_result/photos";
constexpr char kNewVersion[] = ZORV_VERSION "+next";

using Sizes = std::map<unsigned long long, unsigned long long>;

const std::vector<std::string> kPackages = {"libzorvbtrfssnapusage0", "libzorvbtrfssnapusage-dev",
                                            "zorv-snapusage", "zorv-btrfs-command"};

// The one file of a package that lies in `directory`.
std::string FileOf(const std::string& package, const std::string& directory) {
  for (const auto& entry : fs::directory_iterator(directory)) {
    const std::string name = entry.path().filename();
    if (name.starts_with(package + "_") && name.ends_with(".deb")) return entry.path();
  }
  throw std::runtime_error("no package " + package + " in " + directory);
}

std::vector<std::string> Dpkg(std::vector<std::string> words,
                              const std::vector<std::string>& packages) {
  words.insert(words.begin(), "dpkg");
  words.insert(words.end(), packages.begin(), packages.end());
  return words;
}

void Install(const std::string& directory = ZORV_PACKAGES) {
  std::vector<std::string> files;
  for (const std::string& package : kPackages) files.push_back(FileOf(package, directory));
  MustRun(Dpkg({"--install"}, files));
}

std::string StateOf(const std::string& package) {
  return ZorvTest::Run({"dpkg-query", "-W", "-f", "${db:Status-Status} ${Version}", package}).out;
}

// The same packages once more, as a later version.
std::string NextVersion() {
  const std::string directory = "/tmp/next";
  fs::create_directories(directory);
  for (const std::string& package : kPackages) {
    MustRun({"dpkg-deb", "--raw-extract", FileOf(package, ZORV_PACKAGES), "/tmp/" + package});
    MustRun({"sed", "-i", "s/" ZORV_VERSION "/" + std::string(kNewVersion) + "/",
             "/tmp/" + package + "/DEBIAN/control"});
    MustRun({"dpkg-deb", "--root-owner-group", "--build", "/tmp/" + package, directory});
    fs::remove_all("/tmp/" + package);
  }
  return directory;
}

// A package of somebody else with one file.
std::string ForeignPackage(const std::string& path) {
  const std::string tree = "/tmp/foreign";
  fs::remove_all(tree);
  WriteFile(
      tree + "/DEBIAN/control",
      "Package: foreign\nVersion: 1\nArchitecture: all\nMaintainer: none <none@none.invalid>\n"
      "Description: has a file\n");
  WriteFile(tree + path, "theirs");
  MustRun({"dpkg-deb", "--build", tree, "/tmp/foreign.deb"});
  return "/tmp/foreign.deb";
}

void Purge() { MustRun(Dpkg({"--purge"}, kPackages)); }

bool AreInstalled() {
  return std::all_of(kPackages.begin(), kPackages.end(), [](const std::string& package) {
    return StateOf(package) == "installed " ZORV_VERSION;
  });
}

// What root gets for `btrfs ...`.
CommandResult AsTyped(std::vector<std::string> words) {
  words.insert(
      words.begin(),
      {"env", "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "btrfs"});
  return ZorvTest::Run(words);
}

// Every path of the system, apart from what dpkg notes for itself and what passes.
std::set<std::string> Paths() {
  std::istringstream lines(MustRun({"find", "/etc", "/usr", "/run", "/var", "-xdev", "-regex",
                                    "/var/\\(lib/dpkg\\|lib/apt\\|cache/apt\\|log\\|tmp\\)",
                                    "-prune", "-o", "-printf", "%p %y %l\n"}));
  std::set<std::string> paths;
  for (std::string line; std::getline(lines, line);) paths.insert(line);
  return paths;
}

std::vector<std::string> Beyond(const std::set<std::string>& paths,
                                const std::set<std::string>& before) {
  std::vector<std::string> more;
  for (const std::string& path : paths)
    if (!before.contains(path)) more.push_back(path);
  return more;
}

// Each test begins with all packages installed, no record of anything, and a volume with a share of
// five snapshots.
class Packages : public testing::Test {
 protected:
  Packages() : volume_("/volume1") {
    for (const char* left : {"/run/zorvbtrfssnapusage", "/run/lock/zorvbtrfssnapusage",
                             "/usr/local/zorvbtrfssnapusage"})
      fs::remove_all(left);
    if (!AreInstalled()) Install();
    MustRun({"systemd-tmpfiles", "--create", "libzorvbtrfssnapusage0.conf"});
    volume_.Subvolume("photos");
    for (unsigned day = 1; day < 6; ++day) {
      WriteRandom(volume_.Path("photos/growing"), 200000, day, day * 100000);
      WriteRandom(volume_.Path("photos/replaced"), 300000, day);
      volume_.Snapshot("photos",
                       "photos/.snapshots/GMT-2024.03.0" + std::to_string(day) + "-09.04.09");
    }
    MustRun({"sync", "-f", "/volume1"});
  }

  // The kernel's number of each snapshot.
  Sizes Kernels() {
    Sizes all = volume_.KernelExclusive(), snapshots;
    for (const auto& entry : fs::directory_iterator(volume_.Path("photos/.snapshots")))
      snapshots[SubvolumeID(entry.path())] = all.at(SubvolumeID(entry.path()));
    return snapshots;
  }

  // What the tool shows of the last good result.
  static Sizes Shown() {
    Json::Value shown;
    std::istringstream(MustRun({"zorv-snapusage", "show", "photos", "--format", "json"})) >> shown;
    Sizes sizes;
    for (const Json::Value& row : shown["snapshots"])
      sizes[row["subvolume_id"].asUInt64()] = row["exclusive"].asUInt64();
    return sizes;
  }

  BtrfsVolume volume_;
};

// Calculates a share and prints the ID and the bytes of each snapshot.
const char kCaller[] = R"(
#include <signal.h>
#include <unistd.h>
#include <zorvbtrfssnapusage/share_snap_usage_cal.h>
#include <iostream>
using namespace ZorvBtrfsUsage;
int main() {
  ShareSnapUsageCal calculation;
  if (calculation.CreateTask("photos") != 0 || calculation.Launch(nullptr, nullptr) != 0) return 1;
  ShareTaskStatus status;
  status.Init("photos", false);
  CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
  int pid = 0, error = -1;
  while (status.GetCalculatorStatus(state, error) == 0 && state < CAL_TASK_STATUS_FAIL)
    usleep(10000);
  if (state != CAL_TASK_STATUS_DONE) return 2;
  while (status.GetStatusIntAttr(TASKSTATUS_ATTR_PID, pid) == 0 && kill(pid, 0) == 0)
    usleep(10000);
  std::vector<unsigned long long> bytes, ids;
  ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, "photos", bytes);
  ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, "photos", ids);
  for (size_t i = 0; i < ids.size(); ++i) std::cout << ids[i] << ' ' << bytes[i] << '\n';
}
)";

Sizes ParseSizes(const std::string& text) {
  std::istringstream in(text);
  Sizes sizes;
  for (unsigned long long id, bytes; in >> id >> bytes;) sizes[id] = bytes;
  return sizes;
}

// What lines become when TAB is typed behind them; the shells look for the files by themselves.
std::string CompletedBy(const std::string& shell) {
  return MustRun({"zsh", "-f", ZORV_SOURCE_DIR "/tests/docs/complete.zsh", shell, "", "statu",
                  "explain photos GMT-2024.03.04"});
}

}  // namespace

TEST_F(Packages, AreAllThereWithTheVersionOfTheSources) {
  Purge();
  Install();
  for (const std::string& package : kPackages)
    EXPECT_EQ("installed " ZORV_VERSION, StateOf(package)) << package;
  EXPECT_EQ("", MustRun({"dpkg", "--audit"}));
  EXPECT_EQ("", MustRun(Dpkg({"--verify"}, kPackages)));
  EXPECT_EQ("zorv-snapusage " ZORV_VERSION "\n", MustRun({"zorv-snapusage", "--version"}));
  for (const char* root :
       {"/run/zorvbtrfssnapusage", "/run/lock/zorvbtrfssnapusage", "/usr/local/zorvbtrfssnapusage"})
    EXPECT_EQ(0700, ModeOf(root)) << root;
}

TEST_F(Packages, ToolHasTheKernelsNumbers) {
  MustRun({"zorv-snapusage", "run", "photos", "--quiet"});
  const Sizes shown = Shown();
  EXPECT_EQ(5u, shown.size());
  EXPECT_EQ(Kernels(), shown);
}

TEST_F(Packages, WhatRootTypesGivesWhatItGave) {
  EXPECT_EQ(kEngine, fs::canonical(kLink).string());
  for (const std::vector<std::string>& words : {std::vector<std::string>{"--version"},
                                                {"help"},
                                                {"subvolume", "list", "/volume1"},
                                                {"nonsense"},
                                                {}}) {
    SCOPED_TRACE(testing::PrintToString(words));
    std::vector<std::string> stock = {kStockBtrfs};
    stock.insert(stock.end(), words.begin(), words.end());
    const CommandResult expected = ZorvTest::Run(stock), got = AsTyped(words);
    EXPECT_EQ(expected.status, got.status);
    EXPECT_EQ(expected.out, got.out);
    EXPECT_EQ(expected.err, got.err);
  }
  EXPECT_THAT(AsTyped({"subvolume", "size", "--version"}).out, HasSubstr("zorv btrfs engine"));
}

// Every place where the real program is looked for leads back to the engine.
TEST_F(Packages, EngineThatMeetsOnlyItselfSaysSo) {
  MustRun({"mv", kStockBtrfs, "/tmp/stock"});
  fs::create_symlink(kLink, "/usr/bin/btrfs");
  fs::create_symlink(kEngine, "/usr/libexec/btrfs");
  const CommandResult run = ZorvTest::Run({"timeout", "20", kLink, "--version"});
  fs::remove("/usr/libexec/btrfs");
  MustRun({"mv", "/tmp/stock", kStockBtrfs});
  EXPECT_EQ(127, run.status);
  EXPECT_THAT(run.err, HasSubstr("install btrfs-progs"));
}

TEST_F(Packages, CallerIsBuiltWithPkgConfig) {
  WriteFile("/tmp/caller/caller.cc", kCaller);
  MustRun({"sh", "-c",
           ZORV_CXX " -std=c++17 -Wall -Wextra -Wpedantic -Werror /tmp/caller/caller.cc "
                    "-o /tmp/caller/by_pkg $(pkg-config --cflags --libs zorvbtrfssnapusage)"});
  const Sizes sizes = ParseSizes(MustRun({"/tmp/caller/by_pkg"}));
  EXPECT_EQ(5u, sizes.size());
  EXPECT_EQ(Kernels(), sizes);
}

TEST_F(Packages, CallerIsBuiltWithCMake) {
  WriteFile("/tmp/caller/caller.cc", kCaller);
  WriteFile("/tmp/caller/CMakeLists.txt",
            "cmake_minimum_required(VERSION 3.23)\n"
            "project(caller CXX)\n"
            "find_package(zorvbtrfssnapusage 1.0 REQUIRED)\n"
            "add_executable(by_cmake caller.cc)\n"
            "target_link_libraries(by_cmake zorvbtrfssnapusage::zorvbtrfssnapusage)\n");
  MustRun({ZORV_CMAKE, "-S", "/tmp/caller", "-B", "/tmp/caller/build"});
  MustRun({ZORV_CMAKE, "--build", "/tmp/caller/build"});
  const Sizes sizes = ParseSizes(MustRun({"/tmp/caller/build/by_cmake"}));
  EXPECT_EQ(5u, sizes.size());
  EXPECT_EQ(Kernels(), sizes);
}

TEST_F(Packages, UpgradeKeepsWhatWasCalculated) {
  MustRun({"zorv-snapusage", "run", "photos", "--quiet"});
  const Sizes shown = Shown();
  Install(NextVersion());
  for (const std::string& package : kPackages)
    EXPECT_EQ("installed " + std::string(kNewVersion), StateOf(package)) << package;
  EXPECT_EQ(5u, shown.size());
  EXPECT_EQ(shown, Shown());
  EXPECT_EQ(kEngine, fs::canonical(kLink).string());
  MustRun({"zorv-snapusage", "run", "photos", "--quiet"});
  EXPECT_EQ(shown, Shown());
}

TEST_F(Packages, RemovalKeepsWhatWasCalculated) {
  MustRun({"zorv-snapusage", "run", "photos", "--quiet"});
  const Sizes shown = Shown();
  MustRun(Dpkg({"--remove"}, kPackages));
  EXPECT_FALSE(fs::exists(fs::symlink_status(kLink)));
  EXPECT_EQ(MustRun({kStockBtrfs, "--version"}), AsTyped({"--version"}).out);
  EXPECT_FALSE(fs::is_empty(kResults));
  Install();
  EXPECT_EQ(5u, shown.size());
  EXPECT_EQ(shown, Shown());
}

TEST_F(Packages, PurgeLeavesNothing) {
  Purge();
  const std::set<std::string> before = Paths();
  Install();
  MustRun({"zorv-snapusage", "run", "photos", "--quiet"});
  WriteFile("/var/cache/zorv-snapusage/table", "");
  MustRun({"systemctl", "enable", "zorv-snapusage@photos.timer"});
  MustRun({"systemctl", "enable", "run-lock-zorvbtrfssnapusage.mount"});
  MustRun(Dpkg({"--purge"}, kPackages));
  EXPECT_EQ(std::vector<std::string>(), Beyond(Paths(), before));
  EXPECT_EQ(std::vector<std::string>(), Beyond(before, Paths()));
  for (const std::string& package : kPackages) EXPECT_EQ("", StateOf(package)) << package;
}

// Another caller of the library may still work with its records.
TEST_F(Packages, PurgeOfTheToolAloneKeepsTheLibrarysRecords) {
  MustRun({"zorv-snapusage", "run", "photos", "--quiet"});
  MustRun(Dpkg({"--purge"}, {"zorv-btrfs-command", "zorv-snapusage"}));
  EXPECT_FALSE(fs::is_empty(kResults));
  EXPECT_FALSE(fs::exists("/run/zorv-btrfs-engine"));
}

// Nothing of the system is another's then, and what needs no calculation is answered.
TEST_F(Packages, PlansNeedNoLink) {
  MustRun(Dpkg({"--purge"}, {"zorv-btrfs-command"}));
  ASSERT_FALSE(fs::exists(fs::symlink_status(kLink)));
  const std::string first = "GMT-2024.03.01-09.04.09";
  Json::Value plan;
  std::istringstream(
      MustRun({"zorv-snapusage", "plan", "photos", "--delete", first, "--format", "json"})) >>
      plan;
  EXPECT_EQ(Kernels()[SubvolumeID(volume_.Path("photos/.snapshots/" + first))],
            plan["together"]["frees"].asUInt64());
  EXPECT_THAT(MustRun({"zorv-snapusage", "explain", "photos", first}), HasSubstr("  replaced\n"));
  EXPECT_THAT(MustRun({"zorv-snapusage", "whyheld", "photos", "replaced"}), HasSubstr(first));
  const CommandResult run = ZorvTest::Run({"zorv-snapusage", "run", "photos"});
  EXPECT_EQ(6, run.status);
  EXPECT_THAT(run.err, HasSubstr("; install zorv-btrfs-command, or the engine as /sbin/btrfs\n"));
}

TEST_F(Packages, CommandIsNotPutOverAnotherPackages) {
  const std::string command = FileOf("zorv-btrfs-command", ZORV_PACKAGES);
  // dpkg itself sees the second only.
  for (const char* path : {"/sbin/btrfs", "/usr/sbin/btrfs"}) {
    SCOPED_TRACE(path);
    MustRun(Dpkg({"--purge"}, {"zorv-btrfs-command"}));
    MustRun(Dpkg({"--install"}, {ForeignPackage(path)}));
    const CommandResult install = ZorvTest::Run(Dpkg({"--install"}, {command}));
    EXPECT_NE(0, install.status);
    EXPECT_THAT(install.err, HasSubstr("/sbin/btrfs belongs to another package (foreign"));
    EXPECT_EQ("theirs", ReadFile(path));
    MustRun(Dpkg({"--purge"}, {"foreign"}));
  }
}

TEST_F(Packages, CommandIsNotPutOverWhatNobodyOwns) {
  MustRun(Dpkg({"--purge"}, {"zorv-btrfs-command"}));
  WriteScript(kLink, "echo by hand\n");
  const CommandResult install =
      ZorvTest::Run(Dpkg({"--install"}, {FileOf("zorv-btrfs-command", ZORV_PACKAGES)}));
  EXPECT_NE(0, install.status);
  EXPECT_THAT(install.err, HasSubstr("belongs to no package; move it away first"));
  EXPECT_EQ("by hand\n", MustRun({kLink}));
  fs::remove(kLink);
}

TEST_F(Packages, ShellsFindTheCompletion) {
  for (const char* shell : {"bash", "zsh"})
    EXPECT_EQ("<status>\n<explain><photos><GMT-2024.03.04-09.04.09>\n", CompletedBy(shell))
        << shell;
}

TEST_F(Packages, UnitsAreInOrder) {
  const CommandResult verified =
      ZorvTest::Run({"systemd-analyze", "verify", "zorv-snapusage@my\\x20share.service",
                     "zorv-snapusage@my\\x20share.timer"});
  EXPECT_EQ(0, verified.status);
  EXPECT_EQ("", verified.err);
}

// Ten is a service without any protection.
TEST_F(Packages, ServiceIsHardened) {
  const CommandResult run =
      ZorvTest::Run({"systemd-analyze", "security", "--offline=yes", "--threshold=30", "--no-pager",
                     "/lib/systemd/system/zorv-snapusage@.service"});
  EXPECT_EQ(0, run.status) << run.out;
  EXPECT_THAT(run.out, HasSubstr("Overall exposure level"));
}

// As it is protected there, the service can do all that it has to.
TEST_F(Packages, ServiceHasTheKernelsNumbers) {
  {
    const SystemManager systemd;
    const CommandResult started =
        systemd.Run({"systemctl", "start", "zorv-snapusage@photos.service"});
    ASSERT_EQ(0, started.status) << started.err;
  }
  const Sizes shown = Shown();
  EXPECT_EQ(5u, shown.size());
  EXPECT_EQ(Kernels(), shown);
}

TEST_F(Packages, ServiceFindsAShareOfAnyName) {
  const std::string share = "-our ${HOME} %i \"share\"";
  volume_.Subvolume(share);
  volume_.Snapshot(share, share + "/.snapshots/GMT-2024.03.01-09.04.09");
  std::string instance = MustRun({"systemd-escape", "--", share});
  instance.pop_back();
  {
    const SystemManager systemd;
    EXPECT_EQ(
        0, systemd.Run({"systemctl", "start", "zorv-snapusage@" + instance + ".service"}).status);
  }
  EXPECT_FALSE(fs::is_empty("/usr/local/zorvbtrfssnapusage/share_task_result/" + share));
}

TEST_F(Packages, RemovalStopsTimers) {
  const SystemManager systemd;
  const std::string timer = "zorv-snapusage@photos.timer";
  ASSERT_EQ(0, systemd.Run({"systemctl", "start", timer}).status);
  EXPECT_EQ("active\n", systemd.Run({"systemctl", "is-active", timer}).out);
  EXPECT_EQ(0, systemd.Run(Dpkg({"--remove"}, kPackages)).status);
  EXPECT_NE("active\n", systemd.Run({"systemctl", "is-active", timer}).out);
}
