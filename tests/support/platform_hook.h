// Replaces one function of the platform interface, or of the C library, in a test program.
//
// The test program defines each hookable function itself (platform_hook.cc); the libraries' calls
// come to that definition, which goes on to the real one as long as no hook stands:
//
//   PlatformHook<decltype(ZORVShareGet)> get("ZORVShareGet");   // all else stays real
//   get.AlwaysFails(0x0400);
//   ...
//   EXPECT_EQ(15, get.Calls());
#ifndef TESTS_SUPPORT_PLATFORM_HOOK_H_
#define TESTS_SUPPORT_PLATFORM_HOOK_H_

#include <errno.h>
#include <zorvplatform/platc.h>
#include <zorvplatform/share.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace ZorvTest {

// Where the hook of one function stands; null when there is none.
struct HookSlot {
  void* hook = nullptr;
};

// The slot of a hookable function; throws for a name that platform_hook.cc does not know.
HookSlot& SlotOf(const std::string& name);

// The function behind the hook: the next definition after the test program's.
void* RealFunction(const std::string& name);

template <typename Signature>
class PlatformHook;

template <typename R, typename... A>
class PlatformHook<R(A...)> {
  using Result = std::conditional_t<std::is_void_v<R>, int, R>;

 public:
  // Counts calls and lets them through until told otherwise.
  explicit PlatformHook(const std::string& name)
      : slot_(SlotOf(name)), real_(reinterpret_cast<R (*)(A...)>(RealFunction(name))) {
    if (slot_.hook != nullptr) throw std::logic_error("hooked twice: " + name);
    replacement_ = real_;
    slot_.hook = this;
  }
  ~PlatformHook() { slot_.hook = nullptr; }
  PlatformHook(const PlatformHook&) = delete;
  PlatformHook& operator=(const PlatformHook&) = delete;

  // Calls go to `replacement`.
  void Replace(std::function<R(A...)> replacement) { replacement_ = std::move(replacement); }

  // Every call fails: -1, null, or what `failure` says, with this platform error and this errno
  // (0: left alone).
  void AlwaysFails(unsigned int platformError = 0, int error = 0, Result failure = Failure()) {
    FailsOnCall(0, platformError, error, failure);
  }

  // Call number `call` fails (1 is the first), all others are real; 0: every call.
  void FailsOnCall(int call, unsigned int platformError = 0, int error = 0,
                   Result failure = Failure()) {
    replacement_ = [=, this](A... args) -> R {
      if (call != 0 && calls_ != call) return real_(args...);
      if (platformError != 0) PLATCErrSetEx(platformError, "tests/hook", 1);
      if (error != 0) errno = error;
      if constexpr (!std::is_void_v<R>) return failure;
    };
  }

  R Real(A... args) { return real_(args...); }

  int Calls() const { return calls_; }

  R Called(A... args) {
    ++calls_;
    return replacement_(args...);
  }

 private:
  static Result Failure() {
    if constexpr (std::is_pointer_v<Result>)
      return nullptr;
    else
      return static_cast<Result>(-1);
  }

  HookSlot& slot_;
  R (*real_)(A...);
  std::function<R(A...)> replacement_;
  int calls_ = 0;
};

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_PLATFORM_HOOK_H_
