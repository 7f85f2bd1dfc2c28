// Who may include whom: the table of the architecture, kept true.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "tests/support/command.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

// A place of the tree: a path prefix, and which prefixes its includes may begin with. The first
// row whose prefix fits a file is its row. Angle-bracket includes of ours count like quoted ones.
struct Row {
  const char* files;
  std::vector<std::string> may;
};

const std::vector<std::string> kPublic = {"zorvbtrfssnapusage/", "zorvplatform/"};

std::vector<std::string> With(std::vector<std::string> base,
                              std::initializer_list<const char*> more) {
  base.insert(base.end(), more.begin(), more.end());
  return base;
}

const std::vector<std::string> kLow =
    With(kPublic, {"base/", "intl_utils/scoped_file_lock.h", "intl_utils/json_shape.h",
                   "intl_utils/json_store.h", "intl_utils/plain_json.h"});

const Row kRows[] = {
    {"platform/include/", {"zorvplatform/"}},
    {"platform/linux/", {"zorvplatform/", "platform/linux/", "base/unique_fd.h"}},
    {"base/", {"zorvplatform/", "base/"}},
    {"include/", kPublic},
    {"intl_utils/utils.cc", kLow},
    {"intl_utils/scoped_file_lock.h", kLow},
    {"intl_utils/json_shape.h", kLow},
    {"intl_utils/json_store.h", kLow},
    {"intl_utils/plain_json", kLow},
    {"utils/task_status.cc", kLow},
    {"utils/share_task_status.cc", kLow},
    {"utils/task_result.cc", kLow},
    {"utils/signal_handler.cc", With(kLow, {"intl_utils/stop_gate.h"})},
    {"intl_utils/", With(kLow, {"intl_utils/stop_gate.h"})},
    {"snap_calculator/", With(kLow, {"intl_utils/stop_gate.h"})},
    {"share_snap_calculator/", kLow},
    {"engine/ondisk/", {"engine/ondisk/"}},
    {"engine/io/", {"engine/ondisk/", "engine/io/", "base/unique_fd.h"}},
    {"engine/size/", {"engine/ondisk/", "engine/io/", "engine/size/", "base/unique_fd.h"}},
    {"engine/", {"engine/", "base/unique_fd.h"}},
    {"cli/", With(kPublic, {"cli/", "base/paths.h", "base/unique_fd.h"})},
};

// Public headers that a layer below must not know of.
const std::map<std::string, std::set<std::string>> kTooHigh = {
    {"intl_utils/utils.cc",
     {"task_status.h", "share_task_status.h", "task_result.h", "btrfs_tool.h", "signal_handler.h",
      "snap_usage_cal.h", "share_snap_usage_cal.h"}},
    {"utils/task_status.cc", {"btrfs_tool.h", "snap_usage_cal.h", "share_snap_usage_cal.h"}},
    {"utils/share_task_status.cc", {"btrfs_tool.h", "snap_usage_cal.h", "share_snap_usage_cal.h"}},
    {"utils/task_result.cc", {"btrfs_tool.h", "snap_usage_cal.h", "share_snap_usage_cal.h"}},
    {"intl_utils/btrfs_tool.cc", {"snap_usage_cal.h", "share_snap_usage_cal.h"}},
    {"utils/signal_handler.cc", {"snap_usage_cal.h", "share_snap_usage_cal.h"}},
    {"snap_calculator/snap_usage_cal.cc", {"share_snap_usage_cal.h"}},
};

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// Includes of our own files; a header without a folder, or of a system folder, is not ours.
std::vector<std::string> OwnIncludes(const std::string& text) {
  static const std::regex include("#include\\s+[\"<]([^\">]+)[\">]");
  static const char* const kOurs[] = {"base/",
                                      "engine/",
                                      "intl_utils/",
                                      "utils/",
                                      "cli/",
                                      "tests/",
                                      "snap_calculator/",
                                      "share_snap_calculator/",
                                      "platform/",
                                      "zorvbtrfssnapusage/",
                                      "zorvplatform/"};
  std::vector<std::string> found;
  for (std::sregex_iterator it(text.begin(), text.end(), include), end; it != end; ++it)
    for (const char* ours : kOurs)
      if (StartsWith((*it)[1], ours)) found.push_back((*it)[1]);
  return found;
}

const Row* RowOf(const std::string& file) {
  for (const Row& row : kRows)
    if (StartsWith(file, row.files)) return &row;
  return nullptr;
}

bool Allowed(const Row& row, const std::string& include) {
  for (const std::string& prefix : row.may)
    if (StartsWith(include, prefix)) return true;
  return false;
}

std::vector<std::string> ProductFiles() {
  std::vector<std::string> files;
  for (const char* folder : {"platform", "base", "include", "intl_utils", "utils", "engine", "cli",
                             "snap_calculator", "share_snap_calculator"})
    for (const auto& entry : fs::recursive_directory_iterator(fs::path(ZORV_SOURCE_DIR) / folder))
      if (entry.path().extension() == ".cc" || entry.path().extension() == ".h")
        files.push_back(fs::relative(entry.path(), ZORV_SOURCE_DIR));
  return files;
}

// The classes that a file defines for all of its program to see: those of namespaces that have a
// name, with these names before their own.
std::vector<std::string> ClassesOf(const std::string& text) {
  static const std::regex opens("namespace (?:([A-Za-z_:]+) )?\\{");
  static const std::regex closes("\\}  // namespace.*");
  static const std::regex defines(
      "(?:template <.*> )?(?:class|struct|union) (\\w+)(?: final)?(?: :.*)?(?: ?\\{.*)?");
  std::vector<std::string> within, classes;
  std::istringstream lines(text);
  std::smatch parts;
  for (std::string line; std::getline(lines, line);) {
    if (std::regex_match(line, parts, opens)) {
      within.push_back(parts[1]);
    } else if (std::regex_match(line, closes)) {
      if (!within.empty()) within.pop_back();
    } else if (std::regex_match(line, parts, defines)) {
      std::string name;
      for (const std::string& space : within) name += space + "::";
      const bool seen = std::find(within.begin(), within.end(), "") == within.end();
      if (seen) classes.push_back(name + std::string(parts[1]));
    }
  }
  return classes;
}

}  // namespace

TEST(Layers, EachUnitIncludesOnlyWhatItMay) {
  const std::vector<std::string> files = ProductFiles();
  ASSERT_GT(files.size(), 20u);
  for (const std::string& file : files) {
    const Row* row = RowOf(file);
    ASSERT_NE(nullptr, row) << file << " has no row";
    for (const std::string& include :
         OwnIncludes(ReadFile(std::string(ZORV_SOURCE_DIR) + "/" + file)))
      EXPECT_TRUE(Allowed(*row, include)) << file << " includes " << include;
  }
}

TEST(Layers, NoUnitKnowsAHigherOne) {
  for (const auto& [file, headers] : kTooHigh)
    for (const std::string& include :
         OwnIncludes(ReadFile(std::string(ZORV_SOURCE_DIR) + "/" + file)))
      EXPECT_FALSE(headers.count(fs::path(include).filename())) << file << " includes " << include;
}

// Of two classes with one name the linker takes the functions of either for both. Two of the tool's
// sources each had an EngineQuestion of its own, and a plan that failed crashed.
TEST(Layers, NoTwoClassesHaveOneName) {
  std::map<std::string, std::string> files;
  for (const std::string& file : ProductFiles())
    for (const std::string& name : ClassesOf(ReadFile(std::string(ZORV_SOURCE_DIR) + "/" + file))) {
      const auto [other, isFirst] = files.emplace(name, file);
      EXPECT_TRUE(isFirst) << file << " has a class " << name << ", as " << other->second
                           << " has: put it into a namespace without a name";
    }
  EXPECT_GT(files.size(), 150u) << "they are found at all";
}
