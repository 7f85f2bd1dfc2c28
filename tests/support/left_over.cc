#include "tests/support/left_over.h"

#include <dirent.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/command.h"

namespace ZorvTest {
namespace {

namespace fs = std::filesystem;

std::string FirstLine(const fs::path& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

// Those of `now` that were not there before, or are another thing by now; "" when there are none.
std::string Added(const std::map<int, std::string>& before, const std::map<int, std::string>& now) {
  std::ostringstream text;
  for (const auto& [number, what] : now) {
    const auto old = before.find(number);
    if (old == before.end() || old->second != what) text << " " << number << " (" << what << ")";
  }
  return text.str();
}

bool IsSubreaper() {
  int subreaper = 0;
  return prctl(PR_GET_CHILD_SUBREAPER, &subreaper) == 0 && subreaper == 1;
}

void ReapOrphans() {
  while (waitpid(-1, nullptr, WNOHANG) > 0) continue;
}

}  // namespace

std::map<int, std::string> OpenDescriptors() {
  std::map<int, std::string> descriptors;
  DIR* const directory = opendir("/proc/self/fd");
  if (directory == nullptr) return descriptors;
  while (const dirent* entry = readdir(directory)) {
    const int number = atoi(entry->d_name);
    if (entry->d_name[0] == '.' || number == dirfd(directory)) continue;
    std::error_code gone;
    descriptors[number] = fs::read_symlink(fs::path("/proc/self/fd") / entry->d_name, gone);
  }
  closedir(directory);
  return descriptors;
}

std::map<int, std::string> Children() {
  std::map<int, std::string> children;
  for (const fs::directory_entry& thread : fs::directory_iterator("/proc/self/task")) {
    std::ifstream list(thread.path() / "children");
    for (int pid = 0; list >> pid;)
      children[pid] = FirstLine("/proc/" + std::to_string(pid) + "/comm");
  }
  return children;
}

void LeftOverIsFailure::OnTestStart(const testing::TestInfo&) {
  closelog();  // the log's own connection comes and goes as it likes
  descriptors_ = OpenDescriptors();
  children_ = Children();
}

void LeftOverIsFailure::OnTestEnd(const testing::TestInfo&) {
  closelog();
  const std::string descriptors = Added(descriptors_, OpenDescriptors());
  EXPECT_EQ("", descriptors) << "descriptors left open";
  // A detached child that has written its last word may still be on its way out.
  std::string children;
  (void)WaitUntil(
      [&] {
        if (IsSubreaper()) ReapOrphans();
        children = Added(children_, Children());
        return children.empty();
      },
      patience_);
  EXPECT_EQ("", children) << "children left behind";
}

}  // namespace ZorvTest
