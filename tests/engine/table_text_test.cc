// What a table says as lines and as a JSON document, on tables made by hand.
#include <gtest/gtest.h>
#include <limits.h>

#include <sstream>
#include <string>
#include <vector>

#include "engine/json_text.h"
#include "engine/profile_bytes.h"
#include "engine/table_json.h"
#include "engine/table_lines.h"

using namespace ZorvEngine;

namespace {

constexpr uint64_t kRaid1 = 1 << 4;
constexpr uint64_t kRaid5 = 1 << 7;

// Three subvolumes; 257 and 261 hold something together, all three something else.
SizeTable ThreeSubvolumes() {
  SizeTable table;
  table.ids = {257, 300, 261};
  table.redundancies = {{0, 1, 1}, {kRaid1, 2, 1}};
  table.rows = {{{0}, true, {{4096, 0}, {0, 16384}}},
                {{1}, true, {{0, 0}, {0, 0}}},
                {{2}, true, {{0, 0}, {8192, 0}}},
                {{0, 2}, true, {{100, 0}, {0, 32768}}},
                {{0, 1, 2}, true, {{1000, 0}, {0, 0}}}};
  return table;
}

// As far as it is known when no set but single ones is kept.
SizeTable KnownInPart() {
  SizeTable table = ThreeSubvolumes();
  table.rows.resize(3);
  table.rows.push_back({{2}, false, {{1100, 0}, {0, 32768}}});
  return table;
}

std::string ForecastText(const SizeTable& table, const std::vector<uint32_t>& order) {
  std::string text;
  EXPECT_TRUE(GiveForecastLines(table, *table.Forecast(order), [&](const std::string& line) {
    text += line;
    return true;
  }));
  return text;
}

std::string TableText(const SizeTable& table) {
  std::string text;
  EXPECT_TRUE(GiveTableLines(table, [&](const std::string& line) {
    EXPECT_LE(line.size(), size_t{PIPE_BUF});
    EXPECT_EQ(line.size() - 1, line.find('\n'));
    text += line;
    return true;
  }));
  return text;
}

std::string Json(const SizeTable& table, const JsonParts& parts) {
  SizeResult result;
  result.generation = 12;
  result.table = table;
  std::string text;
  EXPECT_TRUE(WriteResultJson(result, parts, [&](const std::string& piece) {
    text += piece;
    return true;
  }));
  return text;
}

}  // namespace

TEST(ForecastLines, SayEachStepAndTheSum) {
  EXPECT_EQ(
      "forecast 1 257 data 4096 metadata 16384 so far data 4096 metadata 16384\n"
      "forecast 2 300 data 0 metadata 0 so far data 4096 metadata 16384\n"
      "forecast 3 261 data 9292 metadata 32768 so far data 13388 metadata 49152\n"
      "forecast all data 13388 metadata 49152\n"
      "forecast raw single data 5196 metadata 0\n"
      "forecast raw raid1 data 16384 metadata 98304\n",
      ForecastText(ThreeSubvolumes(), {0, 1, 2}));
}

TEST(ForecastLines, SayTheSameOfATableThatIsKnownInPart) {
  EXPECT_EQ(ForecastText(ThreeSubvolumes(), {0, 1, 2}), ForecastText(KnownInPart(), {0, 1, 2}));
}

TEST(ForecastLines, LeaveOutWhatOthersOfTheTableHold) {
  EXPECT_EQ(
      "forecast 1 257 data 4096 metadata 16384 so far data 4096 metadata 16384\n"
      "forecast all data 4096 metadata 16384\n"
      "forecast raw single data 4096 metadata 0\n"
      "forecast raw raid1 data 0 metadata 32768\n",
      ForecastText(ThreeSubvolumes(), {0}));
}

TEST(ForecastLines, EndWhenNothingMoreIsWanted) {
  const SizeTable table = ThreeSubvolumes();
  for (int wanted = 0; wanted < 6; ++wanted) {
    int given = 0;
    EXPECT_FALSE(GiveForecastLines(table, *table.Forecast({0, 1, 2}),
                                   [&](const std::string&) { return given++ < wanted; }));
    EXPECT_EQ(wanted + 1, given);
  }
}

TEST(ProfileBytes, AddsUpBlockGroupsOfOneProfile) {
  SizeTable table;
  table.redundancies = {{kRaid5, 3, 2}, {kRaid1, 2, 1}, {kRaid5, 4, 3}};
  const std::vector<ProfileBytes> profiles = ByProfile(table, {{20000, 200}, {1, 2}, {30000, 300}});
  ASSERT_EQ(2u, profiles.size());
  EXPECT_STREQ("raid5", profiles[0].profile);
  EXPECT_EQ(50000u, profiles[0].held.data);
  EXPECT_EQ(30000u + 40000u, profiles[0].raw.data);
  EXPECT_EQ(300u + 400u, profiles[0].raw.metadata);
  EXPECT_STREQ("raid1", profiles[1].profile);
  EXPECT_EQ(2u, profiles[1].raw.data);
}

TEST(TableLines, SayEachSet) {
  EXPECT_EQ(
      "set data 4096 metadata 16384 of 257\n"
      "set data 0 metadata 0 of 300\n"
      "set data 8192 metadata 0 of 261\n"
      "set data 100 metadata 32768 of 257 261\n"
      "set data 1000 metadata 0 of 257 300 261\n"
      "table complete\n",
      TableText(ThreeSubvolumes()));
}

TEST(TableLines, SayInWordsWhatIsKnownInPart) {
  EXPECT_EQ(
      "set data 4096 metadata 16384 of 257\n"
      "set data 0 metadata 0 of 300\n"
      "set data 8192 metadata 0 of 261\n"
      "sets data 1100 metadata 32768 with last 261\n"
      "table incomplete: " +
          std::string(kIncompleteTable) + "\n",
      TableText(KnownInPart()));
}

// Members of a kept set may hold nothing together; thousands of such lines help nobody.
TEST(TableText, LeavesOutSetsOfSeveralThatHoldNothing) {
  SizeTable table = KnownInPart();
  table.rows.push_back({{0, 1}, true, {{0, 0}, {0, 0}}});
  table.rows.push_back({{1}, false, {{0, 0}, {0, 0}}});
  EXPECT_EQ(TableText(KnownInPart()), TableText(table));
  EXPECT_EQ(Json(KnownInPart(), {nullptr, true}), Json(table, {nullptr, true}));
}

TEST(TableLines, GoOnWhenTheIdsDoNotFit) {
  SizeTable table;
  table.redundancies = {{}};
  for (uint64_t i = 0; i < 1000; ++i) {
    table.ids.push_back(UINT64_MAX - 300 - i);
    table.rows.push_back({{static_cast<uint32_t>(i)}, true, {{}}});
  }
  table.rows.push_back({{}, true, {{UINT64_MAX, 0}}});
  for (uint32_t i = 0; i < 1000; ++i) table.rows.back().members.push_back(i);

  const std::string text = TableText(table);
  std::istringstream lines(text.substr(text.find("set data 18446744073709551615 metadata 0 of ")));
  std::vector<uint64_t> ids;
  int continued = 0;
  for (std::string line; std::getline(lines, line) && line != "table complete";) {
    continued += line.rfind("set also of ", 0) == 0;
    std::istringstream members(line.substr(line.find(" of ") + 4));
    for (uint64_t id = 0; members >> id;) ids.push_back(id);
  }
  EXPECT_EQ(table.ids, ids);
  EXPECT_EQ(5, continued);
}

TEST(ResultJson, SaysExclusiveSizes) {
  SizeTable table = ThreeSubvolumes();
  EXPECT_EQ(R"({"format":"zorv-subvolume-size","version":1,"generation":12,)"
            "\n"
            R"("subvolumes":[257,300,261],)"
            "\n"
            R"("exclusive":[)"
            "\n"
            R"({"subvolume":257,"data":4096,"metadata":16384,"profiles":{)"
            R"("single":{"data":4096,"metadata":0,"raw_data":4096,"raw_metadata":0},)"
            R"("raid1":{"data":0,"metadata":16384,"raw_data":0,"raw_metadata":32768}}},)"
            "\n"
            R"({"subvolume":300,"data":0,"metadata":0,"profiles":{)"
            R"("single":{"data":0,"metadata":0,"raw_data":0,"raw_metadata":0},)"
            R"("raid1":{"data":0,"metadata":0,"raw_data":0,"raw_metadata":0}}},)"
            "\n"
            R"({"subvolume":261,"data":8192,"metadata":0,"profiles":{)"
            R"("single":{"data":0,"metadata":0,"raw_data":0,"raw_metadata":0},)"
            R"("raid1":{"data":8192,"metadata":0,"raw_data":16384,"raw_metadata":0}}}]})"
            "\n",
            Json(table, {}));
}

TEST(ResultJson, SaysPlanAndSets) {
  SizeTable table;
  table.ids = {257, 258};
  table.redundancies = {{}};
  table.rows = {{{0}, true, {{UINT64_MAX, 1}}}, {{1}, true, {{2, 3}}}, {{0, 1}, true, {{4, 5}}}};
  const std::vector<ForecastStep> plan = *table.Forecast({1});
  const std::string text = Json(table, {&plan, true});
  EXPECT_NE(std::string::npos,
            text.find("\"forecast\":{\"steps\":[\n{\"subvolume\":258,\"data\":2,\"metadata\":3,"
                      "\"profiles\":{\"single\":{\"data\":2,\"metadata\":3,\"raw_data\":2,"
                      "\"raw_metadata\":3}},\"so_far\":{\"data\":2,\"metadata\":3}}],\n"
                      "\"all\":{\"data\":2,\"metadata\":3,"))
      << text;
  EXPECT_NE(std::string::npos,
            text.find("\"sets\":[\n{\"subvolumes\":[257],\"data\":18446744073709551615,"))
      << text;
  EXPECT_NE(std::string::npos, text.find("{\"subvolumes\":[257,258],\"data\":4,\"metadata\":5,"));
  EXPECT_NE(std::string::npos, text.find("],\n\"complete\":true}\n"));
}

// A reader that looks at "sets" alone must not take a sum of several sets for one.
TEST(ResultJson, KeepsSetsThatAreKnownInPartApart) {
  const std::string text = Json(KnownInPart(), {nullptr, true});
  const size_t sums =
      text.find("\"summed_sets\":[\n{\"last\":261,\"data\":1100,\"metadata\":32768,");
  ASSERT_NE(std::string::npos, sums) << text;
  EXPECT_NE(std::string::npos, text.find("\"complete\":false,\"note\":\"more sets than "));
  EXPECT_LT(text.rfind("{\"subvolumes\":"), sums);
}

// No line of the document may be taken for a line of sizes.
TEST(ResultJson, HasNoLineThatLooksLikeASize) {
  for (const SizeTable& table : {ThreeSubvolumes(), KnownInPart()}) {
    const std::vector<ForecastStep> plan = *table.Forecast({0, 1, 2});
    std::istringstream lines(Json(table, {&plan, true}));
    for (std::string line; std::getline(lines, line);)
      for (const char* word : {"subvol", "exclusive", "processed"})
        EXPECT_NE(0u, line.find(word)) << line;
  }
}

TEST(JsonText, HandsOnLongDocumentsInPieces) {
  size_t pieces = 0, bytes = 0;
  JsonText json([&](const std::string& piece) {
    ++pieces;
    bytes += piece.size();
    EXPECT_LT(piece.size(), 70000u);
    return true;
  });
  json.Begin('[');
  for (int i = 0; i < 100000; ++i) json.Number(7);
  json.End(']');
  EXPECT_TRUE(json.Finish());
  EXPECT_GE(pieces, 4u);
  EXPECT_EQ(200002u, bytes);  // digits, commas, brackets, line end
}

TEST(JsonText, RemembersThatNothingMoreIsWanted) {
  int pieces = 0;
  JsonText json([&](const std::string&) { return pieces++ > 0; });
  json.Begin('[');
  for (int i = 0; i < 100000; ++i) json.Number(7);
  json.End(']');
  EXPECT_FALSE(json.Finish());
  EXPECT_EQ(1, pieces);
}
