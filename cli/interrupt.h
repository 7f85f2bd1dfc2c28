// Ctrl-C and SIGTERM while a calculation is followed.
#ifndef CLI_INTERRUPT_H_
#define CLI_INTERRUPT_H_

#include <signal.h>

#include <string>

namespace ZorvSnapUsage {

// While it stands, a first SIGINT or SIGTERM is only noted; a second one ends the program at once
// with kLeftAtOnce. One at a time.
class Interrupt {
 public:
  Interrupt();
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  // Whether the first one has come.
  static bool Asked();

  // What a second one says on a line of its own; one that is too long for that is not said.
  static void SetLastWords(const std::string& line);

  // Gives up with kLeftAtOnce when it has come; for work that changes nothing.
  static void RequireNone();

 private:
  struct sigaction savedInt_;
  struct sigaction savedTerm_;
};

// Holds SIGINT, SIGTERM and SIGHUP back: what is done meanwhile is done as a whole.
class HeldSignals {
 public:
  HeldSignals();
  ~HeldSignals();
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;

 private:
  sigset_t saved_;
};

}  // namespace ZorvSnapUsage

#endif  // CLI_INTERRUPT_H_
