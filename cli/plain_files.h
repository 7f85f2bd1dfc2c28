// What stands in place of the files that the library is about to touch.
//
// The library follows links and waits at named pipes. Where root alone can write, as the roots are
// by then, what is found here stays what it is until root changes it.
#ifndef CLI_PLAIN_FILES_H_
#define CLI_PLAIN_FILES_H_

#include <sys/types.h>

#include <optional>
#include <string>

namespace ZorvSnapUsage {

// Each gives up with kUnsafeRoots, naming the path, when anything but a plain file stands at one of
// the places: a link, a named pipe, a directory, a device, a socket, a file with further names, one
// that is not root's or that others can write. Nothing there is right.

// The file at `path`. False: nothing is there.
bool RequirePlainFile(const std::string& path);

// The files of all shares: the map, the reminder, their locks.
void RequirePlainCommonFiles();

// The files of a share: its status, its locks, its result directory and everything in it.
void RequirePlainFilesOfShare(const std::string& share);

// Everything in a directory.
void RequirePlainFilesIn(const std::string& directory);

// A lock that somebody holds.
struct HeldLock {
  std::string path;
  pid_t holder;  // no process number: it cannot be told
};

// A lock of all shares or of this one that the library would have to wait for, at the moment.
std::optional<HeldLock> HeldLockOf(const std::string& share);

// The files of a task: its status, its results, their locks.
void RequirePlainFilesOfTask(const std::string& taskID);

}  // namespace ZorvSnapUsage

#endif  // CLI_PLAIN_FILES_H_
