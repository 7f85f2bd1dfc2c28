// The standard streams, whatever the caller has made of them.
#ifndef CLI_STANDARD_STREAMS_H_
#define CLI_STANDARD_STREAMS_H_

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace ZorvSnapUsage {

// Makes sure that no file opened later takes the place of a standard stream that the caller closed:
// what is printed would be written into it. Writing to such a standard output fails, as it would
// have; what is said on such a standard error is lost. False: there is no /dev/null.
inline bool HoldStandardStreams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) >= 0) continue;
    if (open("/dev/null", fd == STDERR_FILENO ? O_WRONLY : O_RDONLY) != fd) return false;
  }
  return true;
}

// Prints to standard output. What cannot be written is noticed at the end of the program (see
// fflush in main).
inline void ToStandardOutput(const std::string& text) {
  (void)fwrite(text.data(), 1, text.size(), stdout);
}

// Takes what is said on standard error, in a process whose own leads nowhere; none: it is said
// there.
inline std::function<void(const std::string&)> gListener;

// Says something on standard error. What cannot be written there is lost, and nothing else: a full
// disk under a log is no reason to leave a calculation alone.
inline void ToStandardError(const std::string& text) {
  if (gListener) return gListener(text);
  (void)fwrite(text.data(), 1, text.size(), stderr);
  (void)fflush(stderr);
}

// Says one line on standard error, as the program.
inline void Say(const std::string& text) { ToStandardError("zorv-snapusage: " + text + "\n"); }

// Says what the user should know, although nothing is wrong.
inline void Note(const std::string& text) { Say("note: " + text); }

}  // namespace ZorvSnapUsage

#endif  // CLI_STANDARD_STREAMS_H_
