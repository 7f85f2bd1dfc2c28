// status.h: the outcome of every engine function that can fail.
#ifndef ENGINE_ONDISK_STATUS_H_
#define ENGINE_ONDISK_STATUS_H_

#include <string>
#include <utility>

namespace ZorvEngine {

// Success, or why not.  The text is one sentence for the user; no function that returns a Status
// prints anything.
class Status {
 public:
  enum Kind {
    kOk,
    kBadBlock,   // no copy of a block verifies: reused by a later commit, or damaged
    kNoDevice,   // a block lies only on devices that are not known to be there
    kUnsettled,  // no exact numbers of this state can be told; those of a later one can
    kOverLimit,  // there is more to do than a limit allows that the caller has set
    kFailed,     // anything else; trying again from a newer superblock does not help
  };

  Status() = default;
  static Status BadBlock(std::string text) { return Status(kBadBlock, std::move(text)); }
  static Status NoDevice(std::string text) { return Status(kNoDevice, std::move(text)); }
  static Status Unsettled(std::string text) { return Status(kUnsettled, std::move(text)); }
  static Status OverLimit(std::string text) { return Status(kOverLimit, std::move(text)); }
  static Status Failed(std::string text) { return Status(kFailed, std::move(text)); }

  bool Ok() const { return kind_ == kOk; }
  Kind GetKind() const { return kind_; }
  const std::string& Text() const { return text_; }

 private:
  Status(Kind kind, std::string text) : kind_(kind), text_(std::move(text)) {}

  Kind kind_ = kOk;
  std::string text_;
};

}  // namespace ZorvEngine

// Leaves the enclosing function with the failure of `expression`, if it failed.  The expression may
// be a call with a function in its arguments that uses this too: each has a variable of its own.
#define ENGINE_TRY(expression) ENGINE_TRY_NUMBERED(expression, __COUNTER__)
#define ENGINE_TRY_NUMBERED(expression, number) ENGINE_TRY_AS(expression, number)
#define ENGINE_TRY_AS(expression, number)                              \
  do {                                                                 \
    ::ZorvEngine::Status engineTryStatus##number = (expression);       \
    if (!engineTryStatus##number.Ok()) return engineTryStatus##number; \
  } while (0)

#endif  // ENGINE_ONDISK_STATUS_H_
