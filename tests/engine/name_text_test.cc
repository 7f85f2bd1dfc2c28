// Names of any bytes as text, and the lines with paths.
#include "engine/name_text.h"

#include <gtest/gtest.h>
#include <limits.h>

#include "engine/file_lines.h"
#include "engine/holder_lines.h"

using namespace ZorvEngine;

namespace {

std::vector<std::string> LinesOf(const FileReport& report) {
  std::vector<std::string> lines;
  EXPECT_TRUE(GiveFileLines(report, 4096, [&](const std::string& line) {
    lines.push_back(line);
    return true;
  }));
  return lines;
}

}  // namespace

TEST(NameTextTest, IsPrintableAscii) {
  EXPECT_EQ("a b/c.txt~", NameText("a b/c.txt~"));
  EXPECT_EQ("\\x5C\\x0A\\x00\\x7F\\xC3\\xBC\\xFF",
            NameText(std::string("\\\n\0\x7F\xC3\xBC\xFF", 7)));
}

TEST(NameTextTest, GoesOnInFurtherLines) {
  FileReport report;
  report.all = {2, 30};
  report.unlinked = {1, 10};
  report.largest.push_back({{257, 20, 5, 2, 1}, std::string(9000, 'x')});
  report.largest.push_back({{258, 10, 0, 1, 0}, ""});
  report.folders.push_back({{1, 20}, "folder"});
  const std::vector<std::string> lines = LinesOf(report);
  ASSERT_EQ(6u, lines.size());
  const std::string begin = "file data 20 shared 5 by 2 inode 257 names 1 path ";
  EXPECT_EQ(begin + std::string(PIPE_BUF - 1 - begin.size(), 'x') + "\n", lines[0]);
  EXPECT_EQ("path also " + std::string(PIPE_BUF - 11, 'x') + "\n", lines[1]);
  EXPECT_EQ(0u, lines[2].find("path also x"));
  EXPECT_EQ(9000u + begin.size() + 20 + 3, lines[0].size() + lines[1].size() + lines[2].size());
  EXPECT_EQ("file data 10 shared 0 by 1 inode 258 names 0\n", lines[3]);
  EXPECT_EQ("folder files 1 data 20 path folder\n", lines[4]);
  EXPECT_EQ("files 2 data 30 metadata 4096 unlinked 1 data 10\n", lines[5]);
}

TEST(NameTextTest, EndsWhenNothingMoreIsWanted) {
  FileReport report;
  report.largest.push_back({{257, 20, 0, 1, 1}, std::string(9000, 'x')});
  for (int wanted = 0; wanted < 4; ++wanted) {
    int given = 0;
    EXPECT_FALSE(GiveFileLines(report, 0, [&](const std::string&) { return given++ < wanted; }));
    EXPECT_EQ(wanted + 1, given);
  }
}

TEST(NameTextTest, TimesHaveNineDigits) {
  VersionNumbers version;
  version.modified = 1709629449;
  version.nanoseconds = 5;
  EXPECT_EQ("1709629449.000000005", ModifiedText(version));
  version.modified = -2;
  version.nanoseconds = 123456789;
  EXPECT_EQ("-2.123456789", ModifiedText(version));
}
