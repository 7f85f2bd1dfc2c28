#include "tests/support/sandbox.h"

#include <dirent.h>
#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace ZorvTest {
namespace {

constexpr int kNoWorld = 125;
// Where the new root is put together: a memory file system over /tmp, seen by this namespace only.
constexpr char kStage[] = "/tmp";
constexpr char kRoot[] = "/tmp/root";
// A node that no machine has: /dev in the world is the world's own.
constexpr char kMark[] = "zorv-sandbox";

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + strerror(errno));
}

void Mount(const char* source, const std::string& target, const char* type, unsigned long flags,
           const char* options) {
  if (mount(source, target.c_str(), type, flags, options) != 0)
    Fail(std::string("mount ") + (type ? type : source) + " at " + target);
}

void MakeDir(const std::string& dir, mode_t mode = 0755) {
  if (mkdir(dir.c_str(), mode) != 0 && errno != EEXIST) Fail("mkdir " + dir);
}

void MakeNode(const std::string& dir, const char* name, mode_t kind, unsigned major_,
              unsigned minor_) {
  const std::string path = dir + "/" + name;
  if (mknod(path.c_str(), kind | 0600, makedev(major_, minor_)) != 0) Fail("mknod " + path);
  if (chmod(path.c_str(), kind == S_IFCHR ? 0666 : 0660) != 0) Fail("chmod " + path);
}

// Own device nodes, so that /dev/log is the test's; numbers as in the kernel's devices.txt.
void MakeDev(const std::string& dev) {
  Mount("tmpfs", dev, "tmpfs", MS_NOSUID, "mode=0755");
  MakeNode(dev, kMark, S_IFCHR, 1, 3);
  MakeNode(dev, "null", S_IFCHR, 1, 3);
  MakeNode(dev, "zero", S_IFCHR, 1, 5);
  MakeNode(dev, "full", S_IFCHR, 1, 7);
  MakeNode(dev, "random", S_IFCHR, 1, 8);
  MakeNode(dev, "urandom", S_IFCHR, 1, 9);
  MakeNode(dev, "tty", S_IFCHR, 5, 0);
  MakeNode(dev, "loop-control", S_IFCHR, 10, 237);
  MakeNode(dev, "fuse", S_IFCHR, 10, 229);
  MakeNode(dev, "btrfs-control", S_IFCHR, 10, 234);
  for (unsigned n = 0; n < 256; ++n)
    MakeNode(dev, ("loop" + std::to_string(n)).c_str(), S_IFBLK, 7, n);
  for (const char* dir : {"/pts", "/shm"}) MakeDir(dev + dir);
  Mount("devpts", dev + "/pts", "devpts", 0, "newinstance,ptmxmode=0666");
  Mount("tmpfs", dev + "/shm", "tmpfs", 0, "mode=1777");
  if (symlink("pts/ptmx", (dev + "/ptmx").c_str()) != 0) Fail("symlink ptmx");
  if (symlink("/proc/self/fd", (dev + "/fd").c_str()) != 0) Fail("symlink fd");
}

void MakeWorld(const std::vector<std::string>& binds) {
  const std::string root = kRoot;
  Mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
  // A bind of another file system is held open before /tmp, where it may lie, is covered.
  std::vector<std::string> held;
  for (const std::string& bind : binds) {
    const int fd = open_tree(AT_FDCWD, bind.c_str(), OPEN_TREE_CLONE | AT_RECURSIVE);
    if (fd < 0) Fail("open_tree " + bind);
    held.push_back(std::to_string(fd));
  }
  Mount("tmpfs", kStage, "tmpfs", 0, "mode=0755");
  for (const char* dir : {"/tmp/upper", "/tmp/work", kRoot}) MakeDir(dir);
  Mount("overlay", root, "overlay", 0, "lowerdir=/,upperdir=/tmp/upper,workdir=/tmp/work");
  for (const char* dir : {"/proc", "/sys", "/dev", "/run", "/tmp"}) MakeDir(root + dir);
  Mount("proc", root + "/proc", "proc", 0, nullptr);
  Mount("/sys", root + "/sys", nullptr, MS_BIND | MS_REC, nullptr);
  MakeDev(root + "/dev");
  Mount("tmpfs", root + "/run", "tmpfs", 0, "mode=0755");
  // For everybody, as on Debian, and so beyond the umask.
  MakeDir(root + "/run/lock");
  if (chmod((root + "/run/lock").c_str(), 01777) != 0) Fail("chmod /run/lock");
  Mount("tmpfs", root + "/tmp", "tmpfs", 0, "mode=1777");
  for (size_t i = 0; i < binds.size(); ++i) {
    std::filesystem::create_directories(root + binds[i]);
    if (move_mount(std::stoi(held[i]), "", AT_FDCWD, (root + binds[i]).c_str(),
                   MOVE_MOUNT_F_EMPTY_PATH) != 0)
      Fail("move_mount " + binds[i]);
    close(std::stoi(held[i]));
  }
  MakeDir(root + "/.host");
  if (syscall(SYS_pivot_root, kRoot, (root + "/.host").c_str()) != 0) Fail("pivot_root");
  if (umount2("/.host", MNT_DETACH) != 0) Fail("umount the host's root");
  (void)rmdir("/.host");
}

int StatusToExit(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Reaps until `pid` has ended; orphans come to the first process of the namespace.
int WaitFor(pid_t pid) {
  for (;;) {
    int status = 0;
    const pid_t ended = wait(&status);
    if (ended == pid) return StatusToExit(status);
    if (ended < 0 && errno != EINTR) return kNoWorld;
  }
}

// The first process of the namespace: makes the world, then waits for the body.
int RunInit(const std::vector<std::string>& binds, const std::string& cwd,
            const std::function<int()>& body) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    MakeWorld(binds);
  } catch (const std::exception& e) {
    fprintf(stderr, "sandbox: %s\n", e.what());
    return kNoWorld;
  }
  if (chdir(cwd.c_str()) != 0 && chdir("/") != 0) return kNoWorld;
  const pid_t child = fork();
  if (child == 0) return body();
  return child < 0 ? kNoWorld : WaitFor(child);
}

}  // namespace

bool IsInSandbox() { return access((std::string("/dev/") + kMark).c_str(), F_OK) == 0; }

int RunInSandbox(const std::vector<std::string>& binds, const std::function<int()>& body) {
  if (geteuid() != 0) {
    fprintf(stderr, "sandbox: needs root (mount namespaces, loop devices); run it with sudo\n");
    return kNoWorld;
  }
  const std::string cwd = std::filesystem::current_path();
  fflush(nullptr);
  const pid_t outer = fork();
  if (outer == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (unshare(CLONE_NEWNS | CLONE_NEWPID) != 0) {
      fprintf(stderr, "sandbox: no namespaces of its own: %s\n", strerror(errno));
      _exit(kNoWorld);
    }
    const pid_t init = fork();
    if (init == 0) {
      // exit, not _exit: in the body's process what it printed is still in its buffers.
      exit(RunInit(binds, cwd, body));
    }
    _exit(init < 0 ? kNoWorld : WaitFor(init));
  }
  return outer < 0 ? kNoWorld : WaitFor(outer);
}

}  // namespace ZorvTest
