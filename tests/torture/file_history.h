// What was written to the product's persistent files, by whichever process, and which of it a file
// may hold after a power cut.
#ifndef TESTS_TORTURE_FILE_HISTORY_H_
#define TESTS_TORTURE_FILE_HISTORY_H_

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/platform_hook.h"
#include "tests/torture/power_cut_disk.h"

namespace ZorvTest {

// What a file held from one moment on; nothing when it was not there. Each state says what becomes
// of it when the power goes.
struct FileState {
  std::optional<std::string> content;
  long long begin;  // it may have been on the disk from here on
  long long end;    // from here on the writer may rely on it; the end of time when it never could
  bool lasting;     // whether the writer may: progress and the removal of results come back
};

// The states of one file, oldest first; the first one is its absence.
class FileHistory {
 public:
  FileHistory();
  void Add(FileState state) { states_.push_back(std::move(state)); }
  const FileState& Last() const { return states_.back(); }
  FileState& At(size_t index) { return states_[index]; }
  size_t Size() const { return states_.size(); }

  // Whether the file may hold this after that cut: it is the last state that was relied upon, or a
  // later one that may have been on its way.
  bool Allows(const std::optional<std::string>& content, const Cut& cut) const;

  // The last state that was relied upon by then.
  const FileState& Relied(const Cut& cut) const;

  // Whether anything later than what the file holds had been begun: the cut took something away.
  bool IsBehind(const std::optional<std::string>& content, const Cut& cut) const;

 private:
  size_t ReliedIndex(const Cut& cut) const;

  std::vector<FileState> states_;
};

// Records every rename and removal below the persistent directory, of this process and of all that
// it forks, with the content; the clock is the one of cuts. What happened is on record before it
// happens. A process relies on what it wrote as soon as it goes on to another file.
class HistoryRecorder {
 public:
  HistoryRecorder();

  // Says that this process relies on all that it has written.
  void Rely();

  // By path; all recording processes have ended.
  std::map<std::string, FileHistory> Read() const;

 private:
  void Record(char kind, const std::string& path, const std::string& content);

  PlatformHook<int(const char*, const char*)> rename_{"rename"};
  PlatformHook<int(const char*)> unlink_{"unlink"};
  std::string temporary_;  // the last file of this process that took another's place
};

}  // namespace ZorvTest

#endif  // TESTS_TORTURE_FILE_HISTORY_H_
