// Starting programs, and what forking a task needs to know about the streams of commands.
#ifndef PLATFORM_LINUX_PROCESS_H
#define PLATFORM_LINUX_PROCESS_H

#include <sys/types.h>

namespace ZorvPlatform {

// What a program is started with.  Standard input is /dev/null, every signal let in and at its
// default.
struct Start {
  const char* path;
  char* const* argv;
  char* const* environment;
  int output;        // becomes standard output
  bool errorsShown;  // standard error is the caller's, else /dev/null
};

// Starts the program.  Its pid, or -1 with errno: also when the exec failed, and then no process is
// left behind.
pid_t Spawn(const Start& start);

// Waits for a child, also when signals arrive meanwhile.  Its wait status; 0 when somebody else has
// had it, because the caller ignores or reaps SIGCHLD.
int AwaitChild(pid_t child);

// Held from before a fork until after it in both processes, so that the child finds the register of
// open streams whole, whatever other threads of the caller were doing.
void LockStreams();
void UnlockStreams();

// In a forked child: shuts the pipes of the parent's streams and forgets the streams.  `devNull` is
// an open descriptor of /dev/null.  False: errno says why.
bool DisownStreams(int devNull);

}  // namespace ZorvPlatform

#endif
