// Subvolumes and the btrfs command.
#ifndef ZORVBTRFSSNAPUSAGE_BTRFS_TOOL_H_
#define ZORVBTRFSSNAPUSAGE_BTRFS_TOOL_H_

#include <stdio.h>
#include <zorvplatform/platc.h>

#include <string>

#include "zorvbtrfssnapusage/export.h"
#include "zorvbtrfssnapusage/types.h"

namespace ZorvBtrfsUsage {

// Reads the command's output from `fp`, which stays the caller's. `errMsg` may be filled.
typedef _tag_fp_parse_function_ret (*FP_PARSE_FUNCTION)(std::string taskID, FILE* fp,
                                                        std::string& errMsg,
                                                        PROGRESS_UPDATE_FUNCTION fpProgressUpdate);

// Helpers without state but the stop flag. Failures are logged; nothing throws.
class ZORV_EXPORT BtrfsTool {
 public:
  // The last stop signal that this process got: 15, 9, or 0 for none. Never reset by the library.
  static int gSignal;

  // Whether `path` (links followed) is the root of a btrfs subvolume: a directory with inode 256 on
  // btrfs. 1 yes, 0 no, -errno when it cannot be looked at, -1 for null (platform error 0x0D00).
  static int SubvolTest(const char* path);

  // The subvolume ID (root ID, see BTRFS_IOC_INO_LOOKUP in linux/btrfs.h) of a subvolume root.
  // 0, or -1; `rootID` is written only on 0.
  static int SubvolRootIdLookup(const char* szPath, unsigned long long& rootID);

  // Empties *ppListRootID and pushes the decimal subvolume ID of each path, in order. All paths
  // must lie on one volume. 0, or -1; then the list keeps what was pushed before the failure.
  static int PathToRootId(PLATSZLIST** ppListPath, PLATSZLIST** ppListRootID);

  // Runs "/sbin/btrfs subvolume size -vpm" over the parameters and hands its standard output to the
  // parser. `task` gives the option, the volume and the progress callback; `errMsg` goes to the
  // parser; `btrfsCmd` gets the command line once it runs; `data` is not used.
  // 0; 1 parser failed; 3 null argument, null list, or unknown option; 6 no /sbin/btrfs;
  // 12 stopped by signal; 13 the command did not start. How the command itself ended does not
  // change the result. SIGTERM is blocked meanwhile, let in where the stop flag is tested; its
  // handler stays installed.
  static int CmdExc(const _tag_ZORV_BTRFS_USAGE_CAL_TASK& task, std::string taskID,
                    PLATSZLIST** ppListParam, FP_PARSE_FUNCTION pCmdFpParser, std::string& errMsg,
                    std::string& btrfsCmd, void* data);
};

}  // namespace ZorvBtrfsUsage

#endif  // ZORVBTRFSSNAPUSAGE_BTRFS_TOOL_H_
