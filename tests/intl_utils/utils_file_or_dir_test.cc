// FileOrDirOpen and FileOrDirClose: files and directories as one descriptor.
#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "tests/intl_utils/utils_fixture.h"
#include "tests/support/platform_hook.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::Utils;

namespace {

class UtilsFileOrDirOpen : public UtilsTest {
 protected:
  DIR* stream = nullptr;
};

class UtilsFileOrDirClose : public UtilsFileOrDirOpen {};

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

void MakeSocket(const std::string& path) {
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    throw std::runtime_error("cannot bind " + path);
}

// Runs `body` in a child that can open no further descriptor.
int WithoutDescriptors(const std::function<int()>& body) {
  return InChild([&] {
    const UniqueFd next(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const rlimit limit = {static_cast<rlim_t>(next.Get()), static_cast<rlim_t>(next.Get())};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 99;
    return body();
  });
}

}  // namespace

TEST_F(UtilsFileOrDirOpen, NullNameIsInvalid) {
  EXPECT_EQ(-1, Utils::FileOrDirOpen(nullptr, &stream));
  EXPECT_EQ(1, Logged(LOG_ERR, "Invaild Argument (__null != fname)=[0]\n")) << log.Dump();
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_STREQ(kUtilsUnit, PLATCErrorGetFile());
}

TEST_F(UtilsFileOrDirOpen, NullStreamPointerIsInvalid) {
  EXPECT_EQ(-1, Utils::FileOrDirOpen(kWorkDir, nullptr));
  EXPECT_EQ(1, Logged(LOG_ERR, "Invaild Argument (NULL != dirstream)=[0]\n")) << log.Dump();
  EXPECT_EQ(0x0D00u, PLATCErrGet());
}

TEST_F(UtilsFileOrDirOpen, TheNameIsLookedAtFirst) {
  EXPECT_EQ(-1, Utils::FileOrDirOpen(nullptr, nullptr));
  EXPECT_EQ(1, Logged(LOG_ERR, "Invaild Argument (__null != fname)=[0]\n"));
  EXPECT_EQ(1u, log.Lines().size()) << log.Dump();
}

TEST_F(UtilsFileOrDirOpen, MissingPathFails) {
  EXPECT_EQ(-1, Utils::FileOrDirOpen(At("missing").c_str(), &stream));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(nullptr, stream);
}

TEST_F(UtilsFileOrDirOpen, ADirectoryIsAStreamAndItsDescriptor) {
  WriteFile(At("dir/entry"), "");
  const int fd = Utils::FileOrDirOpen(At("dir").c_str(), &stream);
  ASSERT_GE(fd, 0);
  ASSERT_NE(nullptr, stream);
  EXPECT_EQ(fd, dirfd(stream));
  bool found = false;
  while (const dirent* entry = readdir(stream))
    found = found || entry->d_name == std::string("entry");
  EXPECT_TRUE(found);
  Utils::FileOrDirClose(fd, stream);
}

TEST_F(UtilsFileOrDirOpen, ARegularFileIsOpenedReadWrite) {
  WriteFile(At("file"), "x");
  stream = reinterpret_cast<DIR*>(this);  // what a caller left there is no stream of this file's
  const int fd = Utils::FileOrDirOpen(At("file").c_str(), &stream);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(nullptr, stream);
  EXPECT_EQ(O_RDWR, fcntl(fd, F_GETFL) & O_ACCMODE);
  Utils::FileOrDirClose(fd, stream);
}

TEST_F(UtilsFileOrDirOpen, LinksAreFollowed) {
  std::filesystem::create_directory(At("dir"));
  std::filesystem::create_directory_symlink("dir", At("link"));
  const int fd = Utils::FileOrDirOpen(At("link").c_str(), &stream);
  EXPECT_GE(fd, 0);
  EXPECT_NE(nullptr, stream);
  Utils::FileOrDirClose(fd, stream);
}

TEST_F(UtilsFileOrDirOpen, ACharacterDeviceIsRefused) {
  EXPECT_EQ(-1, Utils::FileOrDirOpen("/dev/null", &stream));
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(UtilsFileOrDirOpen, AFifoIsRefused) {
  ASSERT_EQ(0, mkfifo(At("fifo").c_str(), 0600));
  EXPECT_EQ(-1, Utils::FileOrDirOpen(At("fifo").c_str(), &stream));
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(UtilsFileOrDirOpen, ASocketIsRefused) {
  MakeSocket(At("socket"));
  EXPECT_EQ(-1, Utils::FileOrDirOpen(At("socket").c_str(), &stream));
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(UtilsFileOrDirOpen, ADirectoryThatCannotBeOpenedFails) {
  EXPECT_EQ(0, WithoutDescriptors([] {
              DIR* none = nullptr;
              const int fd = Utils::FileOrDirOpen(kWorkDir, &none);
              return fd == -1 && errno == EMFILE && none == nullptr ? 0 : 1;
            }));
}

TEST_F(UtilsFileOrDirOpen, AFileThatCannotBeOpenedFails) {
  const std::string path = At("file");
  WriteFile(path, "x");
  EXPECT_EQ(0, WithoutDescriptors([&] {
              DIR* none = nullptr;
              const int fd = Utils::FileOrDirOpen(path.c_str(), &none);
              return fd == -1 && errno == EMFILE ? 0 : 1;
            }));
}

TEST_F(UtilsFileOrDirOpen, AStreamWithoutDescriptorIsClosedAgain) {
  int opened = -1;
  {
    PlatformHook<int(DIR*)> hook("dirfd");
    hook.Replace([&](DIR* dir) {
      opened = hook.Real(dir);
      return -1;
    });
    EXPECT_EQ(-1, Utils::FileOrDirOpen(kWorkDir, &stream));
  }
  EXPECT_EQ(nullptr, stream);
  EXPECT_GE(opened, 0);
  EXPECT_FALSE(IsOpen(opened));
}

TEST_F(UtilsFileOrDirClose, AStreamTakesItsDescriptorWithIt) {
  const int fd = Utils::FileOrDirOpen(kWorkDir, &stream);
  ASSERT_GE(fd, 0);
  Utils::FileOrDirClose(fd, stream);
  EXPECT_FALSE(IsOpen(fd));
}

TEST_F(UtilsFileOrDirClose, WithAStreamTheDescriptorIsNotClosedByItself) {
  ASSERT_GE(Utils::FileOrDirOpen(kWorkDir, &stream), 0);
  const UniqueFd other(open("/dev/null", O_RDONLY | O_CLOEXEC));
  Utils::FileOrDirClose(other.Get(), stream);
  EXPECT_TRUE(IsOpen(other.Get()));
}

TEST_F(UtilsFileOrDirClose, WithoutAStreamTheDescriptorIsClosed) {
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  Utils::FileOrDirClose(fd, nullptr);
  EXPECT_FALSE(IsOpen(fd));
}

TEST_F(UtilsFileOrDirClose, NothingToCloseIsNoError) {
  errno = EXDEV;
  Utils::FileOrDirClose(-1, nullptr);
  EXPECT_EQ(EXDEV, errno);
}
