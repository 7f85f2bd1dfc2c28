// state_look.h: looks at the newest committed state without counting.
#ifndef ENGINE_SIZE_STATE_LOOK_H_
#define ENGINE_SIZE_STATE_LOOK_H_

#include <functional>
#include <utility>

#include "engine/size/newest_state_run.h"

namespace ZorvEngine {

// Gives the trees of the newest state to a function; again from a newer one when a block of it has
// been reused meanwhile.
class StateLook : private ExclusiveSizeMethod {
 public:
  // Called for each attempt; what an earlier one found is void then.
  using Look = std::function<Status(CommittedTrees& trees)>;

  explicit StateLook(Look look) : look_(std::move(look)) {}

  // As RunOnNewestState; sentences that are no failure go to `note`.
  Status AtNewest(StateSource& source, SizeProgress& progress, const NoteSink& note) {
    SizeResult nothing;
    return RunOnNewestState(source, *this, {}, progress, note, &nothing);
  }

 private:
  Status Run(CommittedTrees& trees, const SizeRequest&, SizeProgress&, SizeTable*) override {
    return look_(trees);
  }

  Look look_;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_STATE_LOOK_H_
