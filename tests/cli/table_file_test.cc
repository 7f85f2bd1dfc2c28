// The file of a kept table: what is written is read, and nothing else is.
#include "cli/table_file.h"

#include <gtest/gtest.h>

#include "cli/json_reader.h"

using namespace ZorvSnapUsage;

namespace {

KeptTable Sample() {
  SizeTable table;
  table.generation = 12;
  table.subvolumeIDs = {257, 258, 300};
  table.sets = {{{{0, 0}}, {4096, 16384}}, {{{0, 0}, {2, 2}}, {1ull << 60, 0}}};
  return {"0c1d2e3f-0000-4000-8000-000000000001", Moment({1709629844, 250000000}), table};
}

constexpr char kSample[] =
    "{\"format\":\"zorv-snapusage-table\",\"version\":1,"
    "\"file_system\":\"0c1d2e3f-0000-4000-8000-000000000001\",\"taken\":1709629844,"
    "\"taken_nanoseconds\":250000000,\"generation\":12,\"subvolumes\":[257,258,300],\"sets\":["
    "{\"members\":[[0,0]],\"data\":4096,\"metadata\":16384},"
    "{\"members\":[[0,0],[2,2]],\"data\":1152921504606846976,\"metadata\":0}],"
    "\"summed_sets\":[],\"complete\":true}\n";

void ExpectSame(const KeptTable& one, const KeptTable& other) {
  EXPECT_EQ(TableFileText(one), TableFileText(other));
  EXPECT_EQ(one.table.subvolumeIDs, other.table.subvolumeIDs);
  ASSERT_EQ(one.table.sets.size(), other.table.sets.size());
  for (size_t i = 0; i < one.table.sets.size(); ++i) {
    EXPECT_EQ(one.table.sets[i].members, other.table.sets[i].members);
    EXPECT_EQ(one.table.sets[i].bytes, other.table.sets[i].bytes);
  }
}

bool CanBeRead(const std::string& text) {
  try {
    (void)ReadTableFile(text);
    return true;
  } catch (const JsonError&) {
    return false;
  }
}

std::string With(std::string text, const std::string& part, const std::string& other) {
  const size_t at = text.find(part);
  EXPECT_NE(std::string::npos, at) << part;
  return text.replace(at, part.size(), other);
}

}  // namespace

TEST(TableFile, IsOneLine) { EXPECT_EQ(kSample, TableFileText(Sample())); }

TEST(TableFile, IsReadAsItWasWritten) {
  KeptTable kept = Sample();
  ExpectSame(kept, ReadTableFile(TableFileText(kept)));
  kept.table.sums = {{1, {7, 8}}};
  const KeptTable read = ReadTableFile(TableFileText(kept));
  ExpectSame(kept, read);
  EXPECT_FALSE(read.table.Complete());
  kept.table = {};
  ExpectSame(kept, ReadTableFile(TableFileText(kept)));
}

TEST(TableFile, TornOnesAreRefused) {
  const std::string text = kSample;
  for (size_t length = 0; length + 1 < text.size(); ++length)
    EXPECT_FALSE(CanBeRead(text.substr(0, length))) << length;
  EXPECT_FALSE(CanBeRead(std::string(text.size(), '\0'))) << "as a power cut may leave it";
}

TEST(TableFile, WrongOnesAreRefused) {
  ASSERT_TRUE(CanBeRead(kSample));
  const std::pair<const char*, const char*> kCases[] = {
      {"zorv-snapusage-table", "zorv-subvolume-size"},
      {"\"version\":1", "\"version\":2"},
      {"\"taken\":1709629844", "\"taken\":18446744073709551615"},
      {"\"taken_nanoseconds\":250000000", "\"taken_nanoseconds\":1000000000"},
      {"\"taken_nanoseconds\":250000000,", ""},
      {"\"generation\":12,", ""},
      {"[[0,0],[2,2]]", "[[0,0],[3,3]]"},
      {"[[0,0],[2,2]]", "[[0,0],[1,2]]"},
      {"[[0,0],[2,2]]", "[[2,2],[0,0]]"},
      {"[[0,0],[2,2]]", "[[2,1]]"},
      {"[[0,0],[2,2]]", "[[0,0,0]]"},
      {"[[0,0],[2,2]]", "[[0]]"},
      {"[[0,0],[2,2]]", "[]"},
      {"[[0,0],[2,2]]", "[[0,4294967296]]"},
      {"1152921504606846976", "9223372036854775808"},
      {"\"complete\":true", "\"complete\":false"},
      {"\"summed_sets\":[]", "\"summed_sets\":[{\"last\":3,\"data\":1,\"metadata\":1}]"},
      {"\"subvolumes\":[257,258,300],", ""},
      {"true}\n", "true}\n{}"},
  };
  for (const auto& [part, other] : kCases)
    EXPECT_FALSE(CanBeRead(With(kSample, part, other))) << other;
}
