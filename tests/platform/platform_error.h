// The error record in tests of the platform.
#ifndef TESTS_PLATFORM_PLATFORM_ERROR_H
#define TESTS_PLATFORM_PLATFORM_ERROR_H

#include <errno.h>
#include <gtest/gtest.h>
#include <zorvplatform/platc.h>

#include <string>
#include <vector>

namespace ZorvTest {

// Clears record and errno, so that what is there afterwards came from the call under test.
inline void ClearError() {
  PLATCErrSetEx(0, "", 0);
  errno = 0;
}

// Whether the record holds `code`, set by a unit of the platform at a line of it.
inline testing::AssertionResult FailedWith(unsigned int code) {
  const std::string unit = PLATCErrorGetFile();
  if (PLATCErrGet() == code && unit.rfind("platform/", 0) == 0 && PLATCErrorGetLine() > 0) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << std::hex << "0x" << PLATCErrGet() << std::dec << " of "
                                     << unit << ":" << PLATCErrorGetLine() << ", errno " << errno;
}

inline std::vector<std::string> Texts(const PLATSZLIST* list) {
  return {list->items, list->items + list->count};
}

}  // namespace ZorvTest

#endif
