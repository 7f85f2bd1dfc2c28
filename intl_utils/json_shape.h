// Looks into JSON documents that somebody else may have written, without exceptions.
#ifndef INTL_UTILS_JSON_SHAPE_H_
#define INTL_UTILS_JSON_SHAPE_H_

#include <json/value.h>

#include <string>

namespace ZorvBtrfsUsage {

// Whether members may be set on `value`: an object, or null (which becomes one).
inline bool CanHoldMembers(const Json::Value& value) { return value.isObject() || value.isNull(); }

// The member `key`, owned by `value`; null when `value` is no object or has no such member.
inline const Json::Value* JsonMember(const Json::Value& value, const std::string& key) {
  if (!value.isObject()) return nullptr;
  return value.find(key.data(), key.data() + key.size());
}

// The text of a scalar as the JSON library converts it (numbers and booleans too, null is empty).
// False: an array or an object; `out` as it was.
inline bool JsonText(const Json::Value& value, std::string& out) {
  if (!value.isConvertibleTo(Json::stringValue)) return false;
  out = value.asString();
  return true;
}

// The truth of a scalar as the JSON library converts it (a number that is not 0 is true, null is
// false). False: a string, an array or an object; `out` as it was.
inline bool JsonBool(const Json::Value& value, bool& out) {
  if (!value.isConvertibleTo(Json::booleanValue)) return false;
  out = value.asBool();
  return true;
}

}  // namespace ZorvBtrfsUsage

#endif  // INTL_UTILS_JSON_SHAPE_H_
