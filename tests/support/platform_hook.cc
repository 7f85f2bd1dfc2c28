#include "tests/support/platform_hook.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <time.h>
#include <unistd.h>

#include <map>

namespace ZorvTest {
namespace {

// Filled by the definitions below before main. Never destroyed: the C library's functions are
// called until the very end of the process.
std::map<std::string, HookSlot>& Slots() {
  static auto* const slots = new std::map<std::string, HookSlot>;
  return *slots;
}

}  // namespace

HookSlot& SlotOf(const std::string& name) {
  const auto found = Slots().find(name);
  if (found == Slots().end()) throw std::logic_error("not hookable: " + name);
  return found->second;
}

void* RealFunction(const std::string& name) {
  void* function = dlsym(RTLD_NEXT, name.c_str());
  if (function == nullptr) throw std::logic_error("no real function: " + name);
  return function;
}

namespace {

// What the test program's definition of a function does: to the hook, or on to the real one.
template <typename R, typename... A>
struct Hookable {
  Hookable(const char* name, R (*)(A...)) : name_(name), slot_(&Slots()[name]) {}

  R Call(A... args) {
    if (slot_->hook != nullptr)
      return static_cast<PlatformHook<R(A...)>*>(slot_->hook)->Called(args...);
    if (real_ == nullptr) real_ = reinterpret_cast<R (*)(A...)>(RealFunction(name_));
    return real_(args...);
  }

  const char* name_;
  HookSlot* slot_;
  R (*real_)(A...) = nullptr;
};

// Built at the first call, since libraries call time() and the like before main.
#define HOOKABLE(function)                            \
  auto& Hook_##function() {                           \
    static Hookable hookable(#function, &::function); \
    return hookable;                                  \
  }                                                   \
  [[maybe_unused]] const auto& registered_##function = Hook_##function();

HOOKABLE(PLATCSzListAlloc)
HOOKABLE(PLATCSzListPush)
HOOKABLE(PLATCSzListGet)
HOOKABLE(PLATCSzHashEnumKey)
HOOKABLE(PLATCFileExist)
HOOKABLE(PLATCFileCheckDir)
HOOKABLE(PLATCFileEnumDir)
HOOKABLE(PLATCPopen)
HOOKABLE(PLATCPopenv)
HOOKABLE(PLATCPclose)
HOOKABLE(PLATCProcForkChildNoWait)
HOOKABLE(PLATCStrTrimSpace)
HOOKABLE(ZORVShareGet)
HOOKABLE(ZORVShareFree)
HOOKABLE(ZORVShareEnum)
HOOKABLE(ZORVShareSurvey)
HOOKABLE(ZORVShareInfoGet)
HOOKABLE(VolumePathParseEx)
HOOKABLE(ZORVMountVolInfoGet)
HOOKABLE(ZORVShareSnapSelectorAdd)
HOOKABLE(ZORVShareSnapEnumFree)
HOOKABLE(ZORVShareSnapList)
HOOKABLE(ZORVShareSnapGetOrCreateSnapDir)
HOOKABLE(ZORVShareSnapTimeGet)
HOOKABLE(ZORVShareSnapInfoGet)
HOOKABLE(ZORVShareSnapUnfit)
HOOKABLE(ZORVFileCopy)
HOOKABLE(sleep)
HOOKABLE(time)
HOOKABLE(kill)
HOOKABLE(signal)
HOOKABLE(chown)
HOOKABLE(chmod)
HOOKABLE(rename)
HOOKABLE(unlink)
HOOKABLE(localtime_r)
HOOKABLE(gmtime_r)
HOOKABLE(mktime)
HOOKABLE(statfs)
HOOKABLE(fsync)
HOOKABLE(sync_file_range)
HOOKABLE(dirfd)
HOOKABLE(getrandom)

// Variadic in C. Every command takes at most one argument more, which fits a pointer here.
using Fcntl = int (*)(int, int, void*);
auto& Hook_fcntl() {
  static Hookable hookable("fcntl", Fcntl(nullptr));
  return hookable;
}
[[maybe_unused]] const auto& registered_fcntl = Hook_fcntl();

}  // namespace
}  // namespace ZorvTest

#define HOOK(function) ZorvTest::Hook_##function().Call

extern "C" {

PLATSZLIST* PLATCSzListAlloc(int capacity) { return HOOK(PLATCSzListAlloc)(capacity); }
int PLATCSzListPush(PLATSZLIST** list, const char* text) {
  return HOOK(PLATCSzListPush)(list, text);
}
const char* PLATCSzListGet(const PLATSZLIST* list, int index) {
  return HOOK(PLATCSzListGet)(list, index);
}
int PLATCSzHashEnumKey(const PLATSZHASH* hash, PLATSZLIST** keys) {
  return HOOK(PLATCSzHashEnumKey)(hash, keys);
}
int PLATCFileExist(const char* path) { return HOOK(PLATCFileExist)(path); }
int PLATCFileCheckDir(const char* path) { return HOOK(PLATCFileCheckDir)(path); }
int PLATCFileEnumDir(const char* path, int flags, PLATSZLIST** names, int type) {
  return HOOK(PLATCFileEnumDir)(path, flags, names, type);
}
FILE* PLATCPopen(const char* command, const char* mode) { return HOOK(PLATCPopen)(command, mode); }
FILE* PLATCPopenv(const char* path, const char* mode, char* const argv[]) {
  return HOOK(PLATCPopenv)(path, mode, argv);
}
int PLATCPclose(FILE* stream) { return HOOK(PLATCPclose)(stream); }
int PLATCProcForkChildNoWait(void) { return HOOK(PLATCProcForkChildNoWait)(); }
int PLATCStrTrimSpace(char* text) { return HOOK(PLATCStrTrimSpace)(text); }
int ZORVShareGet(const char* name, struct _tag_ZORVSHARE** share) {
  return HOOK(ZORVShareGet)(name, share);
}
void ZORVShareFree(struct _tag_ZORVSHARE* share) { HOOK(ZORVShareFree)(share); }
int ZORVShareEnum(PLATSZLIST** names, int flags) { return HOOK(ZORVShareEnum)(names, flags); }
int ZORVShareSurvey(PLATSZLIST** names, PLATSZLIST** missing, PLATSZLIST** hidden) {
  return HOOK(ZORVShareSurvey)(names, missing, hidden);
}

int ZORVShareInfoGet(const struct _tag_ZORVSHARE* share, ZORVSHAREINFO* info) {
  return HOOK(ZORVShareInfoGet)(share, info);
}
int VolumePathParseEx(const char* path, char* volumePath, int size) {
  return HOOK(VolumePathParseEx)(path, volumePath, size);
}
int ZORVMountVolInfoGet(const char* volumePath, ZORVMOUNTVOLINFO* info) {
  return HOOK(ZORVMountVolInfoGet)(volumePath, info);
}
int ZORVShareSnapSelectorAdd(ZORVSHARESNAPSELECTOR** selectors, ZORVSHARESNAPSELECTFN fn,
                             const char* argument) {
  return HOOK(ZORVShareSnapSelectorAdd)(selectors, fn, argument);
}
void ZORVShareSnapEnumFree(ZORVSHARESNAPSELECTOR* selectors) {
  HOOK(ZORVShareSnapEnumFree)(selectors);
}
int ZORVShareSnapList(const struct _tag_ZORVSHARE* share, PLATSZLIST** names,
                      const ZORVSHARESNAPSELECTOR* selectors) {
  return HOOK(ZORVShareSnapList)(share, names, selectors);
}
int ZORVShareSnapGetOrCreateSnapDir(const struct _tag_ZORVSHARE* share, char* dir, int size,
                                    int flags) {
  return HOOK(ZORVShareSnapGetOrCreateSnapDir)(share, dir, size, flags);
}
int ZORVShareSnapUnfit(const struct _tag_ZORVSHARE* share, const char** format) {
  return HOOK(ZORVShareSnapUnfit)(share, format);
}

int ZORVShareSnapInfoGet(const struct _tag_ZORVSHARE* share, const char* snapName,
                         ZORVSHARESNAPINFO** info) {
  return HOOK(ZORVShareSnapInfoGet)(share, snapName, info);
}
int ZORVShareSnapTimeGet(const char* snapName, time_t* when) {
  return HOOK(ZORVShareSnapTimeGet)(snapName, when);
}
int ZORVFileCopy(const char* source, const char* destination, int flags) {
  return HOOK(ZORVFileCopy)(source, destination, flags);
}

unsigned int sleep(unsigned int seconds) { return HOOK(sleep)(seconds); }
time_t time(time_t* out) noexcept { return HOOK(time)(out); }
__sighandler_t signal(int number, __sighandler_t handler) noexcept {
  return HOOK(signal)(number, handler);
}
int kill(pid_t pid, int signal) noexcept { return HOOK(kill)(pid, signal); }
int chown(const char* path, uid_t owner, gid_t group) noexcept {
  return HOOK(chown)(path, owner, group);
}
int chmod(const char* path, mode_t mode) noexcept { return HOOK(chmod)(path, mode); }
int rename(const char* from, const char* to) noexcept { return HOOK(rename)(from, to); }
int unlink(const char* path) noexcept { return HOOK(unlink)(path); }
struct tm* localtime_r(const time_t* t, struct tm* out) noexcept {
  return HOOK(localtime_r)(t, out);
}
struct tm* gmtime_r(const time_t* t, struct tm* out) noexcept {
  return HOOK(gmtime_r)(t, out);
}
time_t mktime(struct tm* t) noexcept { return HOOK(mktime)(t); }
int statfs(const char* path, struct statfs* out) noexcept { return HOOK(statfs)(path, out); }
int dirfd(DIR* dir) noexcept { return HOOK(dirfd)(dir); }
int fsync(int fd) { return HOOK(fsync)(fd); }
ssize_t getrandom(void* buffer, size_t length, unsigned int flags) {
  return HOOK(getrandom)(buffer, length, flags);
}
int sync_file_range(int fd, off64_t offset, off64_t count, unsigned int flags) {
  return HOOK(sync_file_range)(fd, offset, count, flags);
}
int fcntl(int fd, int command, ...) {
  va_list args;
  va_start(args, command);
  void* argument = va_arg(args, void*);
  va_end(args);
  return HOOK(fcntl)(fd, command, argument);
}

}  // extern "C"
