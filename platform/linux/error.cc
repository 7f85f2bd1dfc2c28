// The error record: one for each thread, kept in fixed memory so that setting it cannot fail.
#include "platform/linux/error.h"

#include <cerrno>
#include <cstring>

#include "zorvplatform/platc.h"

namespace {

struct Record {
  unsigned int code;
  unsigned int line;
  char file[256];
};

thread_local Record gRecord;

void Set(unsigned int code, const char* file, unsigned int line) {
  const int savedErrno = errno;  // the first use of a thread's record may allocate it
  Record& record = gRecord;
  record.code = code;
  record.line = line;
  const char* text = file != nullptr ? file : "";
  const size_t length = strnlen(text, sizeof record.file - 1);
  memmove(record.file, text, length);  // callers may hand the record's own text back
  record.file[length] = '\0';
  errno = savedErrno;
}

}  // namespace

namespace ZorvPlatform {

int Fail(Site site, unsigned int code) {
  Set(code, site.unit, site.line);
  return -1;
}

int FailNoMemory(Site site) {
  errno = ENOMEM;
  return Fail(site, PLATC_ERR_SYSTEM_CALL);
}

}  // namespace ZorvPlatform

void PLATCErrSetEx(unsigned int code, const char* file, unsigned int line) {
  Set(code, file, line);
}

unsigned int PLATCErrGet(void) { return gRecord.code; }

const char* PLATCErrorGetFile(void) { return gRecord.file; }

unsigned int PLATCErrorGetLine(void) { return gRecord.line; }
