#include "cli/engine_table.h"

#include "cli/engine_document.h"

namespace ZorvSnapUsage {
namespace {

using Ids = std::vector<unsigned long long>;

// MiB for sets: that many take one bit for each subvolume and 64 bytes, so that the document, with
// some digits for each member, has at most 48 times as much.
constexpr char kTableMemory[] = "4";
constexpr size_t kMostOutput = (size_t{4} * 48) << 20;

std::string Joined(const Ids& ids) {
  std::string text;
  for (const unsigned long long id : ids) text += (text.empty() ? "" : ",") + std::to_string(id);
  return text;
}

}  // namespace

SizeTable AskForTable(const std::string& directory, const Ids& subvolumeIDs, Silence silence) {
  const std::string document = AskEngine({{"--table", "--table-memory", kTableMemory},
                                          directory,
                                          subvolumeIDs,
                                          kMostOutput,
                                          silence == Silence::kQuiet});
  return Understood([&] { return ReadTableDocument(document, subvolumeIDs); });
}

Forecast AskForForecast(const std::string& directory, const Ids& subvolumeIDs) {
  const std::string document =
      AskEngine({{"--forecast", Joined(subvolumeIDs)}, directory, {}, kMostOutput});
  return Understood([&] { return ReadForecastDocument(document, subvolumeIDs); });
}

}  // namespace ZorvSnapUsage
