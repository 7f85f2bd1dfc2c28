#include "tests/torture/file_history.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/value.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "base/durable.h"
#include "base/paths.h"
#include "base/unique_fd.h"
#include "tests/support/command.h"

namespace ZorvTest {
namespace {

using ZorvBtrfsUsage::IsPersistent;

// In memory: what is recorded outlives each cut.
constexpr char kLog[] = "/tmp/file-history";

constexpr long long kNever = std::numeric_limits<long long>::max();

constexpr char kReplaced = 'R';
constexpr char kRemoved = 'U';
constexpr char kElsewhere = 'E';

struct RecordHead {
  long long time;
  pid_t pid;
  char kind;
  size_t pathBytes;
  size_t contentBytes;
};

bool LiesIn(const std::string& path, const char* directory) {
  return path.compare(0, strlen(directory), directory) == 0;
}

// A status without what each line of a calculation tells anew.
std::optional<Json::Value> StateOf(const std::optional<std::string>& content) {
  Json::Value value;
  std::istringstream text(content.value_or(""));
  if (!content || !Json::Reader().parse(text, value, false) || !value.isObject())
    return std::nullopt;
  value.removeMember("processed_in_bytes");
  value.removeMember("estimated_in_bytes");
  return value;
}

bool IsLasting(const std::string& path, const std::optional<std::string>& before,
               const std::optional<std::string>& after) {
  if (LiesIn(path, ZorvBtrfsUsage::kShareTaskResultDir)) return after.has_value();
  if (!LiesIn(path, ZorvBtrfsUsage::kShareTaskStatusDir)) return true;
  return StateOf(before) != StateOf(after) || !after;
}

}  // namespace

FileHistory::FileHistory() {
  constexpr long long kBefore = std::numeric_limits<long long>::min();
  states_.push_back({std::nullopt, kBefore, kBefore, true});
}

size_t FileHistory::ReliedIndex(const Cut& cut) const {
  size_t relied = 0;
  for (size_t i = 0; i < states_.size(); ++i)
    if (states_[i].lasting && states_[i].end <= cut.begin) relied = i;
  return relied;
}

const FileState& FileHistory::Relied(const Cut& cut) const { return states_[ReliedIndex(cut)]; }

bool FileHistory::Allows(const std::optional<std::string>& content, const Cut& cut) const {
  for (size_t i = ReliedIndex(cut); i < states_.size(); ++i)
    if (states_[i].begin <= cut.end && states_[i].content == content) return true;
  return false;
}

bool FileHistory::IsBehind(const std::optional<std::string>& content, const Cut& cut) const {
  const FileState* newest = &states_.front();
  for (const FileState& state : states_)
    if (state.begin <= cut.begin) newest = &state;
  return newest->content != content;
}

HistoryRecorder::HistoryRecorder() {
  (void)std::filesystem::remove(kLog);
  rename_.Replace([this](const char* from, const char* to) {
    temporary_ = from;
    if (IsPersistent(to))
      Record(kReplaced, to, ReadFile(from));
    else
      Record(kElsewhere, to, "");
    return rename_.Real(from, to);
  });
  unlink_.Replace([this](const char* path) {
    // The end of a replacement, which belongs to it.
    if (path != temporary_) Record(IsPersistent(path) ? kRemoved : kElsewhere, path, "");
    return unlink_.Real(path);
  });
}

void HistoryRecorder::Rely() { Record(kElsewhere, "", ""); }

// One write at the end of the file: processes do not come between.
void HistoryRecorder::Record(char kind, const std::string& path, const std::string& content) {
  const RecordHead head = {Nanoseconds(), getpid(), kind, path.size(), content.size()};
  const std::string record =
      std::string(reinterpret_cast<const char*>(&head), sizeof head) + path + content;
  const UniqueFd fd(open(kLog, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  if (write(fd.Get(), record.data(), record.size()) != static_cast<ssize_t>(record.size()))
    throw std::runtime_error("the history cannot be written");
}

std::map<std::string, FileHistory> HistoryRecorder::Read() const {
  std::map<std::string, FileHistory> files;
  std::map<pid_t, std::pair<std::string, size_t>> last;  // what a process has not gone on from
  const std::string log = ReadFile(kLog);
  for (size_t at = 0; at < log.size();) {
    RecordHead head;
    memcpy(&head, log.data() + at, sizeof head);
    const std::string path = log.substr(at + sizeof head, head.pathBytes);
    const std::string content = log.substr(at + sizeof head + head.pathBytes, head.contentBytes);
    at += sizeof head + head.pathBytes + head.contentBytes;

    if (const auto before = last.find(head.pid); before != last.end()) {
      files[before->second.first].At(before->second.second).end = head.time;
      last.erase(before);
    }
    if (head.kind == kElsewhere) continue;
    FileHistory& file = files[path];
    std::optional<std::string> state;
    if (head.kind == kReplaced) state = content;
    const bool lasting = IsLasting(path, file.Last().content, state);
    file.Add({state, head.time, kNever, lasting});
    last[head.pid] = {path, file.Size() - 1};
  }
  return files;
}

}  // namespace ZorvTest
