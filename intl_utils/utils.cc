// In this file, in order: file locks; files and directories; JSON files; times; identifiers and
// processes; shares and snapshots; files by prefix; the reminder.
//
// Nothing throws out of here: operations that allocate fail when there is no memory.
#include "zorvbtrfssnapusage/utils.h"

#include <errno.h>
#include <fcntl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <exception>
#include <fstream>
#include <memory>
#include <sstream>
#include <string_view>

#include "base/durable.h"
#include "base/ensure_dirs.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/scoped_umask.h"
#include "base/sz_list.h"
#include "base/unique_fd.h"
#include "base/utf8.h"
#include "intl_utils/json_shape.h"
#include "intl_utils/json_store.h"
#include "intl_utils/scoped_file_lock.h"

namespace ZorvBtrfsUsage {
namespace {

constexpr char kLogUnit[] = "intl_utils/utils";

// Platform errors that this unit sets.
constexpr unsigned int kErrInvalidArgument = 0x0D00;
constexpr unsigned int kErrSystemCall = 0x2A00;
constexpr unsigned int kErrVolumePath = 0xBE00;
constexpr unsigned int kErrVolumeKind = 0xD900;

}  // namespace

// ---- File locks --------------------------------------------------------------------------------

namespace {

// A record lock of type `type` over the whole of a file, held by this process.
struct flock WholeFile(short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 0;  // to the end, however far the file grows
  lock.l_pid = getpid();
  return lock;
}

bool HeldByAnother(int error) { return error == EAGAIN || error == EACCES; }

}  // namespace

// A record lock belongs to the process, and closing any descriptor of the file drops it: a lock
// file must never be opened a second time while it is held.
bool Utils::GeneralFileLock(const std::string& path, bool exclusive, int& fd) try {
  if (!EnsureDirs(ZLOG_HERE, {kLockDir})) return false;

  // The flags are what other holders of these files use: never written, made by who comes first.
  fd = open(path.c_str(), O_CREAT | O_NONBLOCK | (exclusive ? O_WRONLY : O_RDONLY), 0644);
  if (fd == -1) {
    // Kept: "errmsg" in one mode and "errmgs" in the other; log readers tell the modes by it.
    if (exclusive)
      ZLOG(LOG_ERR, "Failed to open file [%s], errmsg(%s)", path.c_str(), strerror(errno));
    else
      ZLOG(LOG_ERR, "Failed to open file [%s], errmgs(%s)", path.c_str(), strerror(errno));
    return false;
  }

  // Waits for as long as it takes; O_NONBLOCK has no say in record locks.
  struct flock lock = WholeFile(exclusive ? F_WRLCK : F_RDLCK);
  if (fcntl(fd, F_SETLKW, &lock) == 0) return true;

  // The descriptor stays open: callers hand it to GeneralFileUnlock also after a failure.
  if (HeldByAnother(errno))
    ZLOG(LOG_DEBUG, "File [%s] is already locked by another process", path.c_str());
  else
    ZLOG(LOG_ERR, "Failed to lock file [%s], errmgs(%s)", path.c_str(), strerror(errno));
  return false;
} catch (const std::exception&) {  // no memory
  return false;
}

bool Utils::GeneralFileUnlock(int fd) {
  if (fd == -1) return true;

  const UniqueFd closer(fd);
  struct flock lock = WholeFile(F_UNLCK);
  if (fcntl(fd, F_SETLKW, &lock) == 0) return true;

  if (HeldByAnother(errno)) {
    ZLOG(LOG_DEBUG, "File is already locked by another process");
    return true;
  }
  ZLOG(LOG_ERR, "Process(PID:%d) failed to unlock, errmgs(%s)[0x%04X %s:%d]", getpid(),
       strerror(errno), PLAT_ERR);
  return false;
}

// ---- Files and directories ---------------------------------------------------------------------

int Utils::FileOrDirOpen(const char* fname, DIR** dirstream) {
  if (fname == nullptr) {
    ZLOG_INVALID_ARG("__null != fname");
    return -1;
  }
  if (dirstream == nullptr) {
    ZLOG_INVALID_ARG("NULL != dirstream");
    return -1;
  }

  struct stat st;
  if (stat(fname, &st) != 0) return -1;

  if (S_ISREG(st.st_mode)) {
    *dirstream = nullptr;  // so that FileOrDirClose closes the descriptor
    return open(fname, O_RDWR | O_CLOEXEC);
  }
  if (!S_ISDIR(st.st_mode)) {
    errno = EINVAL;
    return -1;
  }
  *dirstream = opendir(fname);
  if (*dirstream == nullptr) return -1;
  const int fd = dirfd(*dirstream);
  if (fd < 0) {
    closedir(*dirstream);
    *dirstream = nullptr;
    return -1;
  }
  return fd;
}

void Utils::FileOrDirClose(int fd, DIR* dirstream) {
  if (dirstream != nullptr)
    closedir(dirstream);  // closes its descriptor, too
  else
    UniqueFd(fd).Reset();
}

// ---- JSON files --------------------------------------------------------------------------------

namespace {

// Json::Reader gives up above this many levels, the innermost scalar being one (its stackLimit_g).
constexpr int kJsonLevels = 1000;

// Whether Json::Reader would take the written `value` back: not too deep, no infinite numbers.
bool IsReadable(const Json::Value& value, int levels = kJsonLevels) {
  if (levels == 0) return false;
  if (value.isDouble()) return std::isfinite(value.asDouble());
  for (const Json::Value& member : value)
    if (!IsReadable(member, levels - 1)) return false;
  return true;
}

// The text of `value` in one line without a line end. Bytes of strings stay as they are, so that
// a share's name looks in the file as it does in the file system.
std::string JsonLine(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["commentStyle"] = "None";
  builder["emitUTF8"] = true;
  const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
  std::ostringstream line;
  line.exceptions(std::ios::badbit);  // or a text that memory ran out for would be cut in silence
  writer->write(value, &line);
  return line.str();
}

// As JsonLine. False: no JSON text can carry `value`, for a key or string of it is not UTF-8 (the
// names of shares may be any bytes), or for what IsReadable says.
bool JsonToText(const Json::Value& value, std::string& text) {
  if (!IsReadable(value)) return false;
  std::string line = JsonLine(value);
  if (!IsUtf8(line)) return false;
  text = std::move(line);
  return true;
}

// A new file beside `path`; gone with the object, unless it was renamed.
class TempFile {
 public:
  explicit TempFile(const std::string& path) : name_(path + ".XXXXXX") {
    const ScopedUmask ownerOnly(077);
    const UniqueFd fd(mkstemp(name_.data()));
    made_ = fd.Valid();
  }
  ~TempFile() {
    if (made_) (void)unlink(name_.c_str());  // after a rename the name is gone already
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  bool Made() const { return made_; }
  const char* Name() const { return name_.c_str(); }

 private:
  std::string name_;
  bool made_ = false;
};

// Replaces the content of the file `name` by the text of `value`. False: not all of it is there.
bool WriteJson(const Json::Value& value, const char* name) {
  std::ofstream out(name, std::ios::out | std::ios::trunc);
  if (!out) return false;
  std::string text;
  if (!JsonToText(value, text)) return false;
  out << text << std::flush;
  return !out.fail();
}

// Gives the file `name` the owner and group of the file that it is about to replace.
void TakeOver(const char* name, const struct stat& target) {
  if (chown(name, target.st_uid, target.st_gid) != 0)
    ZLOG(LOG_DEBUG, "Failed to chown, path(%s), owner(%u), group(%u), errno(%d)", name,
         target.st_uid, target.st_gid, errno);
  // Kept: 0644 only on replacement, a new file stays 0600. Who may read a file is decided once it
  // has been there, by its owner and group.
  if (chmod(name, 0644) != 0) ZLOG(LOG_DEBUG, "Failed to chmod, path(%s), errno(%d)", name, errno);
}

// What the disk refuses fails before the rename, so that the old content is still there; after it
// readers see the new one, and there is nothing to take back: the result is that of the rename.
bool ReplaceByJson(const Json::Value& value, const std::string& path, Durability durability) {
  const bool persistent = IsPersistent(path);
  const TempFile temp(path);
  if (!temp.Made()) return false;
  struct stat target;
  const bool replaces = stat(path.c_str(), &target) == 0;
  if (!WriteJson(value, temp.Name())) return false;
  if (replaces) TakeOver(temp.Name(), target);
  if (persistent && !BringToDisk(temp.Name(), durability)) return false;
  if (rename(temp.Name(), path.c_str()) != 0) return false;
  if (persistent && durability == Durability::kSynced) (void)SyncDirectoryOf(path);
  return true;
}

// JsonToFile with a say on what a power cut may do.
bool WriteFileByJson(const Json::Value& value, const std::string& path, Durability durability) try {
  return !path.empty() && ReplaceByJson(value, path, durability);
} catch (const std::exception&) {  // no memory
  return false;
}

// Json::Reader throws on nesting that is too deep, the stream on a directory, both on no memory.
bool ParseJson(std::ifstream& in, Json::Value& value) {
  try {
    Json::Reader reader;
    return reader.parse(in, value, false);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

bool Utils::JsonToFile(const Json::Value& value, const std::string& path) {
  return WriteFileByJson(value, path, Durability::kSynced);
}

bool Utils::JsonFromFile(Json::Value& value, const std::string& path) try {
  if (path.empty()) return false;

  std::ifstream in(path);
  if (!in) {
    ZLOG(LOG_DEBUG, "Failed to open ifstream (%s), errno(%s)", path.c_str(), strerror(errno));
    return false;
  }
  errno = 0;  // a text that is no JSON sets none, and must not show an older one
  if (!ParseJson(in, value)) {
    ZLOG(LOG_DEBUG, "Some errors occurs when parseing input stream, path(%s), errno(%d)",
         path.c_str(), errno);
    return false;
  }
  return true;
} catch (const std::exception&) {  // no memory
  return false;
}

bool StoreJson(const std::string& path, const Json::Value& value, Durability durability) {
  if (WriteFileByJson(value, path, durability)) return true;
  ZLOG(LOG_DEBUG, "Failed to write Json data to file, path: %s", path.c_str());
  return false;
}

bool Utils::SetJsonAttrByPath(const char* path, const Json::Value& value) try {
  if (path != nullptr) return StoreJson(path, value, Durability::kSynced);
  ZLOG(LOG_DEBUG, "Failed to write Json data to file, path: %s", "(null)");
  return false;
} catch (const std::exception&) {  // no memory
  return false;
}

Json::Value Utils::GetJsonAttrByPath(const char* path) try {
  Json::Value value;
  if (path == nullptr || !JsonFromFile(value, path))
    ZLOG(LOG_DEBUG, "Failed to load Json data from file, path: %s",
         path != nullptr ? path : "(null)");
  return value;
} catch (const std::exception&) {  // no memory
  return Json::Value();
}

namespace {

// Sets a string member for each key that has a value.
void CopyMembers(const PLATSZHASH* hash, const PLATSZLIST* keys, Json::Value& value) {
  for (int i = 0; i < keys->count; ++i) {
    const char* key = PLATCSzListGet(keys, i);
    const char* text = key != nullptr ? PLATCSzHashGetValue(hash, key) : nullptr;
    if (text != nullptr) value[key] = text;
  }
}

}  // namespace

// Kept: true in every case; callers look at the members, and the log says what went wrong.
bool Utils::HashToJson(PLATSZHASH* hash, Json::Value& value) try {
  SzList keys = MakeSzList();
  if (!keys) {
    ZLOG(LOG_ERR, "PLATCSzListAlloc failed. [0x%04X %s:%d]", PLAT_ERR);
    return true;
  }
  if (PLATCSzHashEnumKey(hash, SzListRef(keys)) < 0) {
    ZLOG(LOG_ERR, "Failed to enum hash key");
    return true;
  }
  if (!CanHoldMembers(value)) {
    ZLOG_INVALID_ARG("value.isObject()");
    return true;
  }
  CopyMembers(hash, keys.get(), value);
  return true;
} catch (const std::exception&) {  // no memory: `value` holds the members set so far
  return true;
}

// ---- Times -------------------------------------------------------------------------------------

namespace {

// Local time without a zone, as in every status file: 2024.03.05-17.04.09
constexpr char kTimeFormat[] = "%Y.%m.%d-%H.%M.%S";

// The zone of a local time as snapshot names have it: "+08", or "+0530" when it has minutes.
void ZoneText(const struct tm& local, char (&zone)[255]) {
  zone[0] = '\0';
  strftime(zone, sizeof zone, "%z", &local);
  if (strlen(zone) == 5 && strcmp(zone + 3, "00") == 0) zone[3] = '\0';
}

// strftime with a format that is made at run time.
void FormatTime(char* buf, unsigned long size, const char* format, const struct tm& time) {
  // Kept: the result is not looked at. Callers give a buffer that is large enough, and a too small
  // one has always been theirs to notice.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  (void)strftime(buf, size, format, &time);
#pragma GCC diagnostic pop
}

}  // namespace

bool Utils::TimeStringToTime_T(const std::string& text, time_t& t) {
  struct tm broken = {};
  errno = EINVAL;  // strptime sets none
  if (strptime(text.c_str(), kTimeFormat, &broken) == nullptr) {
    PLAT_ERR_SET(kErrSystemCall);
    ZLOG(LOG_ERR, "Failed to convert cstring time [%s] to strcut tm, err=%s", text.c_str(),
         strerror(errno));
    return false;
  }
  broken.tm_isdst = -1;  // the text does not say; mktime knows the zone's rules
  const time_t seconds = mktime(&broken);
  if (seconds == -1) {
    PLAT_ERR_SET(kErrSystemCall);
    return false;
  }
  t = seconds;
  return true;
}

bool Utils::Time_tToTimeString(time_t t, std::string& text) try {
  tzset();  // localtime_r need not
  struct tm local;
  if (localtime_r(&t, &local) == nullptr) {
    PLAT_ERR_SET(kErrSystemCall);
    return false;
  }
  char buf[1024] = "";
  strftime(buf, sizeof buf, kTimeFormat, &local);
  text = buf;
  return true;
} catch (const std::exception&) {  // no memory
  PLAT_ERR_SET(kErrSystemCall);
  return false;
}

bool Utils::NowTimeStringGet(std::string& text) {
  const time_t now = time(nullptr);
  if (now == -1) {
    PLAT_ERR_SET(kErrSystemCall);
    return false;
  }
  return Time_tToTimeString(now, text);
}

int Utils::SnapNameGenerateByTime(char* buf, unsigned long size, long t, BOOL local) {
  if (buf == nullptr) {
    PLAT_ERR_SET(kErrInvalidArgument);
    return -1;
  }

  const time_t seconds = t;
  struct tm broken;
  if (local != 1) {
    if (gmtime_r(&seconds, &broken) == nullptr) {
      PLAT_ERR_SET(kErrSystemCall);
      return -1;
    }
    FormatTime(buf, size, "GMT-%Y.%m.%d-%H.%M.%S", broken);
    return 0;
  }

  tzset();
  if (localtime_r(&seconds, &broken) == nullptr) {
    PLAT_ERR_SET(kErrSystemCall);
    return -1;
  }
  char zone[255];
  ZoneText(broken, zone);
  char format[sizeof zone + 32];  // the zone and the rest of the format
  snprintf(format, sizeof format, "GMT%s-%%Y.%%m.%%d-%%H.%%M.%%S", zone);
  FormatTime(buf, size, format, broken);
  return 0;
}

// ---- Identifiers and processes -----------------------------------------------------------------

std::string Utils::PIDStringGet() {
  char text[16];
  snprintf(text, sizeof text, "%d", getpid());
  return text;
}

bool Utils::UUIDGen(std::string& uuid) try {
  FILE* pipe = PLATCPopen(kUuidgenProgram, "r");
  if (pipe == nullptr) {
    PLAT_ERR_SET(kErrSystemCall);
    return false;
  }
  char line[1024];
  if (fgets(line, sizeof line, pipe) == nullptr) {
    PLAT_ERR_SET(kErrSystemCall);
    (void)PLATCPclose(pipe);
    return false;
  }
  if (PLATCPclose(pipe) == -1) {
    PLAT_ERR_SET(kErrSystemCall);
    return false;
  }
  const bool trimmed = PLATCStrTrimSpace(line) >= 0;
  // Kept: closed twice, as the command runner does; the platform's close tolerates it.
  (void)PLATCPclose(pipe);
  if (trimmed) uuid = line;
  return trimmed;
} catch (const std::exception&) {  // no memory
  PLAT_ERR_SET(kErrSystemCall);
  return false;
}

int Utils::ProcessKill(int pid, int signal) {
  ZLOG(LOG_DEBUG, "kill PID (%d) with the signal (%d)", pid, signal);
  // -1 would be every process there is.
  if (pid == -1 || kill(pid, 0) != 0) return 0;
  if (kill(pid, signal) == 0) return 0;
  ZLOG(LOG_ERR, "Failed to kill PID (%d) with the signal (%d), errno (%s)", pid, signal,
       strerror(errno));
  return -1;
}

// ---- Shares and snapshots ----------------------------------------------------------------------

namespace {

constexpr unsigned int kErrRetryShareGet = 0x0400;
constexpr int kShareGetCalls = 15;
constexpr int kMaxPauseSeconds = 4;  // 15 pauses of it make the minute that callers may wait

constexpr int kVolumeKindBtrfs = 3;

struct ShareFree {
  void operator()(_tag_ZORVSHARE* share) const { ZORVShareFree(share); }
};
using SharePtr = std::unique_ptr<_tag_ZORVSHARE, ShareFree>;

struct SelectorsFree {
  void operator()(ZORVSHARESNAPSELECTOR* selectors) const { ZORVShareSnapEnumFree(selectors); }
};
using SelectorsPtr = std::unique_ptr<ZORVSHARESNAPSELECTOR, SelectorsFree>;

// The number of the btrfs volume that `path` lies on. False: none, with the platform error set.
bool VolumeOf(const char* path, int& volume) {
  if (path == nullptr) {
    PLAT_ERR_SET(kErrInvalidArgument);
    return false;
  }
  char volumePath[PATH_MAX];
  if (VolumePathParseEx(path, volumePath, sizeof volumePath) < 0) {
    ZLOG(LOG_ERR, "Fail to parse volume path from [%s][0x%04X %s:%d]", path, PLAT_ERR);
    PLAT_ERR_SET(kErrVolumePath);
    return false;
  }
  ZORVMOUNTVOLINFO info = {};
  if (ZORVMountVolInfoGet(volumePath, &info) < 0) {
    ZLOG(LOG_ERR, "Fail to get mount volume info of path [%s].[0x%04X %s:%d]", path, PLAT_ERR);
    return false;
  }
  if (info.volumeKind != kVolumeKindBtrfs) {
    PLAT_ERR_SET(kErrVolumeKind);
    return false;
  }
  volume = info.volumeNum;
  return true;
}

// Appends one time selector. False: not a string, or refused by the platform.
bool AddTimeSelector(SelectorsPtr& selectors, const Json::Value& element) {
  if (!element.isString()) {
    // A selector of another type is refused as the platform refuses a text that makes no sense.
    PLAT_ERR_SET(kErrInvalidArgument);
    ZLOG(LOG_ERR, "Failed to add selector (%s)[0x%04X %s:%d]", JsonLine(element).c_str(), PLAT_ERR);
    return false;
  }
  ZORVSHARESNAPSELECTOR* chain = selectors.release();
  const int added =
      ZORVShareSnapSelectorAdd(&chain, ZORVShareSnapTimeSelector, element.asCString());
  selectors.reset(chain);
  if (added < 0) {
    ZLOG(LOG_ERR, "Failed to add selector (%s)[0x%04X %s:%d]", element.asCString(), PLAT_ERR);
    return false;
  }
  return true;
}

// Appends a selector for each element of the filter's "time", if that is an array.
bool AddTimeSelectors(SelectorsPtr& selectors, const Json::Value& filter) {
  const Json::Value* times = JsonMember(filter, "time");
  if (times == nullptr || !times->isArray()) return true;
  for (const Json::Value& element : *times)
    if (!AddTimeSelector(selectors, element)) return false;
  return true;
}

// Pushes a path; logs a failure as from `site`.
bool PushPath(LogSite site, PLATSZLIST** list, const char* path) {
  if (PLATCSzListPush(list, path) >= 0) return true;
  ZLOG_AT(site, LOG_ERR, "Failed to push [%s] to the list[0x%04X %s:%d]", path, PLAT_ERR);
  return false;
}

bool IsList(PLATSZLIST** list) { return list != nullptr && *list != nullptr; }

}  // namespace

int Utils::ShareInfoGet(const char* shareName, struct _tag_ZORVSHARE** share) {
  if (shareName == nullptr || share == nullptr) {
    ZLOG(LOG_ERR, "Bad paramters for getting share info");
    return -1;
  }
  for (int attempt = 0; attempt < kShareGetCalls; ++attempt) {
    if (ZORVShareGet(shareName, share) >= 0) return 0;
    if (PLATCErrGet() != kErrRetryShareGet) {
      ZLOG(LOG_ERR, "ZORVShareGet failed. share (%s)[0x%04X %s:%d]", shareName, PLAT_ERR);
      return -1;
    }
    // Kept: silent until the third failure; the first two are everyday while a volume is busy.
    if (attempt > 1)
      ZLOG(LOG_DEBUG, "Failed to get the share (%s), re-try (%d)[0x%04X %s:%d]", shareName, attempt,
           PLAT_ERR);
    // At random, so that callers who failed together do not come back together.
    sleep(static_cast<unsigned int>(rand() % (kMaxPauseSeconds + 1)));
  }
  return -1;
}

int Utils::SameVolumeCheck(PLATSZLIST** ppListPath, int& volume) {
  if (ppListPath == nullptr) {
    ZLOG_INVALID_ARG("__null != ppListPath");
    return -1;
  }
  if (*ppListPath == nullptr) {
    PLAT_ERR_SET(kErrInvalidArgument);
    return -1;
  }
  int previous = -1;
  for (int i = 0; i < (*ppListPath)->count; ++i) {
    int current = -1;
    if (!VolumeOf(PLATCSzListGet(*ppListPath, i), current)) return -1;
    if (previous != -1 && current != previous) return 1;
    previous = current;
  }
  volume = previous;
  return 0;
}

int Utils::ShareSnapListGet(const std::string& shareName, PLATSZLIST** paths,
                            const Json::Value& filter) try {
  SharePtr share;
  SzList names = MakeSzList();
  if (!names) {
    ZLOG(LOG_ERR, "PLATCSzListAlloc failed. [0x%04X %s:%d]", PLAT_ERR);
    return -1;
  }
  _tag_ZORVSHARE* record = nullptr;
  if (ShareInfoGet(shareName.c_str(), &record) < 0) {
    ZLOG(LOG_ERR, "Failed to get share (%s)[0x%04X %s:%d]", shareName.c_str(), PLAT_ERR);
    return -1;
  }
  share.reset(record);

  SelectorsPtr selectors;
  if (!AddTimeSelectors(selectors, filter)) return -1;
  if (ZORVShareSnapList(share.get(), SzListRef(names), selectors.get()) < 0) {
    ZLOG(LOG_ERR, "Failed to list share(%s) snapshots [0x%04X %s:%d]", shareName.c_str(), PLAT_ERR);
    return -1;
  }
  char dir[4096];
  if (ZORVShareSnapGetOrCreateSnapDir(share.get(), dir, sizeof dir, 0) != 1) {
    ZLOG(LOG_ERR, "Failed to get snapshot directory, share: %s [0x%04X %s:%d]", shareName.c_str(),
         PLAT_ERR);
    return -1;
  }
  return PostfixPathAppend(dir, SzListRef(names), paths) ? 0 : -1;
} catch (const std::exception&) {  // no memory
  return -1;
}

bool Utils::PostfixPathAppend(const std::string& prefix, PLATSZLIST** names, PLATSZLIST** paths) {
  if (!IsList(names)) {
    ZLOG_INVALID_ARG("NULL != names");
    return false;
  }
  char path[4096];
  for (int i = 0; i < (*names)->count; ++i) {
    const char* name = PLATCSzListGet(*names, i);
    if (name == nullptr) return false;
    // A longer path is no path for the kernel either; cut as it is, opening it says so.
    (void)snprintf(path, sizeof path, "%s/%s", prefix.c_str(), name);
    if (!PushPath(ZLOG_HERE, paths, path)) return false;
  }
  return true;
}

// ---- Files by prefix ---------------------------------------------------------------------------

namespace {

struct DirClose {
  void operator()(DIR* dir) const { closedir(dir); }
};

bool BeginsWith(std::string_view name, std::string_view prefix) {
  return name.substr(0, prefix.size()) == prefix;
}

}  // namespace

bool Utils::SearchTaskFile(const std::string& prefix, const std::string& dir,
                           PLATSZLIST** files) try {
  const std::unique_ptr<DIR, DirClose> stream(opendir(dir.c_str()));
  if (!stream) return true;  // a missing directory holds no files

  for (;;) {
    errno = 0;  // a null of readdir is the end or a failure, and only errno tells which
    const dirent* entry = readdir(stream.get());
    if (entry == nullptr) break;
    // Kept: a plain prefix and the directory's own word on the type: "abc" finds "abcd.result", and
    // an entry of unknown type is left out. Task IDs are UUIDs, none of which begins another.
    if (entry->d_type != DT_REG || !BeginsWith(entry->d_name, prefix)) continue;
    if (!PushPath(ZLOG_HERE, files, (dir + "/" + entry->d_name).c_str())) return false;
  }
  if (errno == 0) return true;
  PLAT_ERR_SET(kErrSystemCall);
  return false;
} catch (const std::exception&) {  // no memory
  return false;
}

bool Utils::DeleteCandidateFile(PLATSZLIST** files) {
  if (!IsList(files)) {
    ZLOG_INVALID_ARG("NULL != files");
    return false;
  }
  for (int i = 0; i < (*files)->count; ++i) {
    const char* path = PLATCSzListGet(*files, i);
    if (path == nullptr) return false;
    if (unlink(path) == 0 || errno == ENOENT) continue;
    ZLOG(LOG_ERR, "Failed to unlink file (%s) err:(%s) ", path, strerror(errno));
    return false;
  }
  return true;
}

// ---- Reminder ----------------------------------------------------------------------------------

namespace {

constexpr char kReminderMember[] = "reminder";

// Sets the member in the record's file, keeping the others. A record of another shape (an array, a
// number) is not ours to throw away: false, and it stays.
bool StoreReminder(bool on) {
  Json::Value record = Utils::GetJsonAttrByPath(kReminderRecord);
  if (!CanHoldMembers(record)) {
    ZLOG_INVALID_ARG("record.isObject()");
    return false;
  }
  record[kReminderMember] = on;
  return Utils::SetJsonAttrByPath(kReminderRecord, record);
}

}  // namespace

bool Utils::ReminderStatusSet(bool on) try {
  if (!EnsureDirs(ZLOG_HERE, {kPersistentDir, kLockDir})) return false;
  const ScopedFileLock lock(ZLOG_HERE, kReminderLock, ScopedFileLock::kExclusive);
  return lock.Held() && StoreReminder(on);
} catch (const std::exception&) {  // no memory
  return false;
}

bool Utils::ReminderStatusGet(bool& on) try {
  if (!EnsureDirs(ZLOG_HERE, {kLockDir})) return false;
  const ScopedFileLock lock(ZLOG_HERE, kReminderLock, ScopedFileLock::kShared);
  if (!lock.Held()) return false;
  const Json::Value record = GetJsonAttrByPath(kReminderRecord);
  const Json::Value* reminder = JsonMember(record, kReminderMember);
  return reminder != nullptr && JsonBool(*reminder, on);
} catch (const std::exception&) {  // no memory
  return false;
}

}  // namespace ZorvBtrfsUsage
