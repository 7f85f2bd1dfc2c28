#include "cli/interrupt.h"

#include <unistd.h>

#include "cli/exit_status.h"
#include "cli/failure.h"

namespace ZorvSnapUsage {
namespace {

volatile sig_atomic_t gAsked = 0;

// What the handler writes: it may do no more. The size is set last.
char gLastWords[1024];
volatile sig_atomic_t gLastWordsSize = 0;

void Note(int) {
  if (gAsked == 0) {
    gAsked = 1;
    return;
  }
  // Ends a progress line that stands unfinished on a terminal.
  (void)!write(STDERR_FILENO, "\n", 1);
  (void)!write(STDERR_FILENO, gLastWords, static_cast<size_t>(gLastWordsSize));
  _exit(kLeftAtOnce);
}

}  // namespace

Interrupt::Interrupt() {
  gAsked = 0;
  gLastWordsSize = 0;
  struct sigaction action {};
  action.sa_handler = Note;
  sigemptyset(&action.sa_mask);
  sigaddset(&action.sa_mask, SIGINT);
  sigaddset(&action.sa_mask, SIGTERM);
  (void)sigaction(SIGINT, &action, &savedInt_);
  (void)sigaction(SIGTERM, &action, &savedTerm_);
}

Interrupt::~Interrupt() {
  (void)sigaction(SIGINT, &savedInt_, nullptr);
  (void)sigaction(SIGTERM, &savedTerm_, nullptr);
}

bool Interrupt::Asked() { return gAsked != 0; }

void Interrupt::SetLastWords(const std::string& line) {
  const std::string text = "zorv-snapusage: " + line + "\n";
  gLastWordsSize = 0;
  if (text.size() > sizeof gLastWords) return;
  text.copy(gLastWords, text.size());
  gLastWordsSize = static_cast<sig_atomic_t>(text.size());
}

void Interrupt::RequireNone() {
  if (Asked()) throw Failure(kLeftAtOnce, "interrupted", "nothing was changed");
}

HeldSignals::HeldSignals() {
  sigset_t held;
  sigemptyset(&held);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&held, signal);
  (void)sigprocmask(SIG_BLOCK, &held, &saved_);
}

HeldSignals::~HeldSignals() { (void)sigprocmask(SIG_SETMASK, &saved_, nullptr); }

}  // namespace ZorvSnapUsage
