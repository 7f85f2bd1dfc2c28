// A process that is no calculation's, more or less like one, and knows whether it was signalled.
#ifndef TESTS_CLI_STRANGER_H_
#define TESTS_CLI_STRANGER_H_

#include <sys/types.h>

namespace ZorvTest {

// What it has in common with a calculation's process.
struct Likeness {
  bool root = true;
  bool startedByRoot = true;
  bool library = true;
  bool session = true;
  bool nullInput = true;
  bool nullOutput = true;
  bool stopBlocked = true;
  bool stopCaught = false;
};

// Waits for its end, which comes with the object's.
class Stranger {
 public:
  explicit Stranger(const Likeness& likeness);
  ~Stranger();
  Stranger(const Stranger&) = delete;
  Stranger& operator=(const Stranger&) = delete;

  pid_t Pid() const { return pid_; }

  // Whether a SIGTERM, or a worse signal, has come: it has died of it, or holds it back.
  bool WasSignalled();

 private:
  pid_t pid_ = -1;
  bool ended_ = false;
};

}  // namespace ZorvTest

#endif  // TESTS_CLI_STRANGER_H_
