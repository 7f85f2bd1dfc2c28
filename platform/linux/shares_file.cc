#include "platform/linux/shares_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/unique_fd.h"
#include "platform/linux/error.h"
#include "platform/linux/read_file.h"
#include "platform/linux/shares_text.h"
#include "zorvplatform/platc.h"

namespace ZorvPlatform {

namespace {

constexpr char kUnit[] = "platform/shares_file";

constexpr size_t kMostBytes = 1 << 20;

// Who can write the file says which directories root looks into.  0, or -1 with the error record
// set.
int RequireRoots(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0) return Fail(PLATFORM_HERE, PLATC_ERR_SYSTEM_CALL);
  if (S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0) return 0;
  return FailSaying(PLATFORM_HERE, PLATC_ERR_CONFIGURATION,
                    std::string(kSharesFile) + " is not a file that root alone can write");
}

}  // namespace

int ReadSharesFile(Configured* configured, SourceSwitches* switches) {
  const UniqueFd fd(open(kSharesFile, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd.Valid() && errno == ENOENT) return 0;
  std::string text, why;
  if (fd.Valid() && RequireRoots(fd.Get()) < 0) return -1;
  if (!fd.Valid() || !ReadToEnd(fd.Get(), kMostBytes, &text)) {
    return FailSaying(PLATFORM_HERE, CodeOfRefusal(errno),
                      std::string(kSharesFile) + " cannot be read: " + strerror(errno));
  }
  if (ParseShares(text, configured, switches, &why)) return 0;
  return FailSaying(PLATFORM_HERE, PLATC_ERR_CONFIGURATION, std::string(kSharesFile) + ":" + why);
}

}  // namespace ZorvPlatform
