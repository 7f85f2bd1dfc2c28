// io_priority.h: who else waits for the disk goes first.
#ifndef ENGINE_IO_IO_PRIORITY_H_
#define ENGINE_IO_IO_PRIORITY_H_

namespace ZorvEngine {

// Puts the calling thread, and the threads that it starts from then on, into the idle I/O class.
// Nothing happens where the kernel has no such thing: reading goes on as before, only less politely.
void ReadWhenIdle();

}  // namespace ZorvEngine

#endif  // ENGINE_IO_IO_PRIORITY_H_
