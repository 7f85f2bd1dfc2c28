// Two subjects: subvolumes (is it one, which ID has it), and one run of the btrfs command.
#include "zorvbtrfssnapusage/btrfs_tool.h"

#include <errno.h>
#include <linux/btrfs.h>
#include <linux/magic.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <memory>

#include "base/log.h"
#include "base/paths.h"
#include "intl_utils/stop_gate.h"
#include "zorvbtrfssnapusage/signal_handler.h"
#include "zorvbtrfssnapusage/utils.h"

namespace ZorvBtrfsUsage {

int BtrfsTool::gSignal = 0;

namespace {

constexpr char kLogUnit[] = "intl_utils/btrfs_tool";

// Frees what malloc, calloc or realpath gave.
struct CFree {
  void operator()(void* memory) const { free(memory); }
};

// ---- Subvolumes ---------------------------------------------------------------------------------

// The first object ID that a btrfs tree gives away (BTRFS_FIRST_FREE_OBJECTID in
// linux/btrfs_tree.h): the inode number of each subvolume's root directory.
constexpr unsigned long long kSubvolumeRootInode = 256;

static_assert(BTRFS_SUPER_MAGIC == 0x9123683E);
static_assert(BTRFS_IOC_INO_LOOKUP == 0xD0009412);
static_assert(sizeof(btrfs_ioctl_ino_lookup_args) == 4096);

// Asks which tree the inode behind a descriptor lies in.
struct InoLookup {
  btrfs_ioctl_ino_lookup_args args{};

  explicit InoLookup(unsigned long long objectid) { args.objectid = objectid; }
  int Run(int fd) { return ioctl(fd, BTRFS_IOC_INO_LOOKUP, &args); }  // negative: errno
  unsigned long long RootID() const { return args.treeid; }
};

// The root ID of the subvolume that `fd` is the root directory of. 0, or negative.
int LookupRootID(int fd, unsigned long long& rootID) {
  InoLookup lookup(kSubvolumeRootInode);
  const int ret = lookup.Run(fd);
  if (ret < 0) {
    // Kept: this one text goes to standard error, where those who run the program by hand expect
    // it.
    fprintf(stderr, "ERROR: Failed to lookup root id - %s\n", strerror(errno));
    return ret;
  }
  rootID = lookup.RootID();
  return 0;
}

// A file or directory, open for ioctls.
class OpenPath {
 public:
  explicit OpenPath(const char* path) : fd_(Utils::FileOrDirOpen(path, &dir_)) {}
  ~OpenPath() { Utils::FileOrDirClose(fd_, dir_); }
  OpenPath(const OpenPath&) = delete;
  OpenPath& operator=(const OpenPath&) = delete;

  int Get() const { return fd_; }

 private:
  DIR* dir_ = nullptr;  // before fd_, whose initialisation sets it
  int fd_;
};

}  // namespace

int BtrfsTool::SubvolTest(const char* path) {
  if (path == nullptr) {
    ZLOG_INVALID_ARG("__null != path");
    return -1;
  }

  struct stat st;
  if (stat(path, &st) != 0) return -errno;
  if (st.st_ino != kSubvolumeRootInode || !S_ISDIR(st.st_mode)) return 0;

  struct statfs fs;
  if (statfs(path, &fs) != 0) return -errno;
  return static_cast<unsigned long>(fs.f_type) == BTRFS_SUPER_MAGIC ? 1 : 0;
}

int BtrfsTool::SubvolRootIdLookup(const char* szPath, unsigned long long& rootID) {
  if (szPath == nullptr) {
    ZLOG_INVALID_ARG("__null != szPath");
    return -1;
  }

  const std::unique_ptr<char, CFree> path(realpath(szPath, nullptr));
  if (path == nullptr) {
    ZLOG(LOG_ERR, "Failed to get realpath of '%s', errno:%s", szPath, strerror(errno));
    return -1;
  }

  const int isSubvolume = SubvolTest(path.get());
  if (isSubvolume < 0) {
    ZLOG(LOG_ERR, "Failed to access subvolume '%s': %s", path.get(), strerror(-isSubvolume));
    return -1;
  }
  if (isSubvolume == 0) {
    ZLOG(LOG_ERR, "'%s' is not a subvolume", path.get());
    return -1;
  }

  const OpenPath subvolume(path.get());
  if (subvolume.Get() < 0) {
    ZLOG(LOG_ERR, "Cannot access '%s'", path.get());
    return -1;
  }
  if (LookupRootID(subvolume.Get(), rootID) < 0) {
    ZLOG(LOG_ERR, "Failed to lookup rootid '%s'", path.get());
    return -1;
  }
  return 0;
}

int BtrfsTool::PathToRootId(PLATSZLIST** ppListPath, PLATSZLIST** ppListRootID) {
  if (ppListPath == nullptr) {
    ZLOG_INVALID_ARG("__null != ppListPath");
    return -1;
  }
  if (ppListRootID == nullptr) {
    ZLOG_INVALID_ARG("NULL != ppListRootID");
    return -1;
  }
  if (*ppListPath == nullptr || *ppListRootID == nullptr) {
    PLAT_ERR_SET(0x0D00);
    return -1;
  }

  int volume = -1;  // not wanted here
  if (Utils::SameVolumeCheck(ppListPath, volume) != 0) {
    ZLOG(LOG_ERR, "Same volume check fails[0x%04X %s:%d]", PLAT_ERR);
    return -1;
  }

  PLATCSzListRemoveAll(*ppListRootID);
  for (int i = 0; i < (*ppListPath)->count; ++i) {
    const char* const path = PLATCSzListGet(*ppListPath, i);
    unsigned long long rootID = 0;
    if (SubvolRootIdLookup(path, rootID) != 0) {
      ZLOG(LOG_ERR, "Failed to look up the root ID of [%s]", path);
      return -1;
    }

    char text[32];  // 20 digits are the most
    snprintf(text, sizeof text, "%llu", rootID);
    if (PLATCSzListPush(ppListRootID, text) < 0) {
      ZLOG(LOG_ERR, "Failed to push root ID [%s] to the list[0x%04X %s:%d]", text, PLAT_ERR);
      return -1;
    }
  }
  return 0;
}

// ---- The btrfs command --------------------------------------------------------------------------

namespace {

// A null-terminated argument vector. The strings belong to others.
using ArgVector = std::unique_ptr<char*[], CFree>;

// Entries beside the parameters: at most six before them and the null after them.
constexpr size_t kArgsBesideParameters = 10;

constexpr size_t kVolumePathSize = 1024;

// The read end of a command; waits for the command when it goes.
struct PipeClose {
  void operator()(FILE* stream) const { (void)PLATCPclose(stream); }
};
using CommandPipe = std::unique_ptr<FILE, PipeClose>;

void InstallStopHandler() {
  (void)signal(SIGTERM, &SignalHandler::handleSnapUsageCalulate);
  // Kept: Linux refuses a handler for SIGKILL. Both signals are named as stops everywhere, and on a
  // system that would deliver it the flag is set by either.
  (void)signal(SIGKILL, &SignalHandler::handleSnapUsageCalulate);
}

// Fills in the command up to where the parameters begin. Returns that place, 0 for an unknown
// option.
int FillCommand(const _tag_ZORV_BTRFS_USAGE_CAL_TASK& task, const char* volumePath, char** argv) {
  const auto arg = [](const char* text) { return const_cast<char*>(text); };
  argv[0] = arg(kBtrfsProgram);
  argv[1] = arg("subvolume");
  argv[2] = arg("size");
  argv[3] = arg("-vpm");
  if (task.calOption == CAL_OPT_BY_PATH) return 4;
  if (task.calOption != CAL_OPT_BY_SUBVOLID) return 0;
  argv[4] = arg("-r");
  argv[5] = arg(volumePath);
  return 6;
}

// The words of the vector, each followed by a blank.
std::string CommandLine(const char* const* argv) {
  std::string line;
  for (; *argv != nullptr; ++argv) line.append(*argv).append(" ");
  return line;
}

int ResultOfParser(_tag_fp_parse_function_ret verdict, const std::string& command) {
  switch (static_cast<int>(verdict)) {
    case FP_PARSE_OK:
      return RESULT_OK;
    case FP_PARSE_SIGNALED:
      return RESULT_STOPPED;
    case FP_PARSE_FAIL:
      ZLOG(LOG_WARNING, "Failed to read pipe, cmd(%s)[0x%04X %s:%d]", command.c_str(), PLAT_ERR);
      return RESULT_FAILURE;
    default:
      ZLOG(LOG_ERR, "Unknown return code (%d) of parser function is found.",
           static_cast<int>(verdict));
      return RESULT_FAILURE;
  }
}

// Kept: each stream that was read is closed twice, here as for UUIDs. The platform's close answers
// a closed stream with -1 and harms nothing; what it then says in the error record is of no
// interest, so the record stays with the failure that it tells of.
void CloseAgain(FILE* stream) {
  const unsigned int code = PLATCErrGet();
  const std::string file = PLATCErrorGetFile();
  const unsigned int line = PLATCErrorGetLine();
  (void)PLATCPclose(stream);
  PLATCErrSetEx(code, file.c_str(), line);
}

// Starts the command, hands its output to the parser and waits for its end. A ResultCode.
int RunCommand(char** argv, const std::string& taskID, FP_PARSE_FUNCTION parser,
               PROGRESS_UPDATE_FUNCTION fpProgressUpdate, std::string& errMsg,
               std::string& btrfsCmd) {
  CommandPipe pipe(PLATCPopenv(argv[0], "rB", argv));
  if (pipe == nullptr) {
    const int saved = errno;
    if (PLATCErrGet() == 0x0900)
      ZLOG(LOG_WARNING, "Faild to open pipe[0x%04X %s:%d] [%d]", PLAT_ERR, saved);
    return RESULT_COMMAND_FAILED;
  }

  const std::string command = CommandLine(argv);
  ZLOG(LOG_DEBUG, "BTRFS CMD: %s", command.c_str());
  if (StopAsked()) return RESULT_STOPPED;  // `pipe` is closed once
  btrfsCmd = command;

  const int ret = ResultOfParser(parser(taskID, pipe.get(), errMsg, fpProgressUpdate), command);

  // Kept: the end of the command is logged, but a result that was read whole stays a success.
  FILE* const stream = pipe.release();
  if (PLATCPclose(stream) != 0) {
    PLAT_ERR_SET(0x2A00);
    ZLOG(LOG_ERR, "Failed to run\"%s\".", command.c_str());
  }
  CloseAgain(stream);
  return ret;
}

}  // namespace

// The interface passes the ID by value. NOLINTNEXTLINE(performance-unnecessary-value-param)
int BtrfsTool::CmdExc(const _tag_ZORV_BTRFS_USAGE_CAL_TASK& task, std::string taskID,
                      PLATSZLIST** ppListParam, FP_PARSE_FUNCTION pCmdFpParser, std::string& errMsg,
                      std::string& btrfsCmd, void* /*data*/) {
  if (ppListParam == nullptr) {
    ZLOG_INVALID_ARG("__null != ppListParam");
    return RESULT_INVALID_ARGUMENT;
  }
  if (pCmdFpParser == nullptr) {
    ZLOG_INVALID_ARG("NULL != pCmdFpParser");
    return RESULT_INVALID_ARGUMENT;
  }
  if (*ppListParam == nullptr) return RESULT_INVALID_ARGUMENT;
  if (PLATCFileExist(kBtrfsProgram) == 0) {
    ZLOG(LOG_ERR, "%s is not found.", kBtrfsProgram);
    return RESULT_COMMAND_MISSING;
  }

  const StopGate shut(StopGate::kShut);
  InstallStopHandler();

  // A negative count takes no parameter below, and must not take from the room of the others.
  const int parameters = std::max((*ppListParam)->count, 0);
  const size_t entries = static_cast<size_t>(parameters) + kArgsBesideParameters;
  const ArgVector argv(static_cast<char**>(calloc(entries, sizeof(char*))));
  if (argv == nullptr) {
    PLAT_ERR_SET(0x2A00);
    return RESULT_FAILURE;
  }

  char volumePath[kVolumePathSize];
  snprintf(volumePath, sizeof volumePath, "/volume%d", task.volumeNum);
  const int firstParameter = FillCommand(task, volumePath, argv.get());
  if (firstParameter == 0) {
    ZLOG(LOG_ERR, "Invalid option of calculator: %d", task.calOption);
    return RESULT_INVALID_ARGUMENT;
  }
  for (int i = 0; i < (*ppListParam)->count; ++i)
    argv[firstParameter + i] = const_cast<char*>(PLATCSzListGet(*ppListParam, i));

  if (StopAsked()) return RESULT_STOPPED;
  try {
    return RunCommand(argv.get(), taskID, pCmdFpParser, task.fpProgressUpdate, errMsg, btrfsCmd);
  } catch (...) {  // no memory for the command line, or the parser threw, whatever that is
    PLAT_ERR_SET(0x2A00);
    return RESULT_FAILURE;
  }
}

}  // namespace ZorvBtrfsUsage
