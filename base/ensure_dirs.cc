#include "base/ensure_dirs.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include "base/durable.h"

namespace ZorvBtrfsUsage {

bool EnsureDirs(LogSite site, std::initializer_list<std::string> dirs) {
  for (const std::string& dir : dirs) {
    if (PLATCFileCheckDir(dir.c_str()) == 1) continue;
    if (mkdir(dir.c_str(), 0777) == 0) {
      if (IsPersistent(dir))
        (void)SyncDirectoryOf(dir);  // what is put into it outlives a power cut
      continue;
    }
    if (errno == EEXIST) continue;  // another process was faster
    ZLOG_AT(site, LOG_ERR, "Faild to mkdir %s, err:(%s).[0x%04X %s:%d]", dir.c_str(),
            strerror(errno), PLAT_ERR);
    return false;
  }
  return true;
}

}  // namespace ZorvBtrfsUsage
