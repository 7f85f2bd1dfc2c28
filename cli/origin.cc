#include "cli/origin.h"

#include <optional>

#include "cli/failure.h"
#include "cli/share_place.h"
#include "cli/table_cache.h"

namespace ZorvSnapUsage {

void RememberOrigin(const std::string& share, const std::string& taskID) {
  const std::optional<FileSystemState> state = StateOfShare(share);
  if (!state) return;
  try {
    KeepOrigin(share, taskID, state->id);
  } catch (const Failure&) {
    return;
  }
}

}  // namespace ZorvSnapUsage
