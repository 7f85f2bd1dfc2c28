// Shares and snapshots while the file system gives errors that a real one does not give on demand.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <sys/ioctl.h>
#include <zorvplatform/share.h>

#include <filesystem>
#include <string>

#include "tests/platform/platform_error.h"
#include "tests/platform/process_state.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"

using namespace ZorvTest;

namespace {

// Which call fails, and how.  These stand before the C library's functions.
struct Fault {
  std::string openatName;  // openat of this name
  bool readdirEnd = false;
  bool unknownTypes = false;  // readdir does not tell what the entries are, as on some file systems
  bool ioctl = false;
  int error = 0;
} gFault;

template <typename Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int openat(int dir, const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  if (!gFault.openatName.empty() && gFault.openatName == path) {
    errno = gFault.error;
    return -1;
  }
  static auto* const real = Real<int(int, const char*, int, ...)>("openat");
  return real(dir, path, flags, mode);
}

dirent* readdir(DIR* dir) {
  static auto* const real = Real<dirent*(DIR*)>("readdir");
  dirent* entry = real(dir);
  if (gFault.unknownTypes && entry != nullptr) entry->d_type = DT_UNKNOWN;
  if (!gFault.readdirEnd || entry != nullptr) return entry;
  errno = gFault.error;  // instead of the end
  return nullptr;
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list args;
  va_start(args, request);
  void* argument = va_arg(args, void*);
  va_end(args);
  if (gFault.ioctl) {
    errno = gFault.error;
    return -1;
  }
  static auto* const real = Real<int(int, unsigned long, ...)>("ioctl");
  return real(fd, request, argument);
}

}  // extern "C"

namespace {

using Names = std::vector<std::string>;

// Two volumes; "photos" lies on the second.
class ShareFaults : public testing::Test {
 protected:
  ShareFaults() {
    std::filesystem::remove_all("/etc/snapper");
    two.Subvolume("photos");
    two.Snapshot("photos", "photos/.snapshots/GMT-2024.03.05-09.04.09");
  }
  ~ShareFaults() override { gFault = {}; }

  static int Enum() {
    PLATSZLIST* list = PLATCSzListAlloc(1);
    ClearError();
    const int result = ::ZORVShareEnum(&list, 0x301);
    const int error = errno;
    EXPECT_EQ(result > 0 ? result : 0, list->count);
    PLATCSzListFree(list);
    errno = error;
    return result;
  }

  static int Get() {
    ZORVSHARE* share = nullptr;
    ClearError();
    const int result = ::ZORVShareGet("photos", &share);
    EXPECT_EQ(result == 0, share != nullptr);
    ::ZORVShareFree(share);
    return result;
  }

  const BtrfsVolume one{"/volume1"};
  const BtrfsVolume two{"/volume2"};
};

struct ZORVShareGet : ShareFaults {};

TEST_F(ZORVShareGet, WhatPassesByIsToBeRetriedAndWhatDoesNotIsNot) {
  const struct {
    int error;
    unsigned int code;
  } kCases[] = {{EAGAIN, 0x0400}, {EBUSY, 0x0400},  {EINTR, 0x0400},
                {EIO, 0x2A00},    {EACCES, 0x2A00}, {EMFILE, 0x2A00}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(strerror(c.error));
    ASSERT_EQ(0, Get());
    gFault.openatName = "photos";
    gFault.error = c.error;
    EXPECT_GT(0, Get());
    EXPECT_TRUE(FailedWith(c.code));
    EXPECT_EQ(c.error, errno);
    gFault = {};
  }
}

TEST_F(ZORVShareGet, AVolumeThatCannotBeToldIsToBeRetried) {
  gFault.ioctl = true;
  gFault.error = EIO;
  EXPECT_GT(0, Get());
  EXPECT_TRUE(FailedWith(0x0400));
}

TEST_F(ZORVShareGet, VolumesThatCannotBeListed) {
  gFault.readdirEnd = true;
  gFault.error = EIO;
  EXPECT_GT(0, Get());
  EXPECT_TRUE(FailedWith(0x2A00));
  gFault.error = EINTR;
  EXPECT_GT(0, Get());
  EXPECT_TRUE(FailedWith(0x0400));
}

struct ZORVShareEnum : ShareFaults {};

TEST_F(ZORVShareEnum, EveryErrorMakesItNegativeAndNoneShorter) {
  one.Subvolume("archive");
  ASSERT_EQ(2, Enum());
  for (const int error : {EAGAIN, EBUSY, EINTR, EIO, EACCES, EMFILE, ENOMEM}) {
    SCOPED_TRACE(strerror(error));
    gFault.error = error;
    gFault.openatName = "photos";
    EXPECT_GT(0, Enum());
    EXPECT_TRUE(FailedWith(0x0400));
    EXPECT_EQ(error, errno);
    gFault.openatName = ".";  // the volume's own directory
    EXPECT_GT(0, Enum());
    EXPECT_TRUE(FailedWith(0x0400));
    gFault.openatName = "";
    gFault.readdirEnd = true;
    EXPECT_GT(0, Enum());
    EXPECT_TRUE(FailedWith(0x0400));
    gFault.readdirEnd = false;
    gFault.ioctl = true;
    EXPECT_GT(0, Enum());
    EXPECT_TRUE(FailedWith(0x0400));
    gFault.ioctl = false;
  }
  EXPECT_EQ(2, Enum());
}

TEST_F(ZORVShareEnum, ConfigurationsThatCannotBeListedMakeItNegative) {
  std::filesystem::create_directories("/etc/snapper/configs");
  ASSERT_EQ(1, Enum());
  gFault.readdirEnd = true;
  gFault.error = EIO;
  EXPECT_GT(0, Enum());
  EXPECT_TRUE(FailedWith(0x2A00));
  EXPECT_STREQ("/etc/snapper/configs cannot be read: Input/output error", PLATCErrorGetText());
  gFault.error = EINTR;
  EXPECT_GT(0, Enum());
  EXPECT_TRUE(FailedWith(0x0400));
}

TEST_F(ZORVShareEnum, AShareThatGoesMeanwhileIsLeftOut) {
  one.Subvolume("archive");
  gFault.openatName = "photos";
  gFault.error = ENOENT;
  EXPECT_EQ(1, Enum());
}

TEST_F(ZORVShareEnum, AFileSystemThatDoesNotTellTypesInItsDirectories) {
  WriteFile("/volume1/file", "x");
  std::filesystem::create_directory("/volume1/directory");
  std::filesystem::create_symlink("/volume2/photos", "/volume1/link");
  gFault.unknownTypes = true;
  EXPECT_EQ(1, Enum());
}

struct ZORVShareSnapList : ShareFaults {};

TEST_F(ZORVShareSnapList, AFileSystemThatDoesNotTellTypesInItsDirectories) {
  WriteFile("/volume2/photos/.snapshots/file", "x");
  std::filesystem::create_directory("/volume2/photos/.snapshots/directory");
  std::filesystem::create_symlink("GMT-2024.03.05-09.04.09", "/volume2/photos/.snapshots/link");
  gFault.unknownTypes = true;
  ZORVSHARE* share = nullptr;
  ASSERT_EQ(0, ::ZORVShareGet("photos", &share));
  PLATSZLIST* list = PLATCSzListAlloc(1);
  EXPECT_EQ(0, ::ZORVShareSnapList(share, &list, nullptr));
  EXPECT_EQ(Names{"GMT-2024.03.05-09.04.09"}, Texts(list));
  PLATCSzListFree(list);
  ::ZORVShareFree(share);
}

TEST_F(ZORVShareSnapList, EveryErrorMakesItFailAndNoneShorter) {
  ZORVSHARE* share = nullptr;
  ASSERT_EQ(0, ::ZORVShareGet("photos", &share));
  PLATSZLIST* list = PLATCSzListAlloc(1);
  for (const char* name : {".snapshots", "GMT-2024.03.05-09.04.09"}) {
    SCOPED_TRACE(name);
    gFault.openatName = name;
    gFault.error = EIO;
    ClearError();
    EXPECT_GT(0, ::ZORVShareSnapList(share, &list, nullptr));
    EXPECT_TRUE(FailedWith(0x2A00));
    EXPECT_EQ(EIO, errno);
  }
  gFault = {};
  gFault.readdirEnd = true;
  gFault.error = EIO;
  ClearError();
  EXPECT_GT(0, ::ZORVShareSnapList(share, &list, nullptr));
  EXPECT_TRUE(FailedWith(0x2A00));
  gFault = {};
  EXPECT_EQ(0, list->count);
  EXPECT_EQ(0, ::ZORVShareSnapList(share, &list, nullptr));
  EXPECT_EQ(1, list->count);
  PLATCSzListFree(list);
  ::ZORVShareFree(share);
}

struct PLATCFileEnumDir : ShareFaults {};

TEST_F(PLATCFileEnumDir, AnErrorBeforeTheEndIsNegative) {
  WriteFile("/volume1/file", "x");
  PLATSZLIST* list = PLATCSzListAlloc(1);
  gFault.readdirEnd = true;
  gFault.error = EIO;
  ClearError();
  EXPECT_GT(0, ::PLATCFileEnumDir("/volume1", 0, &list, 128));
  EXPECT_EQ(EIO, errno);
  EXPECT_TRUE(FailedWith(0x2A00));
  EXPECT_EQ(0, list->count);
  PLATCSzListFree(list);
}

TEST_F(PLATCFileEnumDir, AFileSystemThatDoesNotTellTypesInItsDirectories) {
  WriteFile("/volume1/file", "x");
  std::filesystem::create_directory("/volume1/directory");
  std::filesystem::create_symlink("directory", "/volume1/link");
  gFault.unknownTypes = true;
  PLATSZLIST* list = PLATCSzListAlloc(1);
  EXPECT_EQ(2, ::PLATCFileEnumDir("/volume1", 0, &list, 128));
  EXPECT_EQ((Names{"file", "link"}), Texts(list));
  PLATCSzListFree(list);
}

struct VolumePathParseEx : ShareFaults {};

TEST_F(VolumePathParseEx, AVolumeThatCannotBeToldIsAnError) {
  char volume[64];
  gFault.ioctl = true;
  gFault.error = EIO;
  ClearError();
  EXPECT_GT(0, ::VolumePathParseEx("/volume1", volume, sizeof volume));
  EXPECT_EQ(EIO, errno);
  EXPECT_TRUE(FailedWith(0xBE00));
}

}  // namespace
