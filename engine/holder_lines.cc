#include "engine/holder_lines.h"

namespace ZorvEngine {
namespace {

bool GiveVersion(size_t number, const PathVersion& version, const std::vector<uint64_t>& ids,
                 const LineSink& sink) {
  const VersionNumbers& is = version.numbers;
  const std::string begin = "version " + std::to_string(number);
  const std::string kind = is.isDirectory != 0 ? " directory files " : " file files ";
  const std::string of = begin + " of";
  return sink(begin + kind + std::to_string(is.files) + " size " + std::to_string(is.size) +
              " data " + std::to_string(is.bytes) + " inode " + std::to_string(is.inode) +
              " generation " + std::to_string(is.generation) + " modified " + ModifiedText(is) +
              "\n") &&
         GiveWithIds(of, of, ids, version.subvolumes, sink);
}

bool GiveGroup(const HeldGroup& group, const std::vector<uint64_t>& ids, const LineSink& sink) {
  const std::string by = group.outside ? " outside too, and by" : " by";
  return GiveWithIds(
      "held data " + std::to_string(group.bytes) + " extents " + std::to_string(group.extents) + by,
      "held also by", ids, group.subvolumes, sink);
}

}  // namespace

std::string ModifiedText(const VersionNumbers& version) {
  const std::string digits = std::to_string(version.nanoseconds);
  const size_t zeros = digits.size() < 9 ? 9 - digits.size() : 0;
  return std::to_string(version.modified) + "." + std::string(zeros, '0') + digits;
}

bool GiveHolderLines(const HolderReport& report, const std::vector<uint64_t>& ids,
                     const LineSink& sink) {
  for (size_t i = 0; i < report.versions.size(); ++i)
    if (!GiveVersion(i + 1, report.versions[i], ids, sink)) return false;
  if (!report.without.empty() && !GiveWithIds("without", "without", ids, report.without, sink))
    return false;
  if (!report.nested.empty() && !GiveWithIds("nested", "nested", ids, report.nested, sink))
    return false;
  for (const HeldGroup& group : report.groups)
    if (!GiveGroup(group, ids, sink)) return false;
  return sink("holders complete\n");
}

}  // namespace ZorvEngine
