// The engine's document, and everything that is none.
#include "cli/table_document.h"

#include <gtest/gtest.h>

using namespace ZorvSnapUsage;

namespace {

using Ids = std::vector<unsigned long long>;

constexpr char kTable[] = R"({"format":"zorv-subvolume-size","version":1,"generation":12,
"subvolumes":[257,258,300],
"exclusive":[
{"subvolume":257,"data":4096,"metadata":16384,"profiles":{"single":{"data":4096,"metadata":0}}}],
"sets":[
{"subvolumes":[257],"data":4096,"metadata":16384,"profiles":{}},
{"subvolumes":[300,257,258],"data":18014398509481984,"metadata":0,"profiles":{}}],
"complete":true}
)";

constexpr char kForecast[] = R"({"format":"zorv-subvolume-size","version":1,"generation":13,
"subvolumes":[258,257],"exclusive":[],"forecast":{"steps":[
{"subvolume":258,"data":1,"metadata":2,"profiles":{},"so_far":{"data":1,"metadata":2}},
{"subvolume":257,"data":10,"metadata":20,"profiles":{},"so_far":{"data":11,"metadata":22}}],
"all":{"data":11,"metadata":22,"profiles":{}}}})";

// A document with one part of it exchanged.
std::string With(std::string text, const std::string& part, const std::string& other) {
  const size_t at = text.find(part);
  EXPECT_NE(std::string::npos, at) << part;
  return text.replace(at, part.size(), other);
}

std::string ComplaintAbout(const std::string& text) {
  try {
    (void)ReadTableDocument(text, {257, 258, 300});
    return "none";
  } catch (const JsonError& error) {
    return error.what();
  }
}

}  // namespace

TEST(TableDocument, HasSetsByPlace) {
  const SizeTable table = ReadTableDocument(kTable, {257, 258, 300});
  EXPECT_EQ(12u, table.generation);
  EXPECT_EQ((Ids{257, 258, 300}), table.subvolumeIDs);
  ASSERT_EQ(2u, table.sets.size());
  EXPECT_EQ((Members{{0, 0}}), table.sets[0].members);
  EXPECT_EQ((FreedBytes{4096, 16384}), table.sets[0].bytes);
  EXPECT_EQ((Members{{0, 2}}), table.sets[1].members);
  EXPECT_EQ(18014398509481984u, table.sets[1].bytes.data) << "beyond floating point";
  EXPECT_TRUE(table.Complete());
}

TEST(TableDocument, HasSums) {
  const std::string text = With(kTable, "\"complete\":true",
                                "\"complete\":false,\"note\":\"x \\\"y\\\"\",\"summed_sets\":["
                                "{\"last\":300,\"data\":7,\"metadata\":8,\"profiles\":{}}]");
  const SizeTable table = ReadTableDocument(text, {257, 258, 300});
  ASSERT_EQ(1u, table.sums.size());
  EXPECT_EQ(2u, table.sums[0].last);
  EXPECT_EQ((FreedBytes{7, 8}), table.sums[0].bytes);
}

TEST(TableDocument, PlanHasSteps) {
  const Forecast forecast = ReadForecastDocument(kForecast, {258, 257});
  EXPECT_EQ(13u, forecast.generation);
  EXPECT_EQ((std::vector<FreedBytes>{{1, 2}, {10, 20}}), forecast.steps);
  EXPECT_THROW((void)ReadForecastDocument(kForecast, {257, 258}), JsonError) << "another order";
  EXPECT_THROW((void)ReadForecastDocument(kTable, {257, 258, 300}), JsonError);
  EXPECT_THROW((void)ReadForecastDocument(
                   With(kForecast, "{\"subvolume\":257,", "{\"subvolume\":258,"), {258, 257}),
               JsonError);
}

TEST(TableDocument, MembersThatAreNotKnownAreSkipped) {
  const std::string text =
      With(kTable, "\"generation\"",
           R"("new":[{"a":null,"b":[true,false,-1.5e+3]},"\u00e9\n"],"generation")");
  EXPECT_EQ("none", ComplaintAbout(text));
}

TEST(TableDocument, AnyPartOfItIsTooShort) {
  const std::string text = kTable;
  const size_t whole = text.rfind('}');
  for (size_t length = 0; length <= whole; ++length)
    EXPECT_NE("none", ComplaintAbout(text.substr(0, length))) << length;
  EXPECT_EQ("none", ComplaintAbout(text.substr(0, whole + 1)));
}

TEST(TableDocument, WhatIsWrongIsSaid) {
  const struct {
    const char *part, *other, *complaint;
  } kCases[] = {
      {"zorv-subvolume-size", "subvolume-size", "another format"},
      {"\"version\":1", "\"version\":2", "another version"},
      {"\"version\":1,", "", "version is missing"},
      {"\"generation\":12,", "", "generation is missing"},
      {"[257,258,300],", "[257,300,258],", "other subvolumes than asked for"},
      {"[257,258,300],", "[257,258],", "other subvolumes than asked for"},
      {"\"complete\":true", "\"complete\":false", "a table that contradicts itself"},
      {"\"complete\":true", "\"complete\":1", "neither true nor false"},
      {"\"complete\":true", "\"complete\":true,\"complete\":true", "a second member complete"},
      {",\n\"complete\":true", "", "complete is missing"},
      {"[300,257,258]", "[300,257,257]", "a set that is none"},
      {"[300,257,258]", "[]", "a set that is none"},
      {"[300,257,258]", "[300,259]", "a subvolume that was not asked for"},
      {"[300,257,258]", "[300,\"257\"]", "no whole number"},
      {"18014398509481984", "18446744073709551616", "a number above 64 bits"},
      {"18014398509481984", "18446744073709551615", "more bytes than there can be"},
      {"18014398509481984", "1.5", "no whole number"},
      {"18014398509481984", "1e3", "no whole number"},
      {"18014398509481984", "-1", "no whole number"},
      {"18014398509481984", "007", "no whole number"},
      {"18014398509481984", "null", "no whole number"},
      {"\"sets\":[", "\"sets\":{", "'[' is missing"},
      {"\"complete\":true}\n", "\"complete\":true}{}", "something behind the end"},
      {"\"format\":", "\"format\" ", "':' is missing"},
  };
  for (const auto& c : kCases)
    EXPECT_NE(std::string::npos, ComplaintAbout(With(kTable, c.part, c.other)).find(c.complaint))
        << c.other << ": " << ComplaintAbout(With(kTable, c.part, c.other));
  EXPECT_NE("none", ComplaintAbout("generation 12\ntotal 4096 bytes\n"));
  EXPECT_NE("none", ComplaintAbout(With(kTable, "\"generation\"",
                                        "\"deep\":" + std::string(1000, '[') + ",\"generation\"")));
}
