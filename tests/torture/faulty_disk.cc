#include "tests/torture/faulty_disk.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fuse.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <stdexcept>
#include <thread>

#include "base/unique_fd.h"
#include "tests/support/btrfs_ioctls.h"
#include "tests/support/command.h"

namespace ZorvTest {
namespace {

constexpr size_t kMostFaults = 32;
constexpr size_t kThreads = 8;
constexpr size_t kMostTransfer = 128 << 10;

}  // namespace

// Memory of the test and its server.
struct FaultyDisk::Shared {
  struct Entry {
    uint64_t begin, size;
    DiskFault::Kind kind;
    uint32_t detail;
    std::atomic<unsigned> hits;
    uint8_t other[DiskFault::kMostBytes];
  };

  // A moment in which nobody else looks at the faults or changes them.
  class Alone {
   public:
    explicit Alone(Shared& shared) : shared_(shared) { (void)pthread_mutex_lock(&shared.mutex); }
    ~Alone() { (void)pthread_mutex_unlock(&shared_.mutex); }

   private:
    Shared& shared_;
  };

  Shared() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
  }

  pthread_mutex_t mutex;
  size_t count = 0;
  std::atomic<unsigned> clearings{0};
  Entry entries[kMostFaults];
};

namespace {

// Answers the kernel's requests for one file, whose number is that of the root.
template <typename Shared>
class Server {
 public:
  Server(UniqueFd connection, UniqueFd image, Shared& shared)
      : connection_(std::move(connection)), image_(std::move(image)), shared_(shared) {}

  // Returns when the connection has ended.
  void Run() {
    std::vector<std::thread> others;
    if (!AnswerOne()) return;  // the first is that for the protocol's version
    for (size_t n = 1; n < kThreads; ++n) others.emplace_back([this] { AnswerAll(); });
    AnswerAll();
    for (std::thread& other : others) other.join();
  }

 private:
  void AnswerAll() {
    while (AnswerOne()) {
    }
  }

  // False: there will be no more requests.
  bool AnswerOne() {
    std::vector<uint8_t> request(kMostTransfer + 4096);
    const ssize_t got = read(connection_.Get(), request.data(), request.size());
    if (got < 0) return errno == EINTR || errno == ENOENT || errno == EAGAIN;
    const auto* header = reinterpret_cast<const fuse_in_header*>(request.data());
    Answer(*header, request.data() + sizeof(fuse_in_header));
    return true;
  }

  void Answer(const fuse_in_header& header, const uint8_t* body) {
    switch (header.opcode) {
      case FUSE_INIT:
        return Give(header, Begin(*As<fuse_init_in>(body)));
      case FUSE_GETATTR:
        return Give(header, Attributes());
      case FUSE_SETATTR:
        return Give(header, Attributes());
      case FUSE_OPEN: {
        fuse_open_out out = {};
        out.open_flags = FOPEN_DIRECT_IO;  // each read comes here, none is kept by the kernel
        return Give(header, out);
      }
      case FUSE_READ:
        return Read(header, *As<fuse_read_in>(body));
      case FUSE_WRITE:
        return Write(header, *As<fuse_write_in>(body), body + sizeof(fuse_write_in));
      case FUSE_FALLOCATE: {
        const auto* in = As<fuse_fallocate_in>(body);
        const int done = fallocate(image_.Get(), static_cast<int>(in->mode),
                                   static_cast<off_t>(in->offset), static_cast<off_t>(in->length));
        return Reply(header, done == 0 ? 0 : -errno, nullptr, 0);
      }
      case FUSE_FSYNC:
        return Reply(header, fsync(image_.Get()) == 0 ? 0 : -errno, nullptr, 0);
      case FUSE_FLUSH:
      case FUSE_RELEASE:
      case FUSE_ACCESS:
        return Reply(header, 0, nullptr, 0);
      case FUSE_STATFS:
        return Give(header, fuse_statfs_out{});
      case FUSE_FORGET:
      case FUSE_BATCH_FORGET:
      case FUSE_INTERRUPT:
        return;  // no answer is wanted
      default:
        return Reply(header, -ENOSYS, nullptr, 0);
    }
  }

  template <typename T>
  static const T* As(const uint8_t* body) {
    return reinterpret_cast<const T*>(body);
  }

  static fuse_init_out Begin(const fuse_init_in& in) {
    fuse_init_out out = {};
    out.major = FUSE_KERNEL_VERSION;
    out.minor = std::min<uint32_t>(in.minor, FUSE_KERNEL_MINOR_VERSION);
    out.max_readahead = in.max_readahead;
    out.flags = in.flags & (FUSE_BIG_WRITES | FUSE_ASYNC_READ | FUSE_MAX_PAGES);
    out.max_background = 64;
    out.congestion_threshold = 48;
    out.max_write = kMostTransfer;
    out.max_pages = kMostTransfer / 4096;
    out.time_gran = 1;
    return out;
  }

  fuse_attr_out Attributes() const {
    struct stat status = {};
    (void)fstat(image_.Get(), &status);
    fuse_attr_out out = {};
    out.attr.ino = FUSE_ROOT_ID;
    out.attr.size = static_cast<uint64_t>(status.st_size);
    out.attr.blocks = static_cast<uint64_t>(status.st_blocks);
    out.attr.mode = S_IFREG | 0600;
    out.attr.nlink = 1;
    out.attr.blksize = 4096;
    return out;
  }

  void Read(const fuse_in_header& header, const fuse_read_in& in) {
    std::vector<uint8_t> bytes(in.size);
    const ssize_t got = pread(image_.Get(), bytes.data(), in.size, static_cast<off_t>(in.offset));
    if (got < 0) return Reply(header, -errno, nullptr, 0);
    bytes.resize(static_cast<size_t>(got));
    const int failed = Spoil(in.offset, &bytes);
    Reply(header, failed, bytes.data(), failed == 0 ? bytes.size() : 0);
  }

  // Does to what has been read what the faults say; the error that the read ends with, or 0.
  int Spoil(uint64_t offset, std::vector<uint8_t>* bytes) {
    const uint64_t end = offset + bytes->size();
    unsigned clearings = 0;
    uint32_t delay = 0;
    int failed = 0;
    {
      const typename Shared::Alone alone(shared_);
      clearings = shared_.clearings;
      for (size_t n = 0; n < shared_.count; ++n) {
        auto& fault = shared_.entries[n];
        if (fault.begin >= end || fault.begin + fault.size <= offset) continue;
        const unsigned hit = ++fault.hits;
        if (fault.kind == DiskFault::kError) failed = -EIO;
        if (fault.kind == DiskFault::kDelay) delay = std::max(delay, fault.detail);
        if (fault.kind == DiskFault::kShort)
          bytes->resize(std::min<uint64_t>(bytes->size(), std::max(fault.begin, offset) - offset));
        else
          Change(fault, hit, offset, bytes);
      }
    }
    for (uint32_t waited = 0; waited < delay && shared_.clearings == clearings; waited += 5)
      usleep(5000);
    return failed;
  }

  static void Change(const typename Shared::Entry& fault, unsigned hit, uint64_t offset,
                     std::vector<uint8_t>* bytes) {
    for (size_t i = 0; i < bytes->size(); ++i) {
      const uint64_t place = offset + i;
      if (place < fault.begin || place >= fault.begin + fault.size) continue;
      const uint64_t within = place - fault.begin;
      uint8_t& byte = (*bytes)[i];
      const bool takesOther = fault.kind == DiskFault::kOther ||
                              (fault.kind == DiskFault::kTorn && within >= fault.size / 2) ||
                              (fault.kind == DiskFault::kFlicker && hit % 2 == 1);
      if (takesOther) byte = fault.other[within];
      if (fault.kind == DiskFault::kFlip && within == fault.detail / 8)
        byte ^= static_cast<uint8_t>(1u << fault.detail % 8);
    }
  }

  void Write(const fuse_in_header& header, const fuse_write_in& in, const uint8_t* bytes) {
    const ssize_t got = pwrite(image_.Get(), bytes, in.size, static_cast<off_t>(in.offset));
    if (got < 0) return Reply(header, -errno, nullptr, 0);
    fuse_write_out out = {};
    out.size = static_cast<uint32_t>(got);
    Give(header, out);
  }

  template <typename T>
  void Give(const fuse_in_header& header, const T& out) {
    Reply(header, 0, &out, sizeof out);
  }

  void Reply(const fuse_in_header& request, int error, const void* bytes, size_t size) {
    fuse_out_header header = {};
    header.len = static_cast<uint32_t>(sizeof header + size);
    header.error = error;
    header.unique = request.unique;
    const iovec parts[] = {{&header, sizeof header}, {const_cast<void*>(bytes), size}};
    (void)!writev(connection_.Get(), parts, size == 0 ? 1 : 2);
  }

  UniqueFd connection_;
  UniqueFd image_;
  Shared& shared_;
};

}  // namespace

FaultyDisk::FaultyDisk(const std::string& image, const std::string& place)
    : image_(image), place_(place) {
  shared_ =
      new (mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
          Shared;
  WriteFile(place_, "");
  UniqueFd connection = Open("/dev/fuse", O_RDWR);
  UniqueFd content = Open(image_, O_RDWR);
  const std::string options = "fd=" + std::to_string(connection.Get()) +
                              ",rootmode=100600,user_id=0,group_id=0,allow_other";
  if (mount("faulty", place_.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()) != 0)
    throw std::runtime_error("cannot serve " + place_ + ": " + strerror(errno));
  const pid_t test = getpid();
  server_ = fork();
  if (server_ != 0) return;  // the test's own end closes: with the server the connection ends
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != test) _exit(1);
  Server<Shared>(std::move(connection), std::move(content), *shared_).Run();
  _exit(0);
}

FaultyDisk::~FaultyDisk() {
  Clear();
  (void)umount2(place_.c_str(), MNT_DETACH);
  (void)kill(server_, SIGKILL);
  (void)WaitForExit(server_);
  (void)unlink(place_.c_str());
  (void)munmap(shared_, sizeof(Shared));
}

size_t FaultyDisk::Add(const DiskFault& fault) {
  const Shared::Alone alone(*shared_);
  if (shared_->count == kMostFaults || fault.other.size() > DiskFault::kMostBytes)
    throw std::runtime_error("too many faults");
  Shared::Entry& entry = shared_->entries[shared_->count];
  entry.begin = fault.begin;
  entry.size = fault.size;
  entry.kind = fault.kind;
  entry.detail = fault.detail;
  entry.hits = 0;
  std::copy(fault.other.begin(), fault.other.end(), entry.other);
  return shared_->count++;
}

unsigned FaultyDisk::Hits(size_t fault) const { return shared_->entries[fault].hits; }

void FaultyDisk::Clear() {
  const Shared::Alone alone(*shared_);
  shared_->count = 0;
  ++shared_->clearings;
}

}  // namespace ZorvTest
