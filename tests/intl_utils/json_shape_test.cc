// Looking into JSON documents of any shape never throws and agrees with the JSON library.
#include "intl_utils/json_shape.h"

#include <gtest/gtest.h>

using namespace ZorvBtrfsUsage;
using namespace std::string_literals;

namespace {

Json::Value Object(const std::string& key, const Json::Value& value) {
  Json::Value object;
  object[key] = value;
  return object;
}

// One value of each type.
const Json::Value kOfEachType[] = {Json::Value(),
                                   -1,
                                   7u,
                                   0,
                                   0.5,
                                   0.0,
                                   true,
                                   false,
                                   "text",
                                   "",
                                   Json::Value(Json::arrayValue),
                                   Json::Value(Json::objectValue)};

// What the library's own conversion gives: false when it throws.
template <typename T>
bool Converts(const Json::Value& value, T (Json::Value::*convert)() const, T& out) {
  try {
    out = (value.*convert)();
    return true;
  } catch (const Json::Exception&) {
    return false;
  }
}

}  // namespace

TEST(CanHoldMembers, ObjectsAndNull) {
  EXPECT_TRUE(CanHoldMembers(Json::Value()));
  EXPECT_TRUE(CanHoldMembers(Json::Value(Json::objectValue)));
  EXPECT_FALSE(CanHoldMembers(Json::Value(Json::arrayValue)));
  EXPECT_FALSE(CanHoldMembers(7));
  EXPECT_FALSE(CanHoldMembers("text"));
  EXPECT_FALSE(CanHoldMembers(true));
}

TEST(JsonMember, FindsMembersOfObjectsOnly) {
  const Json::Value object = Object("key", 7);
  ASSERT_NE(nullptr, JsonMember(object, "key"));
  EXPECT_EQ(7, JsonMember(object, "key")->asInt());
  EXPECT_EQ(nullptr, JsonMember(object, "other"));
  for (const Json::Value& value : kOfEachType) EXPECT_EQ(nullptr, JsonMember(value, "key"));
}

TEST(JsonMember, AMemberThatIsNullIsAMember) {
  const Json::Value object = Object("key", Json::Value());
  ASSERT_NE(nullptr, JsonMember(object, "key"));
  EXPECT_TRUE(JsonMember(object, "key")->isNull());
}

TEST(JsonMember, KeysMayHoldAnyBytes) {
  const std::string key = "a\0b"s;
  EXPECT_NE(nullptr, JsonMember(Object(key, 1), key));
  EXPECT_EQ(nullptr, JsonMember(Object(key, 1), "a"));
  EXPECT_NE(nullptr, JsonMember(Object("", 1), ""));
}

TEST(JsonText, AgreesWithTheLibrary) {
  for (const Json::Value& value : kOfEachType) {
    SCOPED_TRACE(value.toStyledString());
    std::string expected = "old";
    std::string text = "old";
    EXPECT_EQ(Converts(value, &Json::Value::asString, expected), JsonText(value, text));
    EXPECT_EQ(expected, text);
  }
}

TEST(JsonBool, AgreesWithTheLibrary) {
  for (const Json::Value& value : kOfEachType) {
    SCOPED_TRACE(value.toStyledString());
    for (const bool before : {true, false}) {
      bool expected = before;
      bool on = before;
      EXPECT_EQ(Converts(value, &Json::Value::asBool, expected), JsonBool(value, on));
      EXPECT_EQ(expected, on);
    }
  }
}
