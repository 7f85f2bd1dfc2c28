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
  char text[1024];
};

thread_local Record gRecord;

// Puts as much of the text as fits into the field.
template <size_t size>
void Put(const char* text, char (&field)[size]) {
  const size_t length = strnlen(text, size - 1);
  memmove(field, text, length);  // callers may hand the record's own text back
  field[length] = '\0';
}

void Set(unsigned int code, const char* file, unsigned int line, const char* text) {
  const int savedErrno = errno;  // the first use of a thread's record may allocate it
  Record& record = gRecord;
  record.code = code;
  record.line = line;
  Put(file != nullptr ? file : "", record.file);
  Put(text, record.text);
  errno = savedErrno;
}

}  // namespace

namespace ZorvPlatform {

int Fail(Site site, unsigned int code) {
  Set(code, site.unit, site.line, "");
  return -1;
}

int FailSaying(Site site, unsigned int code, const std::string& text) {
  Set(code, site.unit, site.line, text.c_str());
  return -1;
}

bool ForTheMoment(int error) { return error == EAGAIN || error == EBUSY || error == EINTR; }

unsigned int CodeOfRefusal(int error) {
  return ForTheMoment(error) ? PLATC_ERR_RETRY : PLATC_ERR_SYSTEM_CALL;
}

int FailNoMemory(Site site) {
  errno = ENOMEM;
  return Fail(site, PLATC_ERR_SYSTEM_CALL);
}

}  // namespace ZorvPlatform

void PLATCErrSetEx(unsigned int code, const char* file, unsigned int line) {
  Set(code, file, line, "");
}

unsigned int PLATCErrGet(void) { return gRecord.code; }

const char* PLATCErrorGetFile(void) { return gRecord.file; }

unsigned int PLATCErrorGetLine(void) { return gRecord.line; }

const char* PLATCErrorGetText(void) { return gRecord.text; }
