// newest_state_run.h: runs a method on the newest committed state, and again when it was overtaken.
#ifndef ENGINE_SIZE_NEWEST_STATE_RUN_H_
#define ENGINE_SIZE_NEWEST_STATE_RUN_H_

#include <functional>
#include <string>
#include <vector>

#include "engine/io/state_source.h"
#include "engine/size/exclusive_size.h"
#include "engine/size/file_report.h"
#include "engine/size/holder_report.h"

namespace ZorvEngine {

// The outcome of a run: exact for one point in time.
struct SizeResult {
  uint64_t generation = 0;
  SizeTable table;
  FileReport files;             // when files were asked about
  HolderReport holders;         // when a path was
  bool deletionGoesOn = false;  // another subvolume was being deleted at that time
};

// Receives one sentence for the user that is no failure.
using NoteSink = std::function<void(const std::string&)>;

// How often in a row it may be the same block.  What newer states still have was not free for reuse
// at all, but a method may have another way that does not need it.
constexpr int kMostOfOneBlock = 5;

// Has `source` commit, reads its newest state and runs `method` on it.  A block that does not
// verify is a reused one when a newer superblock is there by then: the run begins again from that
// one, as long as its Patience lasts; blocks that are cached and what the method has kept need not
// be read again.  Without a newer superblock, or when newer ones still have it, the block is
// damaged and the run fails, naming it.  A device that is missing is one that was just added when
// it is there at a second look.  A state of which the method cannot tell exact numbers is waited
// out, for as long as the request says.  Damage that other copies have made good is said when the
// run succeeds: once, with the place of the first bad copy and how many there are.
Status RunOnNewestState(StateSource& source, ExclusiveSizeMethod& method,
                        const SizeRequest& request, SizeProgress& progress, const NoteSink& note,
                        SizeResult* out);

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_NEWEST_STATE_RUN_H_
