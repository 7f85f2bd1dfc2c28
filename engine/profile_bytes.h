// profile_bytes.h: bytes of a table by the profile of the block groups that they lie in.
#ifndef ENGINE_PROFILE_BYTES_H_
#define ENGINE_PROFILE_BYTES_H_

#include <vector>

#include "engine/size/size_table.h"

namespace ZorvEngine {

// What lies in block groups of one profile.
struct ProfileBytes {
  const char* profile;  // the name that users know
  HeldBytes held;       // one copy of each
  HeldBytes raw;        // on all devices together, copies and parity included
};

// Adds up `bytes` (one for each of the table's redundancies) by profile, each profile once.
std::vector<ProfileBytes> ByProfile(const SizeTable& table, const std::vector<HeldBytes>& bytes);

// Sum of all steps, for each of the table's redundancies.
std::vector<HeldBytes> SumOfSteps(const SizeTable& table, const std::vector<ForecastStep>& steps);

}  // namespace ZorvEngine

#endif  // ENGINE_PROFILE_BYTES_H_
