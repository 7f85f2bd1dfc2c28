// Samba's shares, as testparm tells them.
//
//   the files        without shadow copies in them, nothing is asked
//   the program      its output, or the one kept from the last time with the same files
#include "platform/linux/samba.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "base/unique_fd.h"
#include "platform/linux/error.h"
#include "platform/linux/own_directory.h"
#include "platform/linux/read_file.h"
#include "platform/linux/run_program.h"
#include "platform/linux/samba_files.h"
#include "platform/linux/testparm.h"
#include "zorvplatform/platc.h"

namespace ZorvPlatform {

namespace {

constexpr char kUnit[] = "platform/samba";

constexpr char kTestparm[] = "/usr/bin/testparm";
constexpr int kMostSeconds = 10;
constexpr size_t kMostOutput = 8 << 20;

constexpr char kKept[] = "testparm";  // in the platform's own directory

// What is kept begins with the state of the files that it is the output for.
std::string KeptHead(const std::string& state) { return state + "\n"; }

bool ReadKept(const UniqueFd& directory, const std::string& state, std::string* output) {
  std::string kept;
  const std::string head = KeptHead(state);
  if (!directory.Valid() || state.empty() ||
      !ReadRegularFile(directory.Get(), kKept, O_NOFOLLOW, kMostOutput + head.size(), &kept) ||
      kept.compare(0, head.size(), head) != 0)
    return false;
  *output = kept.substr(head.size());
  return true;
}

// Keeps the output for the next time; when that fails, the program is asked then as well.
void Keep(const UniqueFd& directory, const std::string& state, const std::string& output) {
  if (!directory.Valid() || state.empty()) return;
  const std::string fresh = std::string(kKept) + "." + std::to_string(gettid());
  const std::string text = KeptHead(state) + output;
  (void)unlinkat(directory.Get(), fresh.c_str(), 0);
  const UniqueFd fd(
      openat(directory.Get(), fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!fd.Valid()) return;
  const bool whole = write(fd.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (!whole || renameat(directory.Get(), fresh.c_str(), directory.Get(), kKept) != 0)
    (void)unlinkat(directory.Get(), fresh.c_str(), 0);
}

int Refuse(const std::string& why) {
  return FailSaying(PLATFORM_HERE, PLATC_ERR_CONFIGURATION,
                    std::string("the shares of ") + kSmbConf + " cannot be told: " + kTestparm +
                        " " + why + "; samba = off in /etc/zorv-snapusage.conf does without them");
}

}  // namespace

int ReadSamba(Configured* configured) {
  SambaFiles files;
  if (ReadSambaFiles(&files) < 0) return -1;
  if (!files.there || !files.shadowCopies) return 0;

  std::string output, why;
  // Without a place to keep it the program is asked each time; that is no error of its own.
  const UniqueFd directory = OpenOwnDirectory({}, &why);
  const bool kept = ReadKept(directory, files.state, &output);
  if (!kept && !RunForOutput({kTestparm, "-s", kSmbConf}, kMostSeconds, kMostOutput, &output, &why))
    return Refuse(why);
  if (!ParseTestparm(output, configured, &why)) return Refuse("cannot be relied on: " + why);
  if (!kept) Keep(directory, files.state, output);
  return 0;
}

}  // namespace ZorvPlatform
