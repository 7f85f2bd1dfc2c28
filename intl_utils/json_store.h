// The JSON store as the library's own units use it: those who know that a change is worth less than
// a sync can say so.
#ifndef INTL_UTILS_JSON_STORE_H_
#define INTL_UTILS_JSON_STORE_H_

#include <json/value.h>

#include <string>

#include "base/durable.h"

namespace ZorvBtrfsUsage {

// Utils::SetJsonAttrByPath with a say on what a power cut may do. It counts below the persistent
// directory alone; Utils::SetJsonAttrByPath itself is kSynced there.
bool StoreJson(const std::string& path, const Json::Value& value, Durability durability);

}  // namespace ZorvBtrfsUsage

#endif  // INTL_UTILS_JSON_STORE_H_
