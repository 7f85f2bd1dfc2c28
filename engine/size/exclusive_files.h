// exclusive_files.h: counts, and finds the files behind what one subvolume holds alone.
#ifndef ENGINE_SIZE_EXCLUSIVE_FILES_H_
#define ENGINE_SIZE_EXCLUSIVE_FILES_H_

#include "engine/size/exclusive_size.h"
#include "engine/size/file_report.h"

namespace ZorvEngine {

// Has another method count, on the same state, and sees which extents and tree blocks it finds.
// Then reads those blocks once more, from the subvolume's root down, for the files that refer to
// these extents: who else refers to one would hold it too, so that all references stand there.
// Names come from the tree itself, shared blocks included.
//
// Fails when the files' bytes do not add up to what was counted.
class ExclusiveFiles : public ExclusiveSizeMethod {
 public:
  // The other method is the caller's and outlives the object.
  ExclusiveFiles(ExclusiveSizeMethod& count, const FileListing& listing)
      : count_(count), listing_(listing) {}

  // The request is about one subvolume.
  Status Run(CommittedTrees& trees, const SizeRequest& request, SizeProgress& progress,
             SizeTable* out) override;

  // What the last run found that succeeded.
  const FileReport& Report() const { return report_; }

 private:
  ExclusiveSizeMethod& count_;
  const FileListing listing_;
  FileReport report_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_EXCLUSIVE_FILES_H_
