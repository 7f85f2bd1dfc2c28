// What forking a task needs to know about the streams of commands.
#ifndef PLATFORM_LINUX_PROCESS_H
#define PLATFORM_LINUX_PROCESS_H

namespace ZorvPlatform {

// Held from before a fork until after it in both processes, so that the child finds the register of
// open streams whole, whatever other threads of the caller were doing.
void LockStreams();
void UnlockStreams();

// In a forked child: shuts the pipes of the parent's streams and forgets the streams.  `devNull` is
// an open descriptor of /dev/null.  False: errno says why.
bool DisownStreams(int devNull);

}  // namespace ZorvPlatform

#endif
