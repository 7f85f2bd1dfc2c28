#include "tests/torture/record_ledger.h"

#include <json/json.h>
#include <sys/syscall.h>

#include <filesystem>
#include <regex>
#include <sstream>

#include "base/paths.h"
#include "tests/support/command.h"

namespace ZorvTest {
namespace {

using namespace ZorvBtrfsUsage;
namespace fs = std::filesystem;

bool IsBelow(const std::string& path, const std::string& directory) {
  return path.compare(0, directory.size() + 1, directory + "/") == 0;
}

bool IsResult(const std::string& path) { return IsBelow(path, kShareTaskResultDir); }

bool IsRecord(const std::string& path) {
  if (IsTemporary(path)) return false;
  return path == kShareMap || path == kReminderRecord || IsBelow(path, kShareTaskStatusDir) ||
         IsBelow(path, kTaskStatusDir) || IsResult(path);
}

std::vector<std::string> FilesWhere(bool (*wanted)(const std::string&)) {
  std::vector<std::string> found;
  for (const char* root : {kPersistentDir, kTaskStatusDir}) {
    if (!fs::exists(root)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(root))
      if (entry.is_regular_file() && wanted(entry.path())) found.push_back(entry.path());
  }
  return found;
}

bool IsJsonObject(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  Json::Value value;
  std::istringstream stream(text);
  return Json::parseFromStream(builder, stream, &value, nullptr) && value.isObject();
}

bool IsWhole(const std::string& path, const std::string& text) {
  return IsResult(path) ? !text.empty() && text.size() % 8 == 0 : IsJsonObject(text);
}

bool IsRename(long call) {
  return call == SYS_rename || call == SYS_renameat || call == SYS_renameat2;
}

bool IsUnlink(long call) { return call == SYS_unlink || call == SYS_unlinkat; }

}  // namespace

bool IsTemporary(const std::string& path) {
  static const std::regex form(R"(.*(\.[A-Za-z0-9]{6}|/\.zorvcopy\.[0-9]+\.[0-9]+))");
  // The end of a result's name has as many letters.
  return std::regex_match(path, form) && fs::path(path).extension() != ".result";
}

std::vector<std::string> Records() { return FilesWhere(IsRecord); }

std::vector<std::string> TemporaryFiles() { return FilesWhere(IsTemporary); }

RecordLedger::RecordLedger() {
  for (const std::string& path : Records()) contents_[path] = ReadFile(path);
}

void RecordLedger::Take(const Step& step) {
  if (IsUnlink(step.call)) contents_.erase(step.paths[0]);
  if (!IsRename(step.call) || !IsRecord(step.paths[1])) return;
  const std::string text = ReadFile(step.paths[0]);
  if (!IsWhole(step.paths[1], text)) unreadable_ += step.paths[1] + " is to become: " + text + "\n";
  contents_[step.paths[1]] = text;
  ++renames_;
}

std::string RecordLedger::Differences() const {
  std::string differences = unreadable_;
  std::map<std::string, std::string> left = contents_;
  for (const std::string& path : Records()) {
    const std::string text = ReadFile(path);
    const auto entry = left.find(path);
    if (entry == left.end())
      differences += path + " was never put in place, but holds: " + text + "\n";
    else if (entry->second != text)
      differences += path + " holds: " + text + "\n  in place of: " + entry->second + "\n";
    if (!IsWhole(path, text)) differences += path + " is not whole: " + text + "\n";
    if (entry != left.end()) left.erase(entry);
  }
  for (const auto& [path, text] : left) differences += path + " is gone\n";
  return differences;
}

}  // namespace ZorvTest
