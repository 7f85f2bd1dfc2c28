// What the readers make of a snapper file, of Samba's configuration and of the platform's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/linux/name_format.h"
#include "platform/linux/shares_text.h"
#include "platform/linux/snapper_info.h"
#include "platform/linux/testparm.h"
#include "zorvplatform/share.h"

using namespace ZorvPlatform;
using testing::HasSubstr;

namespace {

// ---- info.xml ----------------------------------------------------------------------------------

constexpr char kInfo[] =
    "<type>single</type><num>12</num><date>2024-03-05 09:04:09</date><description>x</description>";

std::string Document(const std::string& content) {
  return "<?xml version=\"1.0\"?>\n<snapshot>" + content + "</snapshot>\n";
}

// Why the content is refused; "": it is not.
std::string InfoRefusal(const std::string& xml) {
  SnapperInfo info;
  info.description = "as it was";
  std::string why;
  if (ReadSnapperInfo(xml, &info, &why)) return "";
  EXPECT_EQ("as it was", info.description);
  EXPECT_NE("", why);
  return why;
}

TEST(ReadSnapperInfo, WhatSnapperWrites) {
  SnapperInfo info;
  std::string why;
  ASSERT_TRUE(
      ReadSnapperInfo("<?xml version=\"1.0\"?>\n<snapshot>\n  <type>post</type>\n  <num>40</num>\n"
                      "  <date>2024-03-05 09:04:09</date>\n  <pre_num>39</pre_num>\n"
                      "  <description>one &lt;&amp;&gt; \"two\" &#xE9;&#13;</description>\n"
                      "  <cleanup>number</cleanup>\n  <userdata>\n    <key>description</key>\n"
                      "    <value>not this</value>\n  </userdata>\n</snapshot>\n",
                      &info, &why))
      << why;
  EXPECT_EQ(40u, info.number);
  EXPECT_EQ("post", info.type);
  EXPECT_EQ(1709629449, info.time);
  EXPECT_EQ("one <&> \"two\" \xC3\xA9\r", info.description);
}

TEST(ReadSnapperInfo, ADescriptionMayBeMissingEmptyOrLong) {
  SnapperInfo info;
  std::string why;
  const std::string rest = "<type>pre</type><num>1</num><date>1970-01-01 00:00:00</date>";
  ASSERT_TRUE(ReadSnapperInfo(Document(rest), &info, &why));
  EXPECT_EQ("", info.description);
  EXPECT_EQ(0, info.time);
  ASSERT_TRUE(ReadSnapperInfo(Document(rest + "<description/>"), &info, &why));
  EXPECT_EQ("", info.description);
  const std::string text(500000, 'd');
  ASSERT_TRUE(
      ReadSnapperInfo(Document(rest + "<description>" + text + "</description>"), &info, &why));
  EXPECT_EQ(text, info.description);
}

TEST(ReadSnapperInfo, WhatIsRefused) {
  const std::string deep =
      std::string("<a><a><a><a><a><a><a><a>") + "</a></a></a></a></a></a></a></a>";
  const std::string bomb =
      "<!DOCTYPE s [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;\">]>"
      "<snapshot>" +
      std::string(kInfo) + "</snapshot>";
  const std::string outside =
      "<!DOCTYPE s SYSTEM \"file:///etc/shadow\"><snapshot>" + std::string(kInfo) + "</snapshot>";
  const struct {
    const char* name;
    std::string xml;
    const char* why;
  } kCases[] = {
      {"nothing", "", "no element found (line 1)"},
      {"no XML", "number=12", "not well-formed (invalid token) (line 1)"},
      {"cut", Document(kInfo).substr(0, 51), "no element found (line 2)"},
      {"two documents", Document(kInfo) + Document(kInfo), "(line 3)"},
      {"another's", "<snapshots>" + std::string(kInfo) + "</snapshots>", "is not a snapshot's"},
      {"entities", bomb, "has a document type"},
      {"another file", outside, "has a document type"},
      {"deep", Document(kInfo + deep), "is nested too deeply"},
      {"twice", Document(kInfo + std::string("<num>12</num>")), "says something twice"},
      {"a NUL", Document(kInfo + std::string(1, '\0')), "not well-formed"},
      {"a reference to NUL", Document("<description>&#0;</description>"), "reference"},
      {"no UTF-8", Document("<description>\xFF</description>"), "not well-formed"},
      {"unknown encoding", "<?xml version=\"1.0\" encoding=\"x\"?><snapshot/>", "unknown encoding"},
      {"unknown entity", Document("<description>&copy;</description>"), "undefined entity"},
      {"empty", Document(""), "has no number"},
      {"no number", Document("<type>pre</type><date>2024-03-05 09:04:09</date>"), "has no number"},
      {"number 0", Document("<num>0</num>"), "has no number"},
      {"negative", Document("<num>-1</num>"), "has no number"},
      {"large", Document("<num>99999999999999999999</num>"), "has no number"},
      {"blanks", Document("<num> 1 </num>"), "has no number"},
      {"inside another", Document("<userdata><num>1</num></userdata>"), "has no number"},
      {"no type", Document("<num>1</num><date>2024-03-05 09:04:09</date>"),
       "has no type that is known"},
      {"other type", Document("<num>1</num><type>Single</type>"), "has no type that is known"},
      {"no date", Document("<num>1</num><type>pre</type>"), "has no date"},
      {"no such day", Document("<num>1</num><type>pre</type><date>2024-02-30 09:04:09</date>"),
       "has no date"},
      {"more", Document("<num>1</num><type>pre</type><date>2024-02-03 09:04:09-7</date>"),
       "has no date"},
      {"less", Document("<num>1</num><type>pre</type><date>2024-02-03 09:04</date>"),
       "has no date"},
      {"another form", Document("<num>1</num><type>pre</type><date>2024-02-03T09:04:09</date>"),
       "has no date"}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_THAT(InfoRefusal(c.xml), HasSubstr(c.why));
  }
  EXPECT_EQ("", InfoRefusal(Document(kInfo)));
}

// ---- testparm ----------------------------------------------------------------------------------

struct Told {
  Configured configured;
  std::string why;
};

Told Read(const std::string& output) {
  Told told;
  if (!ParseTestparm(output, &told.configured, &told.why)) {
    EXPECT_TRUE(told.configured.shares.empty());
    EXPECT_TRUE(told.configured.passedBy.empty());
    EXPECT_NE("", told.why);
  }
  return told;
}

TEST(ParseTestparm, AShareWithItsOwnAndGlobalParameters) {
  const Told told = Read(
      "# Global parameters\n[global]\n\tshadow:snapdir = /snaps\n\tshadow: format = g\n"
      "\tvfs objects = shadow_copy2\n\n\n[a share]\n\tpath = /srv/a b\n"
      "\tshadow : Format = s = %F\n\n[without]\n\tpath = /x\n\tvfs objects = \n");
  EXPECT_EQ("", told.why);
  ASSERT_EQ(1u, told.configured.shares.size());
  const ConfiguredShare& share = told.configured.shares[0];
  EXPECT_EQ("a share", share.name);
  EXPECT_EQ("/srv/a b", share.path);
  EXPECT_EQ("/snaps", share.snapDir);
  EXPECT_EQ("s = %F", share.format);
  EXPECT_FALSE(share.localTime);
  EXPECT_EQ(Layout::kFormat, share.layout);
  EXPECT_TRUE(share.onlyIfSubvolume);
}

TEST(ParseTestparm, WhatCannotBeUnderstood) {
  const struct {
    const char* name;
    std::string output;
    const char* why;
  } kCases[] = {{"nothing", "", "its output does not begin with [global]"},
                {"another section first", "[a]\n", "its output does not begin with [global]"},
                {"a line before", "x = y\n[global]\n", "line 1 of its output cannot be understood"},
                {"no parameter", "[global]\n\tx\n", "line 2 of its output cannot be understood"},
                {"no key", "[global]\n\t= x\n", "line 2 of its output cannot be understood"},
                {"a cut section", "[global]\n\n[pho", "line 3 of its output cannot be understood"},
                {"a NUL", std::string("[global]\n\tx = \0y\n", 16),
                 "line 2 of its output cannot be understood"}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.why, Read(c.output).why);
  }
}

TEST(ParseTestparm, NamesThatNoShareCanHaveArePassedBy) {
  const std::string share = "]\n\tpath = /x\n\tvfs objects = shadow_copy2\n";
  const Told told = Read("[global]\n[a/b" + share + "[.." + share + "[" + share + "[\x01" + share);
  EXPECT_EQ("", told.why);
  EXPECT_TRUE(told.configured.shares.empty());
  EXPECT_EQ(4u, told.configured.passedBy.size());
}

// ---- The platform's own file -------------------------------------------------------------------

std::string SharesRefusal(const std::string& text) {
  Configured configured;
  SourceSwitches switches;
  std::string why;
  return ParseShares(text, &configured, &switches, &why) ? "" : why;
}

TEST(ParseShares, ErrorsNameTheirLine) {
  const std::string share = "[a]\npath = /a\n";
  const struct {
    const char* name;
    std::string text;
    std::string why;
  } kCases[] = {
      {"no key", "x\n", "1: is neither a [share] nor a key = value"},
      {"no end", "\n[a\npath = /a\n", "2: is neither a [share] nor a key = value"},
      {"unknown switch", "# a\nfoo = on\n", "2: has the key foo, which is none before a [share]"},
      {"switch", "samba = maybe\n", "1: samba is to be on or off"},
      {"switch twice", "samba = on\nsamba = off\n", "2: says samba a second time"},
      {"unknown key", share + "foo = x\n", "3: has the key foo, which is none of a share"},
      {"key twice", share + "path = /b\n", "3: says path a second time"},
      {"relative", "[a]\npath = a\n", "2: path is to begin with /"},
      {"empty", "[a]\npath =\n", "2: path is empty"},
      {"no path", "\n[a]\ntime = utc\n\n" + share, "2: begins a share without a path"},
      {"no path at the end", share + "[b]\n", "3: begins a share without a path"},
      {"twice", share + "[b]\npath = /b\n" + share, "5: begins the share a a second time"},
      {"time", share + "time = CET\n", "3: time is to be local or utc"},
      {"layout", share + "layout = x\n", "3: layout is to be names or snapper"},
      {"layout and format", share + "layout = snapper\nformat = %Y\n",
       "1: begins a share of layout snapper, which has no format"},
      {"no conversion", share + "format = %Q\n",
       "3: format %Q is none that strptime(3) can read a day by; write it as photos-%Y%m%d-%H%M"},
      {"no day", share + "format = a-%Y-%m\ntime = utc\n",
       "3: format a-%Y-%m is none that strptime(3) can read a day by; write it as "
       "photos-%Y%m%d-%H%M"},
      {"no share", "[a/b]\npath = /a\n", "1: names what can be no share"},
      {"nameless", "[]\npath = /a\n", "1: names what can be no share"},
      {"parent", "[..]\npath = /a\n", "1: names what can be no share"},
      {"long name", "[" + std::string(50, 'n') + "]\n", "1: has a name of more than 49 bytes"},
      {"long line", share + "snapshots = /" + std::string(200, 'x') + "\n",
       "3: is longer than 197 bytes"},
      {"a NUL", share + std::string("time = utc\0\n", 12), "3: has a NUL in it"},
      {"the first counts", "x\nfoo = on\n", "1: is neither a [share] nor a key = value"}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.why, SharesRefusal(c.text));
  }
}

TEST(ParseShares, EveryKey) {
  Configured configured;
  SourceSwitches switches;
  std::string why;
  const std::string name(49, 'n');
  ASSERT_TRUE(ParseShares("volumes = off\nsamba=off\nsnapper : off\n; a comment\r\n[" + name +
                              "]\n\tpath = /a b\t\n snapshots = s\r\nformat = %F=%H ; rest\n"
                              "time = utc\n[b]\npath = /b\nlayout = snapper",
                          &configured, &switches, &why))
      << why;
  EXPECT_FALSE(switches.volumes);
  EXPECT_FALSE(switches.samba);
  EXPECT_FALSE(switches.snapper);
  ASSERT_EQ(2u, configured.shares.size());
  const ConfiguredShare& first = configured.shares[0];
  EXPECT_EQ(name, first.name);
  EXPECT_EQ("/etc/zorv-snapusage.conf:5", first.place);
  EXPECT_EQ("/a b", first.path);
  EXPECT_EQ("s", first.snapDir);
  EXPECT_EQ("%F=%H", first.format);
  EXPECT_FALSE(first.localTime);
  EXPECT_EQ(Layout::kFormat, first.layout);
  EXPECT_FALSE(first.onlyIfSubvolume);
  EXPECT_EQ(Layout::kSnapper, configured.shares[1].layout);
  EXPECT_EQ(".snapshots", configured.shares[1].snapDir);
}

TEST(ParseShares, NothingIsNoShare) {
  EXPECT_EQ("", SharesRefusal(""));
  EXPECT_EQ("", SharesRefusal("\n# nothing\n   \n; here"));
}

// ---- Names -------------------------------------------------------------------------------------

TEST(TellsADay, WhatNamesCanFit) {
  for (const bool local : {false, true}) {
    for (const char* format :
         {"a-%Y%m%d", "%s", "a.%Y%m%dT%H%M%z", "%F_%T", "%Y-%j", "%y.%b.%e-%k", "%%s-%d.%m.%Y"})
      EXPECT_TRUE(TellsADay(format, local)) << format;
    for (const char* format : {"", "a", "%Q", "%Y", "%Y-%m", "%H%M", "%", "%%s"})
      EXPECT_FALSE(TellsADay(format, local)) << format;
  }
}

TEST(ReadFormattedName, TheWholeNameAndADateThatExists) {
  time_t time = 7;
  EXPECT_TRUE(ReadFormattedName("a-2024-03-05", "a-%Y-%m-%d", /*localTime=*/false, &time));
  EXPECT_EQ(1709596800, time);
  for (const char* name :
       {"", "a-", "b-2024-03-05", "a-2024-03-05x", "a-2024-02-30", "a-2024-13-01", "a-2024-03"}) {
    time = 7;
    EXPECT_FALSE(ReadFormattedName(name, "a-%Y-%m-%d", /*localTime=*/false, &time)) << name;
    EXPECT_EQ(7, time);
  }
  EXPECT_FALSE(ReadFormattedName("a", "a", false, &time)) << "no date at all";
  EXPECT_TRUE(ReadFormattedName("%s-2024-03-05", "%%s-%Y-%m-%d", /*localTime=*/false, &time));
}

}  // namespace
