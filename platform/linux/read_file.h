// Reading files to their end: the whole content, or an error.
#ifndef PLATFORM_LINUX_READ_FILE_H
#define PLATFORM_LINUX_READ_FILE_H

#include <cstddef>
#include <string>

namespace ZorvPlatform {

// What is left to read of an open file.  False: errno says why, EFBIG: it is more than `most`.
bool ReadToEnd(int fd, size_t most, std::string* text);

// The content of the regular file `name` of the directory `at` (AT_FDCWD: a path), which is opened
// with further `flags`.  False: errno says why, EINVAL: it is no regular file.
bool ReadRegularFile(int at, const char* name, int flags, size_t most, std::string* text);

}  // namespace ZorvPlatform

#endif
