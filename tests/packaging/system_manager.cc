#include "tests/packaging/system_manager.h"

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace ZorvTest {
namespace {

namespace fs = std::filesystem;

// Nothing else is looked at: the system's own units would clear /tmp and more.
const fs::path kUnits = "/tmp/units";

// Where the unified tree of control groups is mounted: at the top, or beside older ones.
std::string ControlGroups() {
  std::istringstream mounts(ReadFile("/proc/self/mounts"));
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string device, place, type;
    fields >> device >> place >> type;
    if (type == "cgroup2") return place;
  }
  throw std::runtime_error("no cgroup2 is mounted");
}

// Groups go from the leaves on, once nothing runs in them.
void RemoveGroup(const fs::path& group) {
  for (const auto& entry : fs::directory_iterator(group))
    if (entry.is_directory()) RemoveGroup(entry.path());
  (void)WaitUntil([&] { return rmdir(group.c_str()) == 0; });
}

}  // namespace

SystemManager::SystemManager() : group_(ControlGroups() + "/zorv-packages-test") {
  // Names without what they mean on a whole machine.
  for (const char* target :
       {"sysinit", "basic", "local-fs", "time-set", "time-sync", "timers", "shutdown", "default"})
    WriteFile(kUnits / (std::string(target) + ".target"),
              "[Unit]\nDescription=" + std::string(target) + "\nDefaultDependencies=no\n");
  for (const auto& unit : fs::directory_iterator("/lib/systemd/system"))
    if (unit.path().filename().string().starts_with("zorv-"))
      fs::create_symlink(unit, kUnits / unit.path().filename());
  fs::create_directory(group_);
  outer_ = fork();
  if (outer_ == 0) {
    JoinAndBoot();
    _exit(127);
  }
  if (!WaitUntil([&] {
        return Run({"systemctl", "is-active", "--quiet", "default.target"}).status == 0;
      })) {
    End();
    throw std::runtime_error("systemd does not come up");
  }
}

SystemManager::~SystemManager() { End(); }

// In the child: its control group becomes the root of what it sees.
void SystemManager::JoinAndBoot() const {
  std::ofstream(group_ + "/cgroup.procs") << getpid();
  const char boot[] =
      "umount -l /sys/fs/cgroup; mount -t cgroup2 none /sys/fs/cgroup\n"
      "exec env -i container=zorv PATH=/usr/sbin:/usr/bin SYSTEMD_UNIT_PATH=/tmp/units"
      " /lib/systemd/systemd --system --log-target=null --show-status=no"
      " --default-standard-output=null";
  execlp("unshare", "unshare", "--cgroup", "--pid", "--fork", "--mount", "--mount-proc",
         "--kill-child", "sh", "-c", boot, nullptr);
}

void SystemManager::End() {
  kill(outer_, SIGKILL);
  (void)WaitForExit(outer_);
  RemoveGroup(group_);
  fs::remove_all("/run/systemd");
  fs::remove_all(kUnits);
}

CommandResult SystemManager::Run(const std::vector<std::string>& argv) const {
  const std::string outer = std::to_string(outer_);
  std::string manager = ReadFile("/proc/" + outer + "/task/" + outer + "/children");
  manager = manager.substr(0, manager.find(' '));
  std::vector<std::string> words = {"nsenter", "--target", manager, "--pid", "--mount", "--cgroup"};
  words.insert(words.end(), argv.begin(), argv.end());
  return ZorvTest::Run(words);
}

}  // namespace ZorvTest
