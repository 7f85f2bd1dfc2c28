// What libzorvbtrfssnapusage.so shows to the world, and what it needs from it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "tests/support/command.h"

using namespace ZorvTest;

namespace {

const char kListed[] = ZORV_SOURCE_DIR "/tests/api/exported_symbols.txt";

std::set<std::string> LinesOf(const std::string& text) {
  std::set<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (!line.empty() && line[0] != '#') lines.insert(line);
  return lines;
}

// Demangled names of all defined dynamic symbols, without the version's own.
std::set<std::string> Exported() {
  std::set<std::string> names;
  for (const std::string& line :
       LinesOf(MustRun({"nm", "-DC", "--defined-only", ZORV_LIBRARY_PATH}))) {
    std::string name = line.substr(line.find(' ') + 3);  // "<address> T <name>@@<version>"
    name = name.substr(0, name.find("@@"));
    if (name != "ZORVBTRFSSNAPUSAGE_0") names.insert(name);
  }
  return names;
}

std::set<std::string> Dynamic(const std::string& tag) {
  std::set<std::string> values;
  for (const std::string& line : LinesOf(MustRun({"readelf", "-d", "-W", ZORV_LIBRARY_PATH})))
    if (line.find("(" + tag + ")") != std::string::npos)
      values.insert(line.substr(line.find('[') + 1, line.rfind(']') - line.find('[') - 1));
  return values;
}

}  // namespace

TEST(Exports, AreExactlyTheListedOnes) { EXPECT_EQ(LinesOf(ReadFile(kListed)), Exported()); }

TEST(Exports, SonameCarriesTheBinaryInterface) {
  EXPECT_THAT(Dynamic("SONAME"), testing::ElementsAre("libzorvbtrfssnapusage.so.0"));
}

TEST(Exports, OnlyJsoncppThePlatformAndTheRuntimeAreLinked) {
  for (const std::string& library : Dynamic("NEEDED"))
    EXPECT_THAT(library,
                testing::MatchesRegex("lib(jsoncpp|zorvplatform|stdc\\+\\+|gcc_s|c|m|asan|ubsan)"
                                      "\\.so\\.[0-9]+"));
}
