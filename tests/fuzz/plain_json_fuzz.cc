// The quick look-up of members: what it takes for plain means the same to the JSON library.
#include <json/reader.h>

#include "intl_utils/plain_json.h"
#include "tests/fuzz/target.h"

using ZorvBtrfsUsage::ParsePlainMembers;

FUZZ_TARGET(plain_json) {
  const auto all = [](std::string_view, std::string_view) { return true; };
  Json::Value plain;
  if (!ParsePlainMembers(input, all, plain)) {
    FUZZ_LAW(plain.isNull());
    return;
  }
  Json::Value whole;
  Json::Reader reader;
  FUZZ_LAW(reader.parse(input.data(), input.data() + input.size(), whole, false));
  FUZZ_LAW(plain == whole);

  Json::Value some;
  const std::string wanted = whole.empty() ? "" : whole.getMemberNames().back();
  FUZZ_LAW(ParsePlainMembers(
      input, [&](std::string_view name, std::string_view) { return name == wanted; }, some));
  FUZZ_LAW(whole.empty() ? some.empty() : some.size() == 1 && some[wanted] == whole[wanted]);
}
