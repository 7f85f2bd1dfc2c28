#include "tests/torture/scarcity_world.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zorvbtrfssnapusage/share_snap_usage_cal.h>
#include <zorvbtrfssnapusage/utils.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "base/paths.h"
#include "tests/support/command.h"

namespace ZorvTest {

using namespace ZorvBtrfsUsage;
namespace fs = std::filesystem;

namespace {

constexpr char kEngine[] = "/sbin/btrfs";
constexpr char kOther[] = "docs";
const char* const kRoots[] = {kRunDir, kLockDir, kPersistentDir};

// A time that no clock reaches before it is 2106: the entry never expires.
constexpr Json::Int64 kNeverExpires = 4000000000;

// What the process of a calculation had open at its beginning, and where it says what is left.
constexpr int kWatchedDescriptors = 256;
bool openBefore[kWatchedDescriptors];
char* leftBehind = nullptr;
pid_t noting = -1;

// No call of the product asks for these flags, so a stepper can tell this one.
bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }

void RemoveContent(const char* root) {
  std::error_code ignored;  // a root that is a mount point stays
  if (!fs::is_directory(root, ignored)) return;
  for (const auto& entry : fs::directory_iterator(root)) fs::remove_all(entry.path(), ignored);
}

std::optional<Json::Value> ParseObject(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::istringstream stream(text);
  std::string errors;
  if (!Json::parseFromStream(builder, stream, &value, &errors) || !value.isObject())
    return std::nullopt;
  return value;
}

void AddMember(const char* path, const char* name, const char* value) {
  Json::Value document = *ParseObject(ReadFile(path));
  document[name] = value;
  WriteFile(path, Json::writeString(Json::StreamWriterBuilder(), document));
}

void ForEachFile(const std::function<void(const std::string&)>& visit) {
  for (const char* root : kRoots) {
    if (!fs::is_directory(root)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(root))
      if (entry.is_regular_file()) visit(entry.path());
  }
}

bool IsTemporary(const std::string& path) {
  static const std::regex kTemporary(R"(.*\.[A-Za-z0-9]{6}|.*/\.zorvcopy\..*)");
  // ".result" has six letters; IDs of subvolumes have more.
  return !path.ends_with(".result") && std::regex_match(path, kTemporary);
}

// Small nodes, so that there are many; one copy of each, so that no other hides what was wrong.
BtrfsOptions ManySingleNodes() {
  BtrfsOptions options;
  options.mkfs = {"--nodesize", "4096", "--metadata", "single"};
  return options;
}

std::string Text(const SubvolumeSizes& sizes) {
  std::string text;
  for (const auto& [id, bytes] : sizes)
    text += " " + std::to_string(id) + ":" + std::to_string(bytes);
  return text.empty() ? " none" : text;
}

}  // namespace

ScarcityWorld::ScarcityWorld(int files) : volume_("/volume1", ManySingleNodes()) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  sleep_.Replace([](unsigned int) { return 0u; });  // a busy share is asked for again at once
  for (const char* root : kRoots) fs::remove_all(root);
  volume_.Subvolume(kOther);
  volume_.Subvolume(kShare);
  const char* const names[] = {"GMT-2024.01.01-00.00.00", "GMT-2024.02.01-00.00.00",
                               "GMT-2024.03.01-00.00.00"};
  unsigned seed = 1;
  std::vector<std::string> command = {ZORV_ENGINE_PATH, "subvolume", "size",
                                      "-vpm",           "-r",        "/volume1"};
  for (const char* name : names) {
    WriteRandom(volume_.Path(std::string(kShare) + "/file"), 100000 * seed, seed);
    for (int i = 0; i < files; i += static_cast<int>(seed))
      WriteFile(volume_.Path(std::string(kShare) + "/small" + std::to_string(i)),
                std::string(500, static_cast<char>('a' + seed)));
    ++seed;
    const std::string path = volume_.Snapshot(kShare, std::string(kShare) + "/.snapshots/" + name);
    const unsigned long long id = SubvolumeID(path);
    quick_[id] = id * 4096 + 7;
    command.push_back(std::to_string(id));
  }
  std::istringstream lines(MustRun(command));
  for (std::string line; std::getline(lines, line);) {
    unsigned long long id = 0, bytes = 0;
    if (sscanf(line.c_str(), "subvol(%llu) %llu bytes", &id, &bytes) == 2) real_[id] = bytes;
  }
  UseEngine(ZORV_QUICK_ENGINE_PATH, quick_);
}

ScarcityWorld::~ScarcityWorld() {
  for (const char* root : kRoots) RemoveContent(root);
}

void ScarcityWorld::UseRealEngine() { UseEngine(ZORV_ENGINE_PATH, real_); }

void ScarcityWorld::UseEngine(const char* program, const SubvolumeSizes& sizes) {
  fs::remove_all(kEngine);
  fs::copy_file(program, kEngine);
  expected_ = &sizes;
  if (CalculateToTheEnd() != 0) throw std::runtime_error("the share cannot be calculated");
  MakeOtherEntries();
  saved_.clear();
  Save();
  log.Clear();
}

void ScarcityWorld::MakeOtherEntries() {
  Json::Value map = *ParseObject(ReadFile(kShareMap));
  map[kShare]["time"] = kNeverExpires;
  map[kOther] = map[kShare];
  map[kOther]["task_id"] = "11111111-2222-3333-4444-555555555555";
  map[kOther]["note"] = "of others";
  WriteFile(kShareMap, Json::writeString(Json::StreamWriterBuilder(), map));
  AddMember(ShareStatusPath(kShare).c_str(), "note", "of others");
  WriteFile(ShareStatusPath(kOther), R"({"note":"of others","status":"done"})");
  Utils::ReminderStatusSet(true);
  AddMember(kReminderRecord, "note", "of others");
}

void ScarcityWorld::Save() {
  ForEachFile([this](const std::string& path) { saved_[path] = {ReadFile(path), ModeOf(path)}; });
}

void ScarcityWorld::Restore() {
  for (const char* root : kRoots) RemoveContent(root);
  for (const auto& [path, file] : saved_) {
    WriteFile(path, file.content);
    chmod(path.c_str(), static_cast<mode_t>(file.mode));
  }
}

std::vector<std::string> ScarcityWorld::IDs() const {
  std::vector<std::string> ids;
  for (const auto& [id, bytes] : quick_) ids.push_back(std::to_string(id));
  return ids;
}

// ---- The processes of a calculation -------------------------------------------------------------

void ScarcityWorld::NoteLeftBehind() {
  for (int fd = 0; fd < kWatchedDescriptors; ++fd) {
    if (!IsOpen(fd) || openBefore[fd]) continue;
    snprintf(leftBehind, sizeof(LeftBehind::text), "descriptor %d is left open", fd);
  }
  siginfo_t info = {};
  if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0)
    snprintf(leftBehind, sizeof(LeftBehind::text), "a child is left");
}

int ScarcityWorld::Noting(const std::function<int()>& body) {
  openlog(nullptr, LOG_NDELAY, LOG_USER);  // the library's log has its socket before it is scarce
  leftBehind = left_->text;
  noting = getpid();
  for (int fd = 0; fd < kWatchedDescriptors; ++fd) openBefore[fd] = IsOpen(fd);
  // A calculator leaves by exit(3), and then only.
  atexit([] {
    if (getpid() != noting) NoteLeftBehind();
  });
  const int code = body();
  NoteLeftBehind();
  return code;
}

int ScarcityWorld::Calculate() {
  return Noting([] {
    ShareSnapUsageCal calculation;
    const int code = calculation.CreateTask(kShare);
    if (code != RESULT_OK) return code;
    const int launched = calculation.Launch(nullptr, nullptr);
    return launched == RESULT_OK ? 0 : 100 + launched;
  });
}

int ScarcityWorld::CalculateToTheEnd() {
  const int code = InChild([this] { return Calculate(); });
  while (waitpid(-1, nullptr, 0) > 0) {
  }
  return code;
}

Ends ScarcityWorld::RunPrepared(const std::function<void()>& prepare) {
  Ends ends;
  fflush(nullptr);
  const pid_t caller = fork();
  if (caller < 0) throw std::runtime_error("no process");
  if (caller == 0) {
    prepare();
    _exit(Calculate());
  }
  const auto take = [&](pid_t pid, int status) {
    if (pid == caller)
      ends.caller = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    else
      ends.calculators.push_back(status);
    if (WIFSIGNALED(status))
      ends.crashed += std::string(pid == caller ? "caller" : "calculator") + " by " +
                      strsignal(WTERMSIG(status)) + "; ";
  };
  const bool ended = WaitUntil([&] {
    int status = 0;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) != 0;) {
      if (pid < 0) return true;
      take(pid, status);
    }
    return false;
  });
  if (!ended) throw std::runtime_error("something of the calculation is still running");
  return ends;
}

// ---- What has to hold ---------------------------------------------------------------------------

std::string ScarcityWorld::State() {
  if (!fs::exists(ShareStatusPath(kShare))) return "";
  const std::optional<Json::Value> status = ParseObject(ReadFile(ShareStatusPath(kShare)));
  return status ? (*status)["status"].asString() : "";
}

Aftermath ScarcityWorld::Judge(int caller, const Tolerated& tolerated) {
  Aftermath aftermath;
  JudgeLeftBehind(&aftermath);
  JudgeFiles(tolerated, &aftermath);
  JudgeTemporaryFiles(tolerated, &aftermath);
  JudgeNumbers(tolerated, &aftermath);
  JudgeState(caller, tolerated, &aftermath);
  JudgeNext(&aftermath);
  Restore();
  return aftermath;
}

void ScarcityWorld::JudgeLeftBehind(Aftermath* aftermath) {
  if (left_->text[0] != '\0') aftermath->wrong.push_back(left_->text);
  left_->text[0] = '\0';
}

void ScarcityWorld::JudgeEnds(const Ends& ends, Aftermath* aftermath) {
  static const std::set<int> kOfCaller = {0, 1, 4, 11, 101, 103, 107, 115};
  static const std::set<int> kOfCalculator = {0, 1, 6, 9, 13, 127};
  if (!ends.crashed.empty()) aftermath->wrong.push_back("ended by a signal: " + ends.crashed);
  if (kOfCaller.count(ends.caller) == 0)
    aftermath->wrong.push_back("the caller got code " + std::to_string(ends.caller));
  for (const int status : ends.calculators)
    if (WIFEXITED(status) && kOfCalculator.count(WEXITSTATUS(status)) == 0)
      aftermath->wrong.push_back("the calculator ended with " +
                                 std::to_string(WEXITSTATUS(status)));
}

void ScarcityWorld::JudgeFiles(const Tolerated& tolerated, Aftermath* aftermath) {
  JudgeMap(tolerated, aftermath);
  JudgeStatus(tolerated, aftermath);
  for (const std::string& path : {ShareStatusPath(kOther), std::string(kReminderRecord)}) {
    const auto now = fs::exists(path) ? ParseObject(ReadFile(path)) : std::nullopt;
    if (now == ParseObject(saved_[path].content)) continue;
    aftermath->lostMembers = now && tolerated.unreadable.count(path) != 0;
    if (!aftermath->lostMembers) aftermath->wrong.push_back(path + " has changed");
  }
  if (!fs::is_directory(kTaskStatusDir)) return;
  for (const auto& entry : fs::directory_iterator(kTaskStatusDir))
    if (!IsTemporary(entry.path()) && !ParseObject(ReadFile(entry.path())))
      aftermath->wrong.push_back(entry.path().string() + " is torn");
}

void ScarcityWorld::JudgeMap(const Tolerated& tolerated, Aftermath* aftermath) {
  if (!fs::exists(kShareMap)) return aftermath->wrong.push_back("the map is gone");
  const std::optional<Json::Value> map = ParseObject(ReadFile(kShareMap));
  if (!map) return aftermath->wrong.push_back("the map is torn: " + ReadFile(kShareMap));
  const Json::Value old = *ParseObject(saved_[kShareMap].content);
  const Json::Value& entry = (*map)[kShare];
  const size_t snapshots = entry["snap_list"].isObject() ? entry["snap_list"].size() : 0;
  const bool whole = (*map)[kOther] == old[kOther] && entry["task_id"].asString().size() == 36;
  if (!whole && tolerated.unreadable.count(kShareMap) != 0)
    aftermath->lostMembers = true;
  else if (!whole || (snapshots != 0 && snapshots != quick_.size()))
    aftermath->wrong.push_back("the map has lost something: " + ReadFile(kShareMap));
}

void ScarcityWorld::JudgeStatus(const Tolerated& tolerated, Aftermath* aftermath) {
  const std::string path = ShareStatusPath(kShare);
  if (!fs::exists(path)) return aftermath->wrong.push_back("the share's status is gone");
  const std::optional<Json::Value> status = ParseObject(ReadFile(path));
  if (!status) return aftermath->wrong.push_back("the share's status is torn: " + ReadFile(path));
  if (!status->isMember("note")) {
    if (tolerated.unreadable.count(path) != 0)
      aftermath->lostMembers = true;
    else
      aftermath->wrong.push_back("the share's status has lost a member: " + ReadFile(path));
  }
}

void ScarcityWorld::JudgeTemporaryFiles(const Tolerated& tolerated, Aftermath* aftermath) {
  ForEachFile([&](const std::string& path) {
    if (IsTemporary(path) && path != tolerated.notRemoved && !tolerated.temporaryFiles)
      aftermath->wrong.push_back("a temporary file is left: " + path);
  });
}

// The numbers of a share that is done: all of them, each with its subvolume.
void ScarcityWorld::JudgeNumbers(const Tolerated& tolerated, Aftermath* aftermath) const {
  if (State() != "done") return;
  std::vector<unsigned long long> ids, bytes;
  if (ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, kShare, ids) != RESULT_OK ||
      ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, kShare, bytes) != RESULT_OK) {
    aftermath->noResult = tolerated.unlisted;
    if (!tolerated.unlisted) aftermath->wrong.push_back("the share is done and has no result");
    return;
  }
  SubvolumeSizes found;
  for (size_t i = 0; i < ids.size() && i < bytes.size(); ++i) found[ids[i]] = bytes[i];
  if (found == *expected_ && ids.size() == bytes.size() && ids.size() == found.size()) return;
  const bool right = ids.size() == bytes.size() &&
                     std::all_of(found.begin(), found.end(), [this](const auto& size) {
                       const auto known = expected_->find(size.first);
                       return known != expected_->end() && known->second == size.second;
                     });
  aftermath->shortResult = right && tolerated.shortOutput;
  if (!aftermath->shortResult)
    aftermath->wrong.push_back("wrong numbers:" + Text(found) + " for" + Text(*expected_));
}

void ScarcityWorld::JudgeState(int caller, const Tolerated& tolerated, Aftermath* aftermath) {
  aftermath->state = State();
  if (aftermath->state == "done" || aftermath->state == "fail" || aftermath->state == "stop")
    return;
  const bool neverLaunched = aftermath->state == "ready" && caller != 0;
  if (!neverLaunched && !tolerated.unfinished)
    aftermath->wrong.push_back("the share is left in state '" + aftermath->state + "'");
  if (aftermath->state != "process") return;
  if (ShareSnapUsageCal::CleanNotDoneTask() != RESULT_OK || fs::exists(ShareStatusPath(kShare)) ||
      fs::exists(ShareResultDir(kShare)) || (*ParseObject(ReadFile(kShareMap))).isMember(kShare))
    aftermath->wrong.push_back("the documented cleanup has left something");
  aftermath->cleaned = true;
}

void ScarcityWorld::JudgeNext(Aftermath* aftermath) {
  int code = CalculateToTheEnd();
  if (code == RESULT_SHARE_BUSY) {
    ShareSnapUsageCal::CleanAll(kShare);
    aftermath->cleaned = true;
    code = CalculateToTheEnd();
  }
  Aftermath next;
  if (code != 0) next.wrong.push_back("code " + std::to_string(code));
  if (State() != "done") next.wrong.push_back("state '" + State() + "'");
  JudgeLeftBehind(&next);
  JudgeNumbers({}, &next);
  for (const std::string& wrong : next.wrong)
    aftermath->wrong.push_back("the next calculation: " + wrong);
}

}  // namespace ZorvTest
