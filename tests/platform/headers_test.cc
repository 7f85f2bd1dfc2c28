// The two headers: each compiles alone in C and in C++, and declares what the library exports.
#include <ctype.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "tests/support/command.h"

using namespace ZorvTest;

extern "C" int UsePlatformFromC(void);

namespace {

using Names = std::set<std::string>;

std::string HeaderPath(const std::string& name) {
  return std::string(ZORV_SOURCE_DIR) + "/platform/include/zorvplatform/" + name;
}

// The functions that a header exports: the identifier before the "(" of each PLATC_EXPORT line.
Names Declared(const std::string& header) {
  const std::string text = ReadFile(HeaderPath(header));
  const std::string mark = "\nPLATC_EXPORT ";
  Names names;
  for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + 1)) {
    const size_t end = text.find('(', at);
    size_t begin = end;
    while (isalnum(static_cast<unsigned char>(text[begin - 1]))) --begin;
    names.insert(text.substr(begin, end - begin));
  }
  return names;
}

Names DeclaredByBoth() {
  Names names = Declared("platc.h");
  names.merge(Declared("share.h"));
  return names;
}

Names Exported() {
  Names names;
  std::istringstream lines(MustRun({"nm", "-D", "--defined-only", ZORV_PLATFORM_LIBRARY}));
  std::string address, type, name;
  while (lines >> address >> type >> name) {
    if (type == "A") continue;  // the version itself
    names.insert(name.substr(0, name.find('@')));
  }
  return names;
}

}  // namespace

TEST(Headers, EachCompilesAloneInEveryLanguage) {
  for (const char* header : {"platc.h", "share.h"}) {
    for (const char* standard : {"c99", "c11", "c17", "gnu11", "c++11", "c++17", "c++20"}) {
      SCOPED_TRACE(std::string(header) + " as " + standard);
      const bool cxx = std::string(standard).find("++") != std::string::npos;
      const CommandResult result =
          ZorvTest::Run({cxx ? ZORV_CXX_COMPILER : ZORV_C_COMPILER, "-x", cxx ? "c++" : "c",
                         std::string("-std=") + standard, "-Wall", "-Wextra", "-Wpedantic",
                         "-Werror", "-fsyntax-only", "-include", HeaderPath(header),
                         "-I" + std::string(ZORV_SOURCE_DIR) + "/platform/include", "/dev/null"});
      EXPECT_EQ(0, result.status) << result.err;
    }
  }
}

TEST(Headers, CanBeUsedFromC) { EXPECT_EQ(0, UsePlatformFromC()); }

TEST(Headers, LibraryExportsExactlyWhatTheyDeclare) {
  const Names declared = DeclaredByBoth();
  EXPECT_EQ(40u, declared.size());
  EXPECT_EQ(declared, Exported());
}

TEST(Headers, LibraryHasItsNameAndVersion) {
  EXPECT_NE(std::string::npos,
            MustRun({"readelf", "-d", ZORV_PLATFORM_LIBRARY}).find("[libzorvplatform.so.0]"));
  EXPECT_EQ(
      "libzorvplatform.so.0.1.0.0",
      std::string(ZORV_PLATFORM_LIBRARY).substr(std::string(ZORV_PLATFORM_LIBRARY).rfind('/') + 1));
}

// Beside the readers of INI files and of XML nothing that is not there anyway.
TEST(Headers, LibraryNeedsOnlyTheStandardLibraries) {
  std::istringstream lines(MustRun({"readelf", "-d", ZORV_PLATFORM_LIBRARY}));
  for (std::string line; std::getline(lines, line);) {
    if (line.find("(NEEDED)") == std::string::npos) continue;
    const std::string name = line.substr(line.find('[') + 1);
    const bool known = name.rfind("libstdc++.so", 0) == 0 || name.rfind("libgcc_s.so", 0) == 0 ||
                       name.rfind("libc.so", 0) == 0 || name.rfind("libasan.so", 0) == 0 ||
                       name.rfind("libubsan.so", 0) == 0 || name.rfind("libm.so", 0) == 0 ||
                       name.rfind("libinih.so", 0) == 0 || name.rfind("libexpat.so", 0) == 0 ||
                       name.rfind("ld-linux", 0) == 0;
    EXPECT_TRUE(known) << line;
  }
}
