// The result vectors of a task: names, directories, locks, bytes, removal. An operation that runs
// out of memory fails and throws nothing.
#include "zorvbtrfssnapusage/task_result.h"

#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <fstream>

#include "base/ensure_dirs.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/sz_list.h"
#include "zorvbtrfssnapusage/utils.h"

namespace ZorvBtrfsUsage {
namespace {

constexpr char kLogUnit[] = "utils/task_result";

// The format's elements are counted with 32 bits; a file with more is none of ours.
constexpr uint64_t kMaxElements = UINT32_MAX;

// Elements that are read at once. A count may say more than the file holds, and memory is filled no
// further than this ahead of what is there.
constexpr uint64_t kChunkElements = 65536;

// `base` with the suffix of the kind; empty for an unknown kind, which LockFile, WriteVtr and
// ReadVtr refuse as an invalid argument.
std::string PathOfKind(const std::string& base, const TASK_RESULT_OPT& opt) {
  switch (opt) {
    case TASK_RESULT_OPT_RESULT:
      return base + ".result";
    case TASK_RESULT_OPT_SUBVOL_ID:
      return base + ".subvol_id";
  }
  return std::string();
}

// The exclusive lock of a result file for one scope.
class ResultLock {
 public:
  ResultLock() = default;
  ~ResultLock() { (void)TaskResult::UnlockFile(fd_); }
  ResultLock(const ResultLock&) = delete;
  ResultLock& operator=(const ResultLock&) = delete;

  bool TakeExclusive(const std::string& path) {
    return TaskResult::LockFile(path, /*exclusive=*/true, fd_);
  }

 private:
  int fd_ = -1;
};

// Elements go to and from the file as they lie in memory.
template <typename T>
void Put(std::ostream& out, const T* data, size_t count) {
  out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(count * sizeof(T)));
}
template <typename T>
void Get(std::istream& in, T& data) {
  in.read(reinterpret_cast<char*>(&data), sizeof data);
}

// Elements that fit into a quarter of the machine's memory. A count may say more than the file
// holds, and what is missing is made up for: a few bytes must not take the machine's memory, which
// Linux promises before it is there.
template <typename T>
uint64_t ElementsOfAQuarter() {
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long pageBytes = sysconf(_SC_PAGESIZE);
  if (pages <= 0 || pageBytes <= 0) return kMaxElements;
  return static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageBytes) / 4 / sizeof(T);
}

// Room for `count` elements before the first is read, so that a count that cannot be true fails
// here. False: too many, or no memory for them.
template <typename T>
bool MakeRoom(std::vector<T>& values, uint64_t count) {
  if (count > kMaxElements || count > ElementsOfAQuarter<T>()) return false;
  try {
    values.reserve(count);
  } catch (const std::exception&) {  // bad_alloc, length_error
    return false;
  }
  return true;
}

// Appends at most `most` elements as they lie in the file. The bytes of one that is cut by the end
// overlay those of `element`, which is otherwise the last that was read.
template <typename T>
void GetChunk(std::istream& in, size_t most, T& element, std::vector<T>& values) {
  const size_t before = values.size();
  values.resize(before + most);
  char* const bytes = reinterpret_cast<char*>(values.data() + before);
  in.read(bytes, static_cast<std::streamsize>(most * sizeof(T)));
  const size_t got = static_cast<size_t>(in.gcount());
  const size_t whole = got / sizeof(T);
  if (whole > 0) element = values[before + whole - 1];
  memcpy(&element, bytes + whole * sizeof(T), got % sizeof(T));
  values.resize(before + whole);
}

// Reads `count` elements into a vector that has room for them.
template <typename T>
void GetElements(std::istream& in, uint64_t count, std::vector<T>& values) {
  T element{};
  while (values.size() < count && in.good())
    GetChunk(in, std::min<uint64_t>(count - values.size(), kChunkElements), element, values);
  // Kept: what lies beyond the end of a short file repeats the last element (its bytes overlaid by
  // those of a partial one); callers compare the two vectors of a task, not the file's size.
  if (!in.bad()) values.resize(count, element);
}

}  // namespace

std::string TaskResult::GetFileBasePath(const std::string& taskID) try {
  return PathIn(kTaskResultDir, taskID);
} catch (const std::exception&) {
  return std::string();
}

std::string TaskResult::GetFileLockBasePath(const std::string& taskID) try {
  return PathIn(kTaskResultLockDir, taskID);
} catch (const std::exception&) {
  return std::string();
}

bool TaskResult::InitWorkingDir() try {
  return EnsureDirs(ZLOG_HERE, {kRunDir, kLockDir, kTaskResultLockDir, kTaskResultDir});
} catch (const std::exception&) {
  return false;
}

bool TaskResult::LockFile(const std::string& fileLockPath, bool exclusive, int& fd) {
  if (fileLockPath.empty()) {
    ZLOG_INVALID_ARG("!fileLockPath.empty()");
    return false;
  }
  if (Utils::GeneralFileLock(fileLockPath, exclusive, fd)) return true;
  ZLOG(LOG_ERR, "Failed to lock the file, path: %s, exclusive: %d", fileLockPath.c_str(),
       exclusive ? 1 : 0);
  return false;
}

bool TaskResult::UnlockFile(int& fd) {
  if (!Utils::GeneralFileUnlock(fd)) ZLOG(LOG_ERR, "Failed to unlock fd(%d)", fd);
  fd = -1;
  return true;
}

template <typename T>
int TaskResult::WriteResultVtr(const TASK_RESULT_OPT& opt, const std::string& taskID,
                               const std::vector<T>& values) try {
  if (taskID.empty()) {
    ZLOG_INVALID_ARG("!taskID.empty()");
    return RESULT_INVALID_ARGUMENT;
  }
  const std::string path = PathOfKind(PathIn(kTaskResultDir, taskID), opt);
  const std::string lockPath = PathOfKind(PathIn(kTaskResultLockDir, taskID), opt);

  if (!InitWorkingDir()) {
    ZLOG(LOG_ERR, "Failed to check or make working path of task result[0x%04X %s:%d]", PLAT_ERR);
    return RESULT_FAILURE;
  }
  ResultLock lock;
  if (!lock.TakeExclusive(lockPath)) {
    ZLOG(LOG_ERR, "lock failed, path (%s)", lockPath.c_str());
    return RESULT_FAILURE;
  }
  if (WriteVtr(path, values) != RESULT_OK) {
    ZLOG_TASK(LOG_ERR, taskID, "Failed to write task result to file: %s, resultOpt: %d",
              path.c_str(), static_cast<int>(opt));
    return RESULT_FAILURE;
  }
  return RESULT_OK;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

template <typename T>
int TaskResult::GetResultVtr(const TASK_RESULT_OPT& opt, const std::string& taskID,
                             std::vector<T>& values) try {
  if (taskID.empty()) {
    ZLOG_INVALID_ARG("!taskID.empty()");
    return RESULT_INVALID_ARGUMENT;
  }
  // No lock: results are read only when the task's state says that they are complete.
  const std::string path = PathOfKind(PathIn(kTaskResultDir, taskID), opt);
  if (ReadVtr(path, values) != RESULT_OK) {
    ZLOG_TASK(LOG_ERR, taskID, "Failed to read task result to file: %s, resultOpt: %d",
              path.c_str(), static_cast<int>(opt));
    return RESULT_FAILURE;
  }
  return RESULT_OK;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

template <typename T>
int TaskResult::WriteVtr(const std::string& filePath, const std::vector<T>& values) try {
  if (filePath.empty()) {
    ZLOG_INVALID_ARG("!filePath.empty()");
    return RESULT_INVALID_ARGUMENT;
  }
  std::ofstream out(filePath, std::ios::binary | std::ios::trunc);
  if (!out.is_open()) {
    ZLOG(LOG_ERR, "File [%s] cannot be created.", filePath.c_str());
    return RESULT_FAILURE;
  }
  const uint64_t count = values.size();
  Put(out, &count, 1);
  Put(out, values.data(), values.size());
  out.flush();  // or what a full disk refuses would be noticed by nobody
  if (out.bad()) {
    ZLOG(LOG_ERR, "Some errors occur on output stream, file: %s", filePath.c_str());
    return RESULT_FAILURE;
  }
  return RESULT_OK;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

template <typename T>
int TaskResult::ReadVtr(const std::string& filePath, std::vector<T>& values) try {
  if (filePath.empty()) {
    ZLOG_INVALID_ARG("!filePath.empty()");
    return RESULT_INVALID_ARGUMENT;
  }
  std::ifstream in(filePath, std::ios::binary);
  if (!in.is_open()) {
    ZLOG(LOG_ERR, "File [%s] cannot be opened.", filePath.c_str());
    return RESULT_FAILURE;
  }
  uint64_t count = 0;  // what a file without a count holds
  Get(in, count);
  values.clear();
  const bool roomy = MakeRoom(values, count);
  if (roomy) GetElements(in, count, values);
  // Kept: only the bad bit; the end of the file is none.
  if (!roomy || in.bad()) {
    ZLOG(LOG_ERR, "Some errors occur on input stream, file: %s", filePath.c_str());
    return RESULT_FAILURE;
  }
  return RESULT_OK;
} catch (const std::exception&) {
  return RESULT_FAILURE;
}

bool TaskResult::CleanFile(const std::string& taskID) try {
  SzList files = MakeSzList();
  if (!files) {
    ZLOG(LOG_ERR, "PLATCSzListAlloc failed. [0x%04X %s:%d]", PLAT_ERR);
    return false;
  }
  for (const char* dir : {kTaskResultDir, kTaskResultLockDir}) {
    // Kept: a plain prefix, so the files of a task whose ID merely begins with this one go too;
    // task IDs are of one length.
    if (Utils::SearchTaskFile(taskID, dir, SzListRef(files))) continue;
    ZLOG_TASK(LOG_ERR, taskID, "Failed to search result files over the path [%s][0x%04X %s:%d]",
              dir, PLAT_ERR);
    return false;
  }
  if (!Utils::DeleteCandidateFile(SzListRef(files))) {
    ZLOG_TASK(LOG_ERR, taskID, "Failed to delete the candidate files[0x%04X %s:%d]", PLAT_ERR);
    return false;
  }
  return true;
} catch (const std::exception&) {
  return false;
}

template int TaskResult::WriteResultVtr<unsigned long long>(const TASK_RESULT_OPT&,
                                                            const std::string&,
                                                            const std::vector<unsigned long long>&);
template int TaskResult::GetResultVtr<unsigned long long>(const TASK_RESULT_OPT&,
                                                          const std::string&,
                                                          std::vector<unsigned long long>&);
template int TaskResult::WriteVtr<unsigned long long>(const std::string&,
                                                      const std::vector<unsigned long long>&);
template int TaskResult::ReadVtr<unsigned long long>(const std::string&,
                                                     std::vector<unsigned long long>&);

}  // namespace ZorvBtrfsUsage
