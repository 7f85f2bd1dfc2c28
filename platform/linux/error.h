// The calling thread's error record, for the platform's own use.
#ifndef PLATFORM_LINUX_ERROR_H
#define PLATFORM_LINUX_ERROR_H

#include <string>

namespace ZorvPlatform {

// Where a failure was noticed.  The unit is declared by each file as `kUnit`, not cut from a path.
struct Site {
  const char* unit;
  unsigned int line;
};

#define PLATFORM_HERE (::ZorvPlatform::Site{kUnit, __LINE__})

// Sets the record, leaves errno alone, and is -1: `return Fail(PLATFORM_HERE, code);`
int Fail(Site site, unsigned int code);

// The same, with words for a person.
int FailSaying(Site site, unsigned int code, const std::string& text);

// Whether asking again may help: EAGAIN, EBUSY, EINTR.
bool ForTheMoment(int error);

// The code for what the system refused with this errno value: to be asked again, or not.
unsigned int CodeOfRefusal(int error);

// Out of memory: the record says system call, errno ENOMEM.
int FailNoMemory(Site site);

}  // namespace ZorvPlatform

#endif
