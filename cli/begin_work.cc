#include "cli/begin_work.h"

#include <unistd.h>

#include "cli/failure.h"
#include "cli/names.h"
#include "cli/plain_files.h"
#include "cli/roots.h"
#include "cli/share.h"

namespace ZorvSnapUsage {
namespace {

// Volumes and records need it.
void RequireRoot() {
  if (geteuid() == 0) return;
  throw Failure(kNotRoot, "this needs root", "run it with sudo");
}

}  // namespace

void BeginWork() {
  RequireRoot();
  RequireSafeRoots();
  RequirePlainCommonFiles();
}

void BeginWorkOn(const std::string& share) {
  BeginWork();
  if (!CanBeShareName(share)) RefuseUnknownShare(share);
  RequirePlainFilesOfShare(share);
}

}  // namespace ZorvSnapUsage
