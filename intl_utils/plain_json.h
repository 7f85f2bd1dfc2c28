// Looks a few members up in a large JSON file without building all of it.
//
// The plain form is what this library writes: an object in one line without blanks, members sorted
// by their names, no escapes, whole numbers. Its values lie in the text as they are, so that one
// pass over it finds them; building a document of a thousand shares takes several times as long.
#ifndef INTL_UTILS_PLAIN_JSON_H_
#define INTL_UTILS_PLAIN_JSON_H_

#include <json/value.h>

#include <functional>
#include <string>
#include <string_view>

namespace ZorvBtrfsUsage {

// Whether a member is wanted, by its name and the text of its value. A string in that text stands
// there byte for byte, between quotes.
using MemberFilter = std::function<bool(std::string_view name, std::string_view value)>;

// Reads those members of a file's object that are wanted. False: the file cannot be read, is not in
// the plain form, or there is no memory; `out` as it was. What is in it is then for
// Utils::GetJsonAttrByPath to say. Logs nothing.
bool ReadPlainMembers(const char* path, const MemberFilter& wanted, Json::Value& out);

// The same for a text.
bool ParsePlainMembers(std::string_view text, const MemberFilter& wanted, Json::Value& out);

}  // namespace ZorvBtrfsUsage

#endif  // INTL_UTILS_PLAIN_JSON_H_
