// The binary result vectors of a calculation task.
#ifndef ZORVBTRFSSNAPUSAGE_TASK_RESULT_H_
#define ZORVBTRFSSNAPUSAGE_TASK_RESULT_H_

#include <string>
#include <vector>

#include "zorvbtrfssnapusage/export.h"
#include "zorvbtrfssnapusage/types.h"

namespace ZorvBtrfsUsage {

// Result files in /run/zorvbtrfssnapusage/task_result, one a kind, named by the task ID and the
// kind's suffix: a count of 8 bytes, then that many elements of 8 bytes, in the host's byte order.
// Vector operations return 0, 1 (file, directory, lock, memory or an impossible count) or 3 (empty
// task ID or path; platform error 0x0D00). Failures are logged; nothing throws.
// The templates exist for `unsigned long long` only.
class ZORV_EXPORT TaskResult {
 public:
  // Writes a task's vector under the exclusive lock of its lock file. A failure may leave a part of
  // it: readers go by the task's state.
  template <typename T>
  static int WriteResultVtr(const TASK_RESULT_OPT& opt, const std::string& taskID,
                            const std::vector<T>& values);

  // Reads a task's vector, without a lock.
  template <typename T>
  static int GetResultVtr(const TASK_RESULT_OPT& opt, const std::string& taskID,
                          std::vector<T>& values);

  // The same for a file of this format anywhere. An element that lies beyond the end of a short
  // file reads as the last one before it.
  template <typename T>
  static int WriteVtr(const std::string& filePath, const std::vector<T>& values);
  template <typename T>
  static int ReadVtr(const std::string& filePath, std::vector<T>& values);

  // Result and lock path of a task, without the suffix.
  static std::string GetFileBasePath(const std::string& taskID);
  static std::string GetFileLockBasePath(const std::string& taskID);

  // Makes the directories of results and locks.
  static bool InitWorkingDir();

  // Takes the lock of a lock file and waits for it; `fd` must start as -1.
  static bool LockFile(const std::string& fileLockPath, bool exclusive, int& fd);

  // Drops the lock and sets `fd` to -1. Always true.
  static bool UnlockFile(int& fd);

  // Removes result and lock files whose names begin with `taskID`. False: search or removal failed.
  static bool CleanFile(const std::string& taskID);
};

extern template ZORV_EXPORT int TaskResult::WriteResultVtr<unsigned long long>(
    const TASK_RESULT_OPT&, const std::string&, const std::vector<unsigned long long>&);
extern template ZORV_EXPORT int TaskResult::GetResultVtr<unsigned long long>(
    const TASK_RESULT_OPT&, const std::string&, std::vector<unsigned long long>&);
extern template ZORV_EXPORT int TaskResult::WriteVtr<unsigned long long>(
    const std::string&, const std::vector<unsigned long long>&);
extern template ZORV_EXPORT int TaskResult::ReadVtr<unsigned long long>(
    const std::string&, std::vector<unsigned long long>&);

}  // namespace ZorvBtrfsUsage

#endif  // ZORVBTRFSSNAPUSAGE_TASK_RESULT_H_
