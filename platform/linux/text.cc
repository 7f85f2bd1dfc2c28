// Trimming.
#include <cstring>

#include "platform/linux/error.h"
#include "zorvplatform/platc.h"

namespace {

constexpr char kUnit[] = "platform/text";

// The white space of the C locale, whatever the caller's locale is: a byte of a multi-byte
// character must never be taken for a blank.
constexpr char kSpaces[] = " \t\n\v\f\r";

}  // namespace

int PLATCStrTrimSpace(char* text) {
  if (text == nullptr) {
    return ::ZorvPlatform::Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  const char* first = text + strspn(text, kSpaces);
  size_t length = strlen(first);
  while (length > 0 && strchr(kSpaces, first[length - 1]) != nullptr) --length;
  memmove(text, first, length);
  text[length] = '\0';
  return 0;
}
