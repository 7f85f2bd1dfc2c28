// Counts of what occurs in generated file systems, by name.
#ifndef TESTS_ENGINE_FEATURES_H_
#define TESTS_ENGINE_FEATURES_H_

#include <map>
#include <string>

namespace ZorvTest {

// How often each feature occurred; a name that is not there did not.
using Features = std::map<std::string, unsigned>;

inline void AddFeatures(const Features& more, Features* to) {
  for (const auto& [name, count] : more) (*to)[name] += count;
}

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_FEATURES_H_
