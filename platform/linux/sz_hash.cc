// String hashes: keys in the order of their bytes, so that what is made from them does not change
// from run to run.
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/error.h"
#include "platform/linux/no_throw.h"
#include "platform/linux/sz_list.h"
#include "zorvplatform/platc.h"

struct _tag_PLATSZHASH {
  std::map<std::string, std::optional<std::string>> values;
};

namespace {
constexpr char kUnit[] = "platform/sz_hash";
}  // namespace

using namespace ZorvPlatform;

PLATSZHASH* PLATCSzHashAlloc(int capacity) {
  if (capacity < 1) {
    (void)Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
    return nullptr;
  }
  return NoThrow(PLATFORM_HERE, static_cast<PLATSZHASH*>(nullptr), [] { return new PLATSZHASH; });
}

int PLATCSzHashSetValue(PLATSZHASH** hash, const char* key, const char* value) {
  if (hash == nullptr || *hash == nullptr || key == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] {
    std::optional<std::string> copy;
    if (value != nullptr) copy = value;
    (*hash)->values[key] = std::move(copy);
    return 0;
  });
}

const char* PLATCSzHashGetValue(const PLATSZHASH* hash, const char* key) {
  if (hash == nullptr || key == nullptr) {
    (void)Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
    return nullptr;
  }
  return NoThrow(PLATFORM_HERE, static_cast<const char*>(nullptr), [&]() -> const char* {
    const auto found = hash->values.find(key);
    if (found == hash->values.end() || !found->second.has_value()) return nullptr;
    return found->second->c_str();
  });
}

int PLATCSzHashEnumKey(const PLATSZHASH* hash, PLATSZLIST** keys) {
  if (hash == nullptr || keys == nullptr || *keys == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  return NoThrow(PLATFORM_HERE, -1, [&] {
    std::vector<std::string> names;
    for (const auto& entry : hash->values) names.push_back(entry.first);
    if (AppendAll(PLATFORM_HERE, *keys, names) < 0) return -1;
    return static_cast<int>(names.size());
  });
}

void PLATCSzHashFree(PLATSZHASH* hash) { delete hash; }
