// Lack of memory: every function says so, and leaves everything as it was.
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <zorvplatform/share.h>

#include <filesystem>
#include <new>
#include <string>

#include "tests/platform/platform_error.h"
#include "tests/platform/process_state.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"

using namespace ZorvTest;

namespace {

constexpr size_t kMostMiB = 64;  // of one allocation, below LimitMemory

// The allocation by `new` that fails, counted from 1; 0: none.
int gFailing = 0;

}  // namespace

// Stand before those of the C++ library, also for the platform.  Not inlined, or the compiler takes
// their malloc and free for a mismatch.
[[gnu::noinline]] void* operator new(size_t size) {
  if (gFailing > 0 && --gFailing == 0) throw std::bad_alloc();
  void* memory = malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { free(memory); }

// Under AddressSanitizer, whose own memory counts as address space, it sets the limit.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

namespace {

// From now on no allocation of more than kMostMiB succeeds.  Only for a child of the test.
void LimitMemory() {
#ifndef __SANITIZE_ADDRESS__
  const rlimit limit = {kMostMiB << 20, kMostMiB << 20};
  EXPECT_EQ(0, setrlimit(RLIMIT_AS, &limit));
#endif
}

int Result() { return testing::Test::HasFailure() ? 1 : 0; }

// What the rows need.
struct Given {
  Given() {
    PLATCSzListPush(&list, "before");
    PLATCSzHashSetValue(&hash, "a key of more than a few bytes", "a value");
    ZORVShareGet("photos of a long and happy life", &share);
  }
  ~Given() {
    PLATCSzListFree(list);
    PLATCSzHashFree(hash);
    ZORVShareFree(share);
    ZORVShareSnapEnumFree(selectors);
  }
  PLATSZLIST* list = PLATCSzListAlloc(1);
  PLATSZHASH* hash = PLATCSzHashAlloc(1);
  ZORVSHARE* share = nullptr;
  ZORVSHARESNAPSELECTOR* selectors = nullptr;
  char buffer[4096] = "untouched";
};

struct Row {
  const char* name;
  bool (*succeeds)(Given& g);
};

const Row kGet = {"ZORVShareGet", [](Given&) {
                    ZORVSHARE* share = nullptr;
                    const bool good = ZORVShareGet("photos of a long and happy life", &share) == 0;
                    ZORVShareFree(share);
                    return good;
                  }};
const Row kEnum = {"ZORVShareEnum", [](Given& g) { return ZORVShareEnum(&g.list, 0x301) == 1; }};
const Row kSnapList = {"ZORVShareSnapList",
                       [](Given& g) { return ZORVShareSnapList(g.share, &g.list, nullptr) == 0; }};

const Row kRows[] = {
    {"PLATCSzHashAlloc",
     [](Given&) {
       PLATSZHASH* hash = PLATCSzHashAlloc(1);
       PLATCSzHashFree(hash);
       return hash != nullptr;
     }},
    {"PLATCSzHashSetValue",
     [](Given& g) {
       return PLATCSzHashSetValue(&g.hash, "another key of some length",
                                  "a value of some length") == 0;
     }},
    {"PLATCSzHashGetValue",
     [](Given& g) {
       return PLATCSzHashGetValue(g.hash, "a key of more than a few bytes") != nullptr;
     }},
    {"PLATCSzHashEnumKey", [](Given& g) { return PLATCSzHashEnumKey(g.hash, &g.list) == 1; }},
    {"PLATCFileEnumDir",
     [](Given& g) { return PLATCFileEnumDir("/tmp/files", 0, &g.list, 128) == 2; }},
    {"PLATCPopen",
     [](Given&) {
       FILE* stream = PLATCPopen("/bin/true with some longer arguments", "r");
       return stream != nullptr && PLATCPclose(stream) == 0;
     }},
    kGet,
    kEnum,
    {"VolumePathParseEx",
     [](Given& g) { return VolumePathParseEx("/volume1", g.buffer, sizeof g.buffer) == 0; }},
    {"ZORVMountVolInfoGet",
     [](Given&) {
       ZORVMOUNTVOLINFO info;
       return ZORVMountVolInfoGet("/volume1", &info) == 0;
     }},
    {"ZORVShareSnapSelectorAdd",
     [](Given& g) {
       return ZORVShareSnapSelectorAdd(&g.selectors, ZORVShareSnapTimeSelector,
                                       ">=GMT-2024.03.05-09.04.09") == 0;
     }},
    kSnapList,
    {"ZORVShareSnapGetOrCreateSnapDir",
     [](Given& g) {
       return ZORVShareSnapGetOrCreateSnapDir(g.share, g.buffer, sizeof g.buffer, 0) == 1;
     }},
    {"ZORVFileCopy",
     [](Given&) { return ZORVFileCopy("/tmp/files/one file", "/tmp/files/copies/one", 0) == 0; }},
};

// Those for a share of snapper's, in the platform's own file.
const Row kConfiguredRows[] = {
    kGet, kEnum, kSnapList, {"ZORVShareSnapInfoGet", [](Given& g) {
                               ZORVSHARESNAPINFO* info = nullptr;
                               const bool good =
                                   ZORVShareSnapInfoGet(g.share, "GMT-2024.03.05-09.04.09-12345678",
                                                        &info) == 0;
                               ZORVShareSnapInfoFree(info);
                               return good;
                             }}};

// Lets each allocation of each row fail, one after the other.
template <size_t count>
void LetAllocationsFail(const Row (&rows)[count]) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    {
      Given given;
      ASSERT_TRUE(row.succeeds(given));  // also so that what is made once is there
    }
    const std::set<int> descriptors = OpenDescriptors();
    for (int failing = 1;; ++failing) {
      ASSERT_GT(1000, failing);
      Given given;
      ClearError();
      gFailing = failing;
      const bool good = row.succeeds(given);
      const bool reached = gFailing == 0;
      gFailing = 0;
      if (!reached) {
        EXPECT_TRUE(good);
        break;
      }
      ASSERT_FALSE(good) << failing;
      ASSERT_TRUE(FailedWith(0x2A00));
      ASSERT_EQ(ENOMEM, errno);
      ASSERT_EQ(std::vector<std::string>{"before"}, Texts(given.list));
      ASSERT_STREQ("untouched", given.buffer);
      ASSERT_EQ(nullptr, given.selectors);
    }
    EXPECT_EQ(descriptors, OpenDescriptors());
    EXPECT_FALSE(HasChildren());
  }
}

}  // namespace

TEST(Memory, EveryFailedAllocationIsAnErrorThatChangesNothing) {
  const BtrfsVolume one("/volume1");
  one.Subvolume("photos of a long and happy life");
  one.Snapshot("photos of a long and happy life",
               "photos of a long and happy life/.snapshots/GMT-2024.03.05-09.04.09");
  WriteFile("/tmp/files/one file", "x");
  WriteFile("/tmp/files/another file of a longer name", "x");
  WriteFile("/tmp/files/copies/of another", "x");
  WriteFile("/etc/fstab", "/dev/loop0 /volume1 btrfs defaults 0 0\n");
  LetAllocationsFail(kRows);
  std::vector<std::string> left;
  for (const char* dir : {"/tmp/files", "/tmp/files/copies"}) {
    PLATSZLIST* list = PLATCSzListAlloc(1);
    EXPECT_LE(0, PLATCFileEnumDir(dir, 0, &list, 128));
    for (const std::string& name : Texts(list)) left.push_back(name);
    PLATCSzListFree(list);
  }
  EXPECT_EQ(
      (std::vector<std::string>{"another file of a longer name", "one file", "of another", "one"}),
      left);
  WriteFile("/etc/fstab", "");
}

TEST(Memory, EveryFailedAllocationForAConfiguredShareIsAnErrorToo) {
  const BtrfsVolume one("/volume1");
  const std::string directory =
      one.Subvolume("photos of a long and happy life") + "/.snapshots/12345678/";
  std::filesystem::create_directories(directory);
  one.Snapshot("photos of a long and happy life",
               "photos of a long and happy life/.snapshots/12345678/snapshot");
  WriteFile(directory + "info.xml",
            "<snapshot><type>single</type><num>12345678</num><date>2024-03-05 09:04:09</date>"
            "<description>a description of some length</description></snapshot>");
  WriteFile("/etc/zorv-snapusage.conf",
            "samba = off\n[photos of a long and happy life]\nlayout = snapper\n"
            "path = /volume1/photos of a long and happy life\n");
  LetAllocationsFail(kConfiguredRows);
  std::filesystem::remove("/etc/zorv-snapusage.conf");
}

TEST(PLATCSzListAlloc, OutOfMemoryIsNull) {
  EXPECT_EQ(0, InChild([] {
              LimitMemory();
              ClearError();
              EXPECT_EQ(nullptr, PLATCSzListAlloc(INT_MAX));
              EXPECT_TRUE(FailedWith(0x2A00));
              EXPECT_EQ(ENOMEM, errno);
              return Result();
            }));
}

TEST(PLATCSzListPush, OutOfMemoryLeavesTheListAsItWas) {
  EXPECT_EQ(0, InChild([] {
              const size_t size = (kMostMiB + 1) << 20;
              char* large = static_cast<char*>(
                  mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
              memset(large, 'x', size - 1);
              PLATSZLIST* list = PLATCSzListAlloc(1);
              PLATCSzListPush(&list, "first");
              LimitMemory();
              ClearError();
              EXPECT_GT(0, PLATCSzListPush(&list, large));
              EXPECT_TRUE(FailedWith(0x2A00));
              EXPECT_EQ(std::vector<std::string>{"first"}, Texts(list));
              PLATCSzListFree(list);
              return Result();
            }));
}

TEST(PLATCSzListPush, AListCannotGrowBeyondWhatItsFieldsCanCount) {
  PLATSZLIST* list = PLATCSzListAlloc(1);
  list->capacity = list->count = INT_MAX;
  ClearError();
  EXPECT_GT(0, PLATCSzListPush(&list, "x"));
  EXPECT_TRUE(FailedWith(0x2A00));
  EXPECT_EQ(INT_MAX, list->count);
  list->capacity = 1;
  list->count = 0;
  PLATCSzListFree(list);
}
