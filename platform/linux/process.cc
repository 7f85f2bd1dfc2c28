// Commands on pipes: PLATCPopen, PLATCPopenv, PLATCPclose.
#include "platform/linux/process.h"

#include <fcntl.h>
#include <spawn.h>
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
#include "platform/linux/error.h"
#include "platform/linux/no_throw.h"
#include "zorvplatform/platc.h"

namespace {

using namespace ZorvPlatform;

constexpr char kUnit[] = "platform/process";

constexpr char kBlanks[] = " \t";

// What a shell would not take literally.  There is no shell here, so a command that counts on one
// is refused instead of being run with odd arguments.
constexpr char kShellCharacters[] = "|&;<>()$`\\\"'*?[]{}#~!\n\r";

struct FileCloser {
  void operator()(FILE* stream) const { (void)fclose(stream); }
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

// The descriptors of the program: the pipe, /dev/null, the caller's standard error, nothing else.
class FileActions {
 public:
  FileActions() : error_(posix_spawn_file_actions_init(&actions_)) {}
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  ~FileActions() { (void)posix_spawn_file_actions_destroy(&actions_); }

  // Standard output comes first: in a caller without standard input the pipe may be descriptor 0.
  int Fill(int output) {
    if (error_ == 0) error_ = posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
    if (error_ == 0) {
      error_ = posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    if (error_ == 0) {
      error_ = posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    }
    return error_;
  }

  const posix_spawn_file_actions_t* Get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
  int error_;
};

// The signals of the program: nothing blocked, nothing ignored.
class SpawnAttributes {
 public:
  SpawnAttributes() : error_(posix_spawnattr_init(&attributes_)) {}
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  ~SpawnAttributes() { (void)posix_spawnattr_destroy(&attributes_); }

  int Fill() {
    sigset_t none;
    sigset_t all;
    (void)sigemptyset(&none);
    (void)sigfillset(&all);
    if (error_ == 0) error_ = posix_spawnattr_setsigmask(&attributes_, &none);
    if (error_ == 0) error_ = posix_spawnattr_setsigdefault(&attributes_, &all);
    if (error_ == 0) {
      error_ =
          posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    return error_;
  }

  const posix_spawnattr_t* Get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
  int error_;
};

// Starts the program with `output` as its standard output.  0, or an errno value; posix_spawn
// reports a failed exec as well (posix_spawn(3)), and leaves no process behind then.
int Spawn(const char* path, char* const argv[], int output, pid_t* child) {
  FileActions actions;
  int error = actions.Fill(output);
  if (error != 0) return error;

  SpawnAttributes attributes;
  error = attributes.Fill();
  if (error != 0) return error;

  return posix_spawn(child, path, actions.Get(), attributes.Get(), argv, environ);
}

FILE* PipeFailure(Site site, int error) {
  errno = error;
  (void)Fail(site, PLATC_ERR_PIPE);
  return nullptr;
}

// The stream comes before the process, so that nothing that can fail is left once the program runs.
FILE* Open(const char* path, char* const argv[]) {
  Register& streams = Streams();
  const std::lock_guard<std::mutex> lock(streams.mutex);
  streams.open.reserve(streams.open.size() + 1);

  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return PipeFailure(PLATFORM_HERE, errno);
  UniqueFd readEnd(ends[0]);
  const UniqueFd writeEnd(ends[1]);

  Stream stream = OpenAway(std::move(readEnd), streams.lastClosed);
  if (stream == nullptr) return PipeFailure(PLATFORM_HERE, errno);

  pid_t child = -1;
  const int error = Spawn(path, argv, writeEnd.Get(), &child);
  if (error != 0) {
    stream.reset();
    return PipeFailure(PLATFORM_HERE, error);
  }
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
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    // ECHILD: somebody else has had the status.
    if (errno != EINTR) return 0;
  }
  return status;
}
