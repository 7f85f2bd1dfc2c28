// The items that tie files to their names, sound and damaged.
#include "engine/ondisk/name_items.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace ZorvEngine;

namespace {

std::string Number(uint64_t value, size_t size) {
  std::string bytes;
  for (size_t i = 0; i < size; ++i) bytes += static_cast<char>(value >> (8 * i));
  return bytes;
}

ByteView View(const std::string& bytes) {
  return {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()};
}

std::string Ref(const std::string& name) { return Number(7, 8) + Number(name.size(), 2) + name; }

std::string Extref(uint64_t parent, const std::string& name) {
  return Number(parent, 8) + Number(7, 8) + Number(name.size(), 2) + name;
}

std::string Entry(uint64_t inode, const std::string& name, const std::string& data = "") {
  return Number(inode, 8) + Number(kInodeItemType, 1) + Number(0, 8) + Number(9, 8) +
         Number(data.size(), 2) + Number(name.size(), 2) + Number(1, 1) + name + data;
}

const Key kRef{300, kInodeRefType, 256};
const Key kExtref{300, kInodeExtrefType, 12345};

struct Names {
  std::string wrong;
  std::vector<std::pair<uint64_t, std::string>> found;
};

Names NamesIn(const Key& key, const std::string& bytes) {
  Names names;
  const char* wrong = VisitFileNames(key, View(bytes), [&](const FileName& name) {
    names.found.emplace_back(name.parent, name.name);
  });
  names.wrong = wrong == nullptr ? "" : wrong;
  return names;
}

Names EntriesIn(const std::string& bytes) {
  Names names;
  const char* wrong = VisitDirectoryEntries(View(bytes), [&](const DirectoryEntry& entry) {
    names.found.emplace_back(entry.location.objectid, entry.name);
  });
  names.wrong = wrong == nullptr ? "" : wrong;
  return names;
}

}  // namespace

TEST(NameItems, AreReadOneAfterTheOther) {
  const Names refs = NamesIn(kRef, Ref("a") + Ref(std::string(255, 'b')));
  EXPECT_EQ("", refs.wrong);
  EXPECT_EQ(
      (std::vector<std::pair<uint64_t, std::string>>{{256, "a"}, {256, std::string(255, 'b')}}),
      refs.found);
  const Names extrefs = NamesIn(kExtref, Extref(257, "c\n") + Extref(258, "\xFF"));
  EXPECT_EQ("", extrefs.wrong);
  EXPECT_EQ((std::vector<std::pair<uint64_t, std::string>>{{257, "c\n"}, {258, "\xFF"}}),
            extrefs.found);
  const Names entries = EntriesIn(Entry(301, "d", "data") + Entry(302, "e"));
  EXPECT_EQ("", entries.wrong);
  EXPECT_EQ((std::vector<std::pair<uint64_t, std::string>>{{301, "d"}, {302, "e"}}), entries.found);
  EXPECT_EQ("", NamesIn(kRef, "").wrong);
}

TEST(NameItems, AreRefusedWhenTheyCannotBe) {
  const std::string cut = "has a name that is cut";
  const std::string length = "has a name of an impossible length";
  const std::string character = "has a name with an impossible character";
  const struct {
    const char* name;
    std::string wrong;
    std::string found;
  } kCases[] = {
      {"cut head", cut, NamesIn(kRef, Ref("a").substr(0, 9)).wrong},
      {"cut name", cut, NamesIn(kRef, Ref("abc").substr(0, 12)).wrong},
      {"second one cut", cut, NamesIn(kRef, Ref("a") + "x").wrong},
      {"empty", length, NamesIn(kRef, Ref("")).wrong},
      {"too long", length, NamesIn(kRef, Ref(std::string(256, 'x'))).wrong},
      {"slash", character, NamesIn(kRef, Ref("a/b")).wrong},
      {"zero", character, NamesIn(kRef, Ref(std::string(1, '\0'))).wrong},
      {"cut head of the other kind", cut, NamesIn(kExtref, Extref(1, "a").substr(0, 17)).wrong},
      {"slash of the other kind", character, NamesIn(kExtref, Extref(1, "/")).wrong},
      {"cut entry", cut, EntriesIn(Entry(1, "a").substr(0, 29)).wrong},
      {"entry with a cut name", cut, EntriesIn(Entry(1, "abc").substr(0, 32)).wrong},
      {"entry with cut data", "has an entry that is cut",
       EntriesIn(Entry(1, "a", "data").substr(0, 34)).wrong},
      {"entry with an empty name", length, EntriesIn(Entry(1, "")).wrong},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.wrong, c.found) << c.name;
}

// Numbers of a file system that the stock programs have made.
TEST(NameItems, AreFoundByTheirHash) {
  EXPECT_EQ(2378154706u, DirItemOffset("default"));
  EXPECT_EQ(4294967294u, DirItemOffset(""));
}
