// What it takes for a file to outlive a power cut. Nothing here logs.
#ifndef BASE_DURABLE_H_
#define BASE_DURABLE_H_

#include <string>

namespace ZorvBtrfsUsage {

// What a power cut may do to a file that is replaced whole.
enum class Durability {
  kSynced,   // nothing, once the replacement has returned
  kOrdered,  // bring an earlier file back, but always a whole one
};

// Whether `path` is the persistent directory or lies below it. Elsewhere (/run) all goes with the
// power, and nothing is worth waiting for.
bool IsPersistent(const std::string& path);

// Brings the bytes of the file `name`, which is about to take another's place, as near to the disk
// as `durability` needs: kOrdered waits for a flush of the disk unless less is known to help (ext4).
// False with errno: the disk refused them.
bool BringToDisk(const char* name, Durability durability);

// Brings the directory that holds `path` to the disk: what was last made, renamed or removed there
// stays so. False with errno.
bool SyncDirectoryOf(const std::string& path);

}  // namespace ZorvBtrfsUsage

#endif  // BASE_DURABLE_H_
