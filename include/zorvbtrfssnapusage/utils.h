// Static helpers that all classes of the library share: file locks, atomic JSON files, time texts,
// task IDs, processes, share and snapshot queries, the reminder flag.
#ifndef ZORVBTRFSSNAPUSAGE_UTILS_H_
#define ZORVBTRFSSNAPUSAGE_UTILS_H_

#include <dirent.h>
#include <json/value.h>
#include <time.h>
#include <zorvplatform/platc.h>
#include <zorvplatform/share.h>

#include <string>

#include "zorvbtrfssnapusage/export.h"

namespace ZorvBtrfsUsage {

// Helpers without state. All of them log their own failures to syslog; none throws.
class ZORV_EXPORT Utils {
 public:
  // ---- File locks ------------------------------------------------------------------------------

  // Opens the lock file `path` (made with 0644 when missing) and waits for a record lock over the
  // whole of it: a write lock when `exclusive`, else a read lock.
  // True: `fd` holds the lock until GeneralFileUnlock. False: no lock; `fd` is -1 or an open
  // descriptor that GeneralFileUnlock closes. `fd` must start as -1.
  // The lock belongs to the process: closing any descriptor of the file drops it.
  static bool GeneralFileLock(const std::string& path, bool exclusive, int& fd);

  // Drops the lock that `fd` holds and closes it; -1 is nothing to do. The caller resets its copy.
  // False: the unlock failed for an unexpected reason (`fd` is closed all the same).
  static bool GeneralFileUnlock(int fd);

  // Opens a directory (as a stream that is stored in `dirstream`) or a regular file (read-write).
  // Returns its descriptor, or -1 with errno: EINVAL for anything else. Null arguments: -1 and the
  // platform error 0x0D00. Close both with FileOrDirClose.
  static int FileOrDirOpen(const char* fname, DIR** dirstream);

  // Closes `dirstream` with its descriptor when it is not null, else `fd` when it is not negative.
  static void FileOrDirClose(int fd, DIR* dirstream);

  // ---- JSON files ------------------------------------------------------------------------------

  // Replaces the file at `path` by the one-line text of `value` in one step (temporary file beside
  // it, then rename). A new file is 0600; a replaced one keeps owner and group and becomes 0644.
  // False: the file is what it was (empty path, full disk, ...). Refused is also what could not be
  // read back: a key or string that is not UTF-8, more than 999 levels of nesting, infinity.
  static bool JsonToFile(const Json::Value& value, const std::string& path);

  // Parses the file at `path` into `value`. False: not opened, or not JSON; then `value` holds what
  // the reader left in it.
  static bool JsonFromFile(Json::Value& value, const std::string& path);

  // JsonToFile with a log line on failure; false for a null path.
  static bool SetJsonAttrByPath(const char* path, const Json::Value& value);

  // What JsonFromFile read; a null value for a missing file or a null path.
  static Json::Value GetJsonAttrByPath(const char* path);

  // Sets a string member of `value` (an object, or null) for each key of `hash` that has a value.
  // Always true; failures are logged, and `value` then lacks members.
  static bool HashToJson(PLATSZHASH* hash, Json::Value& value);

  // ---- Time, identifiers, processes ------------------------------------------------------------

  // Time text (local, "%Y.%m.%d-%H.%M.%S", see strptime(3)) to seconds since the epoch.
  // False: not such a text, or no such time; platform error 0x2A00; `t` as it was.
  static bool TimeStringToTime_T(const std::string& text, time_t& t);

  // Seconds since the epoch to time text. False: platform error 0x2A00; `text` as it was.
  static bool Time_tToTimeString(time_t t, std::string& text);

  // The time text of now. False: platform error 0x2A00; `text` as it was.
  static bool NowTimeStringGet(std::string& text);

  // The calling process's ID in decimal.
  static std::string PIDStringGet();

  // A new UUID (36 characters) from /usr/bin/uuidgen. False: platform error 0x2A00, or no trim.
  static bool UUIDGen(std::string& uuid);

  // The snapshot name of time `t` into `buf` of `size` bytes: "GMT+08-2024.03.05-17.04.09" when
  // `local` is 1, "GMT-2024.03.05-09.04.09" (UTC) otherwise. 0, or -1 (null `buf`: 0x0D00; time not
  // representable: 0x2A00). A `size` too small is not reported.
  static int SnapNameGenerateByTime(char* buf, unsigned long size, long t, BOOL local);

  // Sends `signal` to `pid`, 0 and below -1 being process groups (kill(2)). 0: sent, or nobody
  // there who may be signalled (also for pid -1); -1: not sent.
  static int ProcessKill(int pid, int signal);

  // ---- Shares and snapshots --------------------------------------------------------------------

  // The platform's record of a share, to be freed with ZORVShareFree. 0, or -1.
  // A passing failure (platform error 0x0400) is tried up to 15 times, with a pause of 0 to 4
  // seconds after each; so it may take a minute.
  static int ShareInfoGet(const char* shareName, struct _tag_ZORVSHARE** share);

  // Whether all paths lie on one btrfs volume. 0: `volume` is its number (-1 for an empty list);
  // 1: on different ones; -1: error (platform error 0x0D00, 0xBE00 or 0xD900). `volume` is written
  // only on 0.
  static int SameVolumeCheck(PLATSZLIST** ppListPath, int& volume);

  // Appends the full paths of a share's snapshots to `paths`, in the platform's order. `filter` may
  // hold "time", an array of selector strings that must all match; anything else is no filter.
  // 0, or -1: no such share, a selector that is no text or makes no sense, or a failed listing.
  static int ShareSnapListGet(const std::string& shareName, PLATSZLIST** paths,
                              const Json::Value& filter);

  // Appends `prefix` + "/" + name for each name to `paths`, cut to 4095 bytes. False: a push
  // failed.
  static bool PostfixPathAppend(const std::string& prefix, PLATSZLIST** names, PLATSZLIST** paths);

  // Appends the paths of regular files in `dir` whose names begin with `prefix` to `files`.
  // A directory that cannot be opened holds none. False: a push failed.
  static bool SearchTaskFile(const std::string& prefix, const std::string& dir, PLATSZLIST** files);

  // Unlinks each path; one that is gone is skipped. False at the first failure, later paths stay.
  static bool DeleteCandidateFile(PLATSZLIST** files);

  // ---- Reminder --------------------------------------------------------------------------------

  // Stores the system-wide reminder flag, keeping other members of the record. True: the record
  // holds `on`. False: no directory, lock or write, or a record that is no JSON object, which
  // stays.
  static bool ReminderStatusSet(bool on);

  // Reads the reminder flag; a number that is not 0 is true, null is false. False: never set, not
  // readable, or of another type; then `on` is as it was.
  static bool ReminderStatusGet(bool& on);
};

}  // namespace ZorvBtrfsUsage

#endif  // ZORVBTRFSSNAPUSAGE_UTILS_H_
