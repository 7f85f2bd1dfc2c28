// Keeps exceptions inside the C interface: the only one that the platform can meet is lack of
// memory.
#ifndef PLATFORM_LINUX_NO_THROW_H
#define PLATFORM_LINUX_NO_THROW_H

#include <new>
#include <stdexcept>

#include "platform/linux/error.h"

namespace ZorvPlatform {

// Runs `body` and gives its result, or `failure` with the error record set when memory ran out.
template <typename Body, typename Result>
Result NoThrow(Site site, Result failure, Body body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
  } catch (const std::length_error&) {
  }
  (void)FailNoMemory(site);
  return failure;
}

}  // namespace ZorvPlatform

#endif
