#include "engine/size/cross_check.h"

#include <string>

namespace ZorvEngine {

Status CrossCheck::Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
                       std::vector<ExclusiveSize>* out) {
  std::vector<ExclusiveSize> sizes;
  ENGINE_TRY(first_.Run(trees, request, progress, &sizes));
  std::vector<ExclusiveSize> again;
  SizeProgress unseen;
  ENGINE_TRY(second_.Run(trees, request, unseen, &again));

  for (size_t i = 0; i < sizes.size(); ++i)
    if (sizes[i].dataBytes != again[i].dataBytes ||
        sizes[i].metadataBytes != again[i].metadataBytes)
      return Status::Failed("two ways of counting disagree on subvolume " +
                            std::to_string(sizes[i].id) +
                            "; run btrfs check, and report this when it finds nothing");
  *out = std::move(sizes);
  return Status();
}

}  // namespace ZorvEngine
