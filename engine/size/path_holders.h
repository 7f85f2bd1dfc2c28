// path_holders.h: counts, and finds out who keeps the bytes of a file's versions.
#ifndef ENGINE_SIZE_PATH_HOLDERS_H_
#define ENGINE_SIZE_PATH_HOLDERS_H_

#include <string>

#include "engine/size/exclusive_size.h"
#include "engine/size/holder_report.h"

namespace ZorvEngine {

// Looks at the path in each asked subvolume, has another method count on the same state, and sees
// who holds the data extents that these versions refer to, under whatever name.  What is not
// counted is held by somebody outside as well.
class PathHolders : public ExclusiveSizeMethod {
 public:
  // The other method is the caller's and outlives the object.
  PathHolders(ExclusiveSizeMethod& count, const std::string& path) : count_(count), path_(path) {}

  // The request counts what several hold.  Fails when its memory for sets does not do.
  Status Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
             SizeTable* out) override;

  // What the last run found that succeeded.
  const HolderReport& Report() const { return report_; }

 private:
  ExclusiveSizeMethod& count_;
  const std::string path_;
  HolderReport report_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_PATH_HOLDERS_H_
