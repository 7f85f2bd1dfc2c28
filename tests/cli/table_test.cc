// Tables for people, for scripts, and as JSON.
#include "cli/table.h"

#include <gtest/gtest.h>
#include <stdlib.h>

using namespace ZorvSnapUsage;

namespace {

const Columns kColumns = {{"size", "SIZE"}, {"state", "STATE", Column::Side::kLeft},
                          {"time", "TIME"}, {"age", "AGE"},
                          {"present", ""},  {"name", "NAME"}};

class TableTest : public testing::Test {
 protected:
  TableTest() : table_(kColumns) {
    setenv("TZ", "Asia/Taipei", 1);
    tzset();
    table_.Add({Cell::Bytes(1280), Cell::Text("done", Tone::kGood), Cell::Time(1709629449),
                Cell::Span(93), Cell::Flag(true), Cell::Text("two\tlines\n")});
    table_.Add({Cell::Bytes(1ull << 63), Cell::Text("process"), Cell::Time({}), Cell::Span({}),
                Cell::Flag(false), Cell::Text("Fotos für 写真", Tone::kFaint, "deleted")});
    table_.Add({Cell::Bytes({}), Cell::Text(""), Cell::Time(0), Cell::Span(100000),
                Cell::Flag(false), Cell::Text("", Tone::kPlain, "deleted")});
  }
  ~TableTest() override {
    unsetenv("TZ");
    tzset();
  }

  // The names' first bytes, in the order in which they are printed.
  std::string Order(const std::string& key, bool descending) {
    OutputFormat format;
    format.sort = SortOrder{key, descending};
    std::string order;
    for (const Json::Value& row : table_.Rows(format))
      order += row["name"].isNull() ? '-' : row["name"].asString()[0];
    return order;
  }

  Table table_;
};

TEST_F(TableTest, ForPeople) {
  EXPECT_EQ(
      "    SIZE  STATE                   TIME      AGE  NAME\n"
      "1.25 KiB  done     2024-03-05 17:04:09    1 min  two\\tlines\\n\n"
      "8.00 EiB  process                    -        -  Fotos für 写真 (deleted)\n"
      "       -  -        1970-01-01 08:00:00  1 d 3 h  (deleted)\n",
      table_.Text({}));
}

TEST_F(TableTest, ForScripts) {
  OutputFormat format;
  format.plain = format.color = true;
  EXPECT_EQ(
      "1280\tdone\t2024-03-05T17:04:09+08:00\t93\ttwo\\tlines\\n\n"
      "9223372036854775808\tprocess\t-\t-\tFotos für 写真\n"
      "-\t-\t1970-01-01T08:00:00+08:00\t100000\t-\n",
      table_.Text(format))
      << "a name is nothing but a name";
  format.units = Units::kSi;
  EXPECT_EQ(0u, table_.Text(format).find("1.28 kB\t"))
      << "units that are asked for count there too";
}

// Only names stand alone for scripts; elsewhere a note says what no other column does.
TEST_F(TableTest, NoteOfAMiddleColumnIsForScriptsToo) {
  Table table({{"state", "STATE"}, {"name", "NAME"}, {"path", ""}});
  table.Add({Cell::Text("process", Tone::kBad, "gone"), Cell::Text("a", Tone::kPlain, "deleted"),
             Cell::Text("/a")});
  OutputFormat format;
  format.plain = true;
  EXPECT_EQ("process (gone)\ta\n", table.Text(format));
}

TEST_F(TableTest, WideCharactersOfAMiddleColumnCount) {
  Table table({{"state", "STATE", Column::Side::kLeft}, {"name", "NAME"}});
  table.Add({Cell::Text("写真写真"), Cell::Text("a")});
  EXPECT_EQ("STATE     NAME\n写真写真  a\n", table.Text({}));
}

TEST_F(TableTest, ColorsStandBesideThePadding) {
  OutputFormat format;
  format.color = true;
  const std::string text = table_.Text(format);
  EXPECT_EQ(0u, text.find("\033[1m    SIZE  STATE  ")) << text;
  EXPECT_NE(std::string::npos, text.find("NAME\033[0m\n1.25 KiB  \033[32mdone\033[0m     2024"))
      << text;
  EXPECT_NE(std::string::npos, text.find("  \033[2mFotos für 写真 (deleted)\033[0m\n")) << text;
}

TEST_F(TableTest, NoLinesLeaveTheHeader) {
  Table table(kColumns);
  EXPECT_TRUE(table.IsEmpty());
  EXPECT_EQ("SIZE  STATE  TIME  AGE  NAME\n", table.Text({}));
  OutputFormat format;
  format.plain = true;
  EXPECT_EQ("", table.Text(format));
  EXPECT_TRUE(table.Rows(format).isArray());
}

TEST_F(TableTest, SortsByValueTheUnknownLast) {
  EXPECT_EQ("tF-", Order("size", false));
  EXPECT_EQ("Ft-", Order("size", true));
  EXPECT_EQ("-tF", Order("time", false));
  EXPECT_EQ("t-F", Order("time", true));
  EXPECT_EQ("t-F", Order("age", false));
  EXPECT_EQ("Ft-", Order("name", false));
  EXPECT_EQ("tF-", Order("name", true));
  EXPECT_EQ("F-t", Order("present", false)) << "equal ones keep their order";
}

TEST_F(TableTest, RowsHaveTypesAndEveryMember) {
  const Json::Value rows = table_.Rows({});
  ASSERT_EQ(3u, rows.size());
  EXPECT_EQ(7u, rows[0].size()) << "a time is two members";
  EXPECT_EQ(1280u, rows[0]["size"].asUInt64());
  EXPECT_EQ("2024-03-05T17:04:09+08:00", rows[0]["time"].asString());
  EXPECT_EQ(1709629449, rows[0]["timestamp"].asInt64());
  EXPECT_EQ(93, rows[0]["age"].asInt64());
  EXPECT_TRUE(rows[0]["present"].isBool());
  EXPECT_EQ("two\tlines\n", rows[0]["name"].asString()) << "JSON has its own escapes";
  EXPECT_EQ(1ull << 63, rows[1]["size"].asUInt64());
  EXPECT_EQ("Fotos für 写真", rows[1]["name"].asString());
  EXPECT_TRUE(rows[1]["timestamp"].isNull());
  EXPECT_EQ(7u, rows[2].size());
  for (const char* key : {"size", "state", "name"}) EXPECT_TRUE(rows[2][key].isNull()) << key;
}

}  // namespace
