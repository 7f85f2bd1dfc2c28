#include "engine/profile_bytes.h"

#include <algorithm>

namespace ZorvEngine {

std::vector<ProfileBytes> ByProfile(const SizeTable& table, const std::vector<HeldBytes>& bytes) {
  std::vector<ProfileBytes> profiles;
  for (size_t i = 0; i < bytes.size(); ++i) {
    const Redundancy& redundancy = table.redundancies[i];
    const char* name = ProfileName(redundancy.profile);
    auto at = std::ranges::find(profiles, name, &ProfileBytes::profile);
    if (at == profiles.end()) at = profiles.insert(at, {name, {}, {}});
    at->held += bytes[i];
    at->raw += HeldBytes{SizeTable::RawBytes(redundancy, bytes[i].data),
                         SizeTable::RawBytes(redundancy, bytes[i].metadata)};
  }
  return profiles;
}

std::vector<HeldBytes> SumOfSteps(const SizeTable& table, const std::vector<ForecastStep>& steps) {
  std::vector<HeldBytes> sum(table.redundancies.size());
  for (const ForecastStep& step : steps)
    for (size_t i = 0; i < sum.size(); ++i) sum[i] += step.bytes[i];
  return sum;
}

}  // namespace ZorvEngine
