#include "cli/results.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <zorvbtrfssnapusage/share_snap_usage_cal.h>
#include <zorvbtrfssnapusage/task_result.h>
#include <zorvplatform/platc.h>

#include <fstream>
#include <utility>

#include "cli/failure.h"
#include "cli/string_list.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

using ZorvBtrfsUsage::ShareSnapUsageCal;
using ZorvBtrfsUsage::TaskResult;

constexpr char kResultSuffix[] = ".result";
constexpr char kSubvolumeIDSuffix[] = ".subvol_id";

// The number of elements that a vector's file announces; 0 when it cannot be read.
unsigned long long AnnouncedCount(const std::string& path) {
  unsigned long long count = 0;
  std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(&count), sizeof count);
  return count;
}

// Reads a vector whose file has the length that its count announces: the reader of the library
// accepts shorter ones and repeats the last value, as often as is announced.
bool ReadWhole(const std::string& path, std::vector<unsigned long long>& values,
               struct stat& file) {
  if (stat(path.c_str(), &file) != 0 || !S_ISREG(file.st_mode)) return false;
  const auto size = static_cast<unsigned long long>(file.st_size);
  if (size < 8 || size % 8 != 0 || AnnouncedCount(path) != size / 8 - 1) return false;
  return TaskResult::ReadVtr(path, values) == 0 && values.size() == size / 8 - 1;
}

}  // namespace

std::optional<Result> ResultOfTask(const std::string& share, const std::string& taskID) {
  const std::string base = ShareSnapUsageCal::GetResultBasePath(share) + "/" + taskID;
  Result result;
  struct stat sizes, ids;
  if (!ReadWhole(base + kResultSuffix, result.exclusiveBytes, sizes) ||
      !ReadWhole(base + kSubvolumeIDSuffix, result.subvolumeIDs, ids) ||
      result.exclusiveBytes.size() != result.subvolumeIDs.size())
    return std::nullopt;
  result.taskID = taskID;
  result.stored = std::max(Moment(sizes.st_mtim), Moment(ids.st_mtim));
  return result;
}

Result RequireResultOfTask(const std::string& share, const std::string& taskID) {
  std::optional<Result> result = ResultOfTask(share, taskID);
  if (!result)
    throw SystemFailure(fmt::format(
        "the calculation of share {} is done, but its results could not be stored", Quoted(share)));
  return std::move(*result);
}

std::optional<Result> NewestResult(const std::string& share) {
  const std::string directory = ShareSnapUsageCal::GetResultBasePath(share);
  StringList names;
  if (PLATCFileEnumDir(directory.c_str(), PLATC_ENUM_THIS_DIR, names.Ref(), PLATC_ENUM_NON_DIRS) <
      0)
    return std::nullopt;
  std::optional<Result> newest;
  for (const std::string& name : names.Strings()) {
    const size_t end = name.rfind(kResultSuffix);
    if (end == std::string::npos || end + sizeof kResultSuffix - 1 != name.size()) continue;
    std::optional<Result> result = ResultOfTask(share, name.substr(0, end));
    if (result && (!newest || result->stored > newest->stored)) newest = std::move(result);
  }
  return newest;
}

}  // namespace ZorvSnapUsage
