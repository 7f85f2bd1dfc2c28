// Starting programs, and commands on pipes: PLATCPopen, PLATCPopenv, PLATCPclose.
#include "platform/linux/process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/error.h"
#include "platform/linux/no_throw.h"
#include "platform/linux/signals.h"
#include "zorvplatform/platc.h"

namespace {

using namespace ZorvPlatform;

constexpr char kUnit[] = "platform/process";

constexpr char kBlanks[] = " \t";

// What a shell would not take literally.  There is no shell here, so a command that counts on one
// is refused instead of being run with odd arguments.
constexpr char kShellCharacters[] = "|&;<>()$`\\\"'*?[]{}#~!\n\r";

struct FileCloser {
  void operator()(FILE* stream) const {
    const int saved = errno;
    (void)fclose(stream);
    errno = saved;
  }
};
using Stream = std::unique_ptr<FILE, FileCloser>;

struct OpenStream {
  FILE* stream;
  pid_t child;
};

// The streams that are open here, and the address of the last one that was closed.  Never
// destroyed: streams may still be closed while the process ends.
struct Register {
  std::mutex mutex;
  std::vector<OpenStream> open;
  uintptr_t lastClosed = 0;
};

Register& Streams() {
  static Register* streams = new Register;
  return *streams;
}

bool ValidMode(const char* mode) { return strcmp(mode, "r") == 0 || strcmp(mode, "rB") == 0; }

// A stream on the descriptor, at another address than `avoided`: the stream closed last may be
// closed once more, and must not then hit this one.
Stream OpenAway(UniqueFd fd, uintptr_t avoided) {
  Stream stream(fdopen(fd.Get(), "r"));
  if (stream == nullptr) return nullptr;
  (void)fd.Release();
  if (reinterpret_cast<uintptr_t>(stream.get()) != avoided) return stream;

  // As long as the first one is there, the second cannot have its address.
  UniqueFd copy(fcntl(fileno(stream.get()), F_DUPFD_CLOEXEC, 0));
  if (!copy.Valid()) return nullptr;
  Stream other(fdopen(copy.Get(), "r"));
  if (other != nullptr) (void)copy.Release();
  return other;
}

// In the child: the pipe, /dev/null, standard error, and nothing else once the program runs.
// Standard output comes first: in a caller without standard input the pipe may be descriptor 0.
bool SetDescriptors(const Start& start) {
  if (!PlaceDescriptor(start.output, STDOUT_FILENO)) return false;
  const int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (devNull < 0 || !PlaceDescriptor(devNull, STDIN_FILENO)) return false;
  if (!start.errorsShown && !PlaceDescriptor(devNull, STDERR_FILENO)) return false;
  return close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) == 0;
}

// In the child: every signal at its default and let in.  The two that the C library keeps for
// itself refuse, and are at their default anyway.
bool SetSignals() {
  struct sigaction byDefault = {};
  byDefault.sa_handler = SIG_DFL;
  for (int signal = 1; signal <= SIGRTMAX; ++signal) (void)sigaction(signal, &byDefault, nullptr);
  sigset_t none;
  (void)sigemptyset(&none);
  return sigprocmask(SIG_SETMASK, &none, nullptr) == 0;
}

// In the child: becomes the program, or sends an errno value through `status`.  Only calls that are
// safe after the fork of a process with threads.
[[noreturn]] void BecomeProgram(const Start& start, int status) {
  if (SetDescriptors(start) && SetSignals())
    (void)execve(start.path, start.argv, start.environment);
  const int error = errno;
  while (write(status, &error, sizeof error) < 0 && errno == EINTR) {
  }
  _exit(127);
}

// What the child sent: an errno value, or 0 when the exec has closed the pipe.
int ReadStatus(int status) {
  int error = 0;
  ssize_t got;
  do {
    got = read(status, &error, sizeof error);
  } while (got < 0 && errno == EINTR);
  return got == static_cast<ssize_t>(sizeof error) ? error : 0;
}

FILE* PipeFailure(Site site) {
  (void)Fail(site, PLATC_ERR_PIPE);
  return nullptr;
}

// The stream comes before the process, so that nothing that can fail is left once the program runs.
FILE* Open(const char* path, char* const argv[]) {
  Register& streams = Streams();
  const std::lock_guard<std::mutex> lock(streams.mutex);
  streams.open.reserve(streams.open.size() + 1);

  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return PipeFailure(PLATFORM_HERE);
  UniqueFd readEnd(ends[0]);
  const UniqueFd writeEnd(ends[1]);

  Stream stream = OpenAway(std::move(readEnd), streams.lastClosed);
  if (stream == nullptr) return PipeFailure(PLATFORM_HERE);

  const pid_t child = Spawn({path, argv, environ, writeEnd.Get(), /*errorsShown=*/true});
  if (child < 0) return PipeFailure(PLATFORM_HERE);
  streams.open.push_back({stream.get(), child});
  return stream.release();
}

std::vector<std::string> SplitAtBlanks(const char* command) {
  std::vector<std::string> words;
  for (const char* rest = command + strspn(command, kBlanks); *rest != '\0';) {
    const size_t length = strcspn(rest, kBlanks);
    words.emplace_back(rest, length);
    rest += length;
    rest += strspn(rest, kBlanks);
  }
  return words;
}

FILE* OpenCommand(const char* command) {
  std::vector<std::string> words = SplitAtBlanks(command);
  if (words.empty()) {
    (void)Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
    return nullptr;
  }
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  return Open(argv[0], argv.data());
}

// Takes the stream out of the register.  Its child, or -1: not open here.
pid_t Unregister(FILE* stream) {
  Register& streams = Streams();
  const std::lock_guard<std::mutex> lock(streams.mutex);
  const auto found = std::find_if(streams.open.begin(), streams.open.end(),
                                  [stream](const OpenStream& o) { return o.stream == stream; });
  if (found == streams.open.end()) return -1;
  const pid_t child = found->child;
  streams.open.erase(found);
  streams.lastClosed = reinterpret_cast<uintptr_t>(stream);
  return child;
}

}  // namespace

namespace ZorvPlatform {

int AwaitChild(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return 0;
  }
  return status;
}

pid_t Spawn(const Start& start) {
  UniqueFd readEnd;
  UniqueFd writeEnd;
  if (!MakeReportPipe(&readEnd, &writeEnd)) return -1;

  const sigset_t callers = BlockSignals();
  const pid_t child = fork();
  if (child == 0) BecomeProgram(start, writeEnd.Get());
  RestoreSignals(callers);
  if (child < 0) return -1;

  writeEnd.Reset();
  const int error = ReadStatus(readEnd.Get());
  if (error == 0) return child;
  (void)AwaitChild(child);
  errno = error;
  return -1;
}

void LockStreams() { Streams().mutex.lock(); }

void UnlockStreams() { Streams().mutex.unlock(); }

// The streams themselves stay allocated, and their descriptors taken by /dev/null: the child must
// get no new stream at an old address, and the C library still looks at them when the child exits.
bool DisownStreams(int devNull) {
  Register& streams = Streams();
  for (const OpenStream& open : streams.open) {
    if (dup3(devNull, fileno(open.stream), O_CLOEXEC) < 0) return false;
  }
  streams.open.clear();
  return true;
}

}  // namespace ZorvPlatform

FILE* PLATCPopen(const char* command, const char* mode) {
  if (command == nullptr || mode == nullptr || !ValidMode(mode) ||
      strpbrk(command, kShellCharacters) != nullptr) {
    (void)Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
    return nullptr;
  }
  return NoThrow(PLATFORM_HERE, static_cast<FILE*>(nullptr), [&] { return OpenCommand(command); });
}

FILE* PLATCPopenv(const char* path, const char* mode, char* const argv[]) {
  if (path == nullptr || mode == nullptr || !ValidMode(mode) || argv == nullptr ||
      argv[0] == nullptr) {
    (void)Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
    return nullptr;
  }
  return NoThrow(PLATFORM_HERE, static_cast<FILE*>(nullptr), [&] { return Open(path, argv); });
}

int PLATCPclose(FILE* stream) {
  if (stream == nullptr) return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  const pid_t child = Unregister(stream);
  if (child < 0) return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);

  (void)fclose(stream);
  return AwaitChild(child);
}
