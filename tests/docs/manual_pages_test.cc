// The manual pages: whole, without a warning, and true to the programs and the library.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "tests/support/command.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

using Texts = std::set<std::string>;

const std::string kPages = ZORV_BINARY_DIR "/man/";

const char* const kClasses[] = {
    "BtrfsTool",  "ShareSnapUsageCal", "ShareTaskStatus",     "SignalHandler",
    "TaskResult", "TaskStatus",        "SnapUsageCalculator", "Utils"};

std::vector<std::string> Pages() {
  std::vector<std::string> pages = {"zorv-snapusage.8", "zorv-snapusage.conf.5",
                                    "btrfs-subvolume-size.8", "zorvbtrfssnapusage.5",
                                    "zorvbtrfssnapusage.3"};
  for (const char* name : kClasses) pages.push_back(std::string(name) + ".3");
  return pages;
}

// A page's text with its macros, without escapes for fonts and characters.
std::string PageText(const std::string& page) {
  std::string text = ReadFile(kPages + page);
  const std::pair<const char*, const char*> replacements[] = {
      {R"(\\f\[\w*\])", ""}, {R"(\\-)", "-"}, {R"(\\\[aq\])", "'"}, {R"(\\&)", ""}};
  for (const auto& [escape, meaning] : replacements)
    text = std::regex_replace(text, std::regex(escape), meaning);
  return text;
}

// The lines of a page's section.
std::vector<std::string> Section(const std::string& page, const std::string& name) {
  std::istringstream lines(PageText(page));
  std::vector<std::string> section;
  bool within = false;
  for (std::string line; std::getline(lines, line);)
    if (line.rfind(".SH ", 0) == 0)
      within = line == ".SH " + name;
    else if (within)
      section.push_back(line);
  return section;
}

// The entries of a list in a page's section, each with the text below it.
std::vector<std::pair<std::string, std::string>> Entries(const std::vector<std::string>& section) {
  std::vector<std::pair<std::string, std::string>> entries;
  for (size_t i = 0; i < section.size(); ++i)
    if (section[i] == ".TP" && i + 1 < section.size())
      entries.emplace_back(section[++i], "");
    else if (!entries.empty() && section[i].rfind('.', 0) != 0)
      entries.back().second += (entries.back().second.empty() ? "" : " ") + section[i];
  return entries;
}

// The options that a line of a help text or an entry of a page begins with.
void AddOptions(const std::string& line, Texts& options) {
  static const std::regex beginning(R"(^\s*(-[-\w]+(?:(?:,\s*)-[-\w]+)*))");
  static const std::regex option(R"(-[-\w]+)");
  std::smatch match;
  if (!std::regex_search(line, match, beginning)) return;
  const std::string all = match[1];
  for (std::sregex_iterator at(all.begin(), all.end(), option), end; at != end; ++at)
    options.insert(at->str());
}

Texts OptionsOfHelp(const std::string& help) {
  Texts options;
  std::istringstream lines(help);
  for (std::string line; std::getline(lines, line);)
    if (line.rfind("  -", 0) == 0) AddOptions(line, options);
  return options;
}

// Each command of the program, with the options of its help.
std::map<std::string, Texts> CommandsOfHelp() {
  const std::string help = MustRun({ZORV_CLI_PATH, "--help"});
  std::map<std::string, Texts> commands;
  std::istringstream lines(help.substr(help.find("\nSubcommands:\n")));
  std::string line;
  for (std::getline(lines, line), std::getline(lines, line);
       std::getline(lines, line) && !line.empty();) {
    const std::string name = line.substr(2, line.find(' ', 2) - 2);
    commands[name] = OptionsOfHelp(MustRun({ZORV_CLI_PATH, name, "--help"}));
  }
  return commands;
}

// Each command that the program's page has below its options, with its options there.
std::map<std::string, Texts> CommandsOfPage() {
  std::map<std::string, Texts> commands;
  std::string name;
  const std::vector<std::string> section = Section("zorv-snapusage.8", "OPTIONS");
  for (size_t i = 0; i < section.size(); ++i)
    if (section[i].rfind(".SS ", 0) == 0)
      commands[name = section[i].substr(4)];
    else if (section[i] == ".TP" && !name.empty())
      AddOptions(section[i + 1], commands[name]);
  return commands;
}

// What the library exports of a class: its functions and variables, without their parameters.
std::map<std::string, Texts> ExportedMembers() {
  static const std::regex member(
      R"( [BDTW] (?:.* )?ZorvBtrfsUsage::(\w+)::(~?\w+)(?:<[^(]*>)?(?:\[abi:cxx11\])?(?:\(|@|$))");
  std::istringstream lines(MustRun({"nm", "-DC", "--defined-only", ZORV_LIBRARY_PATH}));
  std::map<std::string, Texts> members;
  std::smatch match;
  for (std::string line; std::getline(lines, line);)
    if (std::regex_search(line, match, member)) members[match[1]].insert(match[2]);
  return members;
}

// The functions and variables that a class's page declares: all that is bold there.
Texts DeclaredMembers(const std::string& page) {
  static const std::regex declaration(R"(\\f\[B\]([^\\]*?(~?\w+)(?:\([^\\]*)?;)\\f\[R\])");
  const std::string text =
      std::regex_replace(ReadFile(kPages + page), std::regex(R"(\\\[ti\])"), "~");
  const size_t begin = text.find(".SH FUNCTIONS");
  const std::string functions = text.substr(begin, text.find("\n.SH", begin) - begin);
  Texts members;
  for (std::sregex_iterator at(functions.begin(), functions.end(), declaration), end; at != end;
       ++at)
    members.insert((*at)[2]);
  return members;
}

}  // namespace

TEST(ManualPages, BuildWithoutAWarning) {
  for (const std::string& page : Pages()) {
    SCOPED_TRACE(page);
    const CommandResult man =
        ZorvTest::Run({"env", "MANWIDTH=80", "LC_ALL=C.UTF-8", "man", "--warnings=w", "-E", "UTF-8",
                       "-l", "-Tutf8", "-Z", kPages + page});
    EXPECT_EQ(0, man.status);
    EXPECT_EQ("", man.err);
    const CommandResult lint =
        ZorvTest::Run({"mandoc", "-T", "lint", "-W", "warning", kPages + page});
    EXPECT_EQ("", lint.out + lint.err);
  }
}

TEST(ManualPages, EachHasANameThatIndexesFind) {
  for (const std::string& page : Pages()) {
    SCOPED_TRACE(page);
    const CommandResult name = ZorvTest::Run({"lexgrog", kPages + page});
    EXPECT_EQ(0, name.status);
    const std::string stem = fs::path(page).stem();
    EXPECT_THAT(name.out, testing::HasSubstr(stem + " - "));
  }
}

TEST(ManualPages, EngineHasTheOptionsOfItsHelp) {
  const std::string help = MustRun({ZORV_ENGINE_PATH, "subvolume", "size", "--help"});
  Texts inHelp = OptionsOfHelp(help);
  // Some are named in the text of another one alone.
  const std::regex option(R"(--[a-z][-a-z]*)");
  for (std::sregex_iterator at(help.begin(), help.end(), option), end; at != end; ++at)
    inHelp.insert(at->str());
  Texts inPage;
  for (const auto& [entry, text] : Entries(Section("btrfs-subvolume-size.8", "OPTIONS")))
    AddOptions(entry, inPage);
  EXPECT_EQ(inHelp, inPage);
  EXPECT_LT(15u, inPage.size());
}

TEST(ManualPages, EngineExamplesAreThoseOfItsHelp) {
  const std::string help = MustRun({ZORV_ENGINE_PATH, "subvolume", "size", "--help"});
  int count = 0;
  for (const std::string& line : Section("btrfs-subvolume-size.8", "EXAMPLES"))
    if (line.rfind("btrfs subvolume size", 0) == 0) {
      EXPECT_THAT(help, testing::HasSubstr("  " + line + "\n"));
      ++count;
    }
  EXPECT_EQ(5, count);
}

TEST(ManualPages, ProgramHasTheCommandsAndOptionsOfItsHelp) {
  const std::map<std::string, Texts> commands = CommandsOfHelp();
  EXPECT_EQ(commands, CommandsOfPage());
  EXPECT_LT(6u, commands.size());
  EXPECT_EQ(1u, commands.at("show").count("--format"));
  const std::string page = PageText("zorv-snapusage.8");
  for (const auto& [name, options] : commands)
    EXPECT_THAT(page, testing::HasSubstr("\nzorv-snapusage " + name + " ")) << "an example";
}

// A bar within code in a table came with the backslash that the table needs.
TEST(ManualPages, NoPageHasTheMarksOfItsSource) {
  for (const std::string& page : Pages())
    EXPECT_THAT(PageText(page), testing::Not(testing::HasSubstr(R"(\[rs]|)"))) << page;
}

TEST(ManualPages, FileOfSharesHasItsKeysAndIsReferredTo) {
  const std::string page = PageText("zorv-snapusage.conf.5");
  for (const char* key : {"path", "snapshots", "format", "time", "layout"})
    EXPECT_THAT(page, testing::HasSubstr("\n" + std::string(key) + "\n"));
  EXPECT_THAT(PageText("zorv-snapusage.8"), testing::HasSubstr("zorv-snapusage.conf"));
}

TEST(ManualPages, ProgramHasTheExitStatusesOfItsHelp) {
  std::map<std::string, std::string> inHelp, inPage;
  const std::string help = MustRun({ZORV_CLI_PATH, "--exit-statuses"});
  std::istringstream lines(help.substr(help.find("Exit status:\n") + 13));
  for (std::string line; std::getline(lines, line) && !line.empty();) {
    const size_t number = line.find_first_not_of(' '), end = line.find(' ', number);
    inHelp[line.substr(number, end - number)] = line.substr(end + 2);
  }
  for (const auto& [status, meaning] : Entries(Section("zorv-snapusage.8", "EXIT STATUSES")))
    inPage[status] = meaning;
  EXPECT_EQ(inHelp, inPage);
  EXPECT_LT(17u, inPage.size());
}

// The tool's manual, which is the body of its page.
std::string ToolsManual() { return ReadFile(ZORV_SOURCE_DIR "/docs/zorv-snapusage.md"); }

// Begins a row of a table with the text, which has one or two words in the place of each "{}".
std::regex RowOf(std::string text) {
  if (text.ends_with("\\n")) text.resize(text.size() - 2);
  text = std::regex_replace(text, std::regex(R"([.()])"), R"(\$&)");
  text = std::regex_replace(text, std::regex(R"(\{\})"), R"(\w+( \w+)?)");
  return std::regex("^\\| " + text + ".*");
}

// The texts of the notes that the tool's sources have.
std::set<std::string> NotesOfTheTool() {
  static const std::regex split(R"re("\s*\n\s*")re");
  static const std::regex note(R"re((?:"note: |: note: |Note\(\s*(?:fmt::format\()?\s*")([^"]+)")re");
  std::set<std::string> notes;
  for (const auto& source : fs::directory_iterator(ZORV_SOURCE_DIR "/cli")) {
    const std::string text = std::regex_replace(ReadFile(source.path()), split, "");
    for (std::sregex_iterator at(text.begin(), text.end(), note), end; at != end; ++at)
      if (!(*at)[1].str().starts_with("{}\\n")) notes.insert((*at)[1]);
  }
  return notes;
}

TEST(ManualPages, NotesAreThoseOfTheProgram) {
  const std::string manual = ToolsManual();
  const size_t begin = manual.find("\n## Notes\n");
  ASSERT_NE(std::string::npos, begin);
  const std::string chapter = manual.substr(begin, manual.find("\n## ", begin + 1) - begin);
  std::vector<std::string> rows;
  std::istringstream lines(chapter);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with("| ")) rows.push_back(line);
  const std::set<std::string> notes = NotesOfTheTool();
  for (const std::string& note : notes)
    EXPECT_EQ(1, std::count_if(
                     rows.begin(), rows.end(),
                     [row = RowOf(note)](const auto& line) { return std::regex_match(line, row); }))
        << note;
  // The table's head, and what the platform has to say.
  EXPECT_EQ(notes.size() + 2, rows.size());
}

// Members of some documents were in their schemas alone.
TEST(ManualPages, MembersOfEveryDocumentAreTold) {
  const std::string manual = ToolsManual();
  const std::regex member(R"re("(\w+)": \{)re");
  // Words of schemas themselves, and of their definitions.
  const Texts ofSchemas = {"properties", "items", "dependentRequired", "bytes"};
  Texts members;
  for (const auto& schema : fs::directory_iterator(ZORV_SOURCE_DIR "/docs/schema")) {
    const std::string text = ReadFile(schema.path());
    for (std::sregex_iterator at(text.begin(), text.end(), member), end; at != end; ++at)
      if (!ofSchemas.contains((*at)[1])) members.insert((*at)[1]);
  }
  EXPECT_LT(50u, members.size());
  for (const std::string& name : members)
    EXPECT_TRUE(manual.find("`" + name + "`") != std::string::npos ||
                manual.find("\"" + name + "\"") != std::string::npos)
        << name;
}

TEST(ManualPages, EachExportedClassHasAPageWithAllOfItsMembers) {
  const std::map<std::string, Texts> exported = ExportedMembers();
  Texts classes;
  for (const auto& [name, members] : exported) {
    SCOPED_TRACE(name);
    classes.insert(name);
    Texts declared = DeclaredMembers(name + ".3");
    for (const std::string& member : members) EXPECT_EQ(1u, declared.erase(member)) << member;
    // What is left is defined in the header.
    for (const std::string& member : declared) EXPECT_EQ("TaskID", member);
  }
  EXPECT_EQ(Texts(std::begin(kClasses), std::end(kClasses)), classes);
}

TEST(ManualPages, OverviewNamesEachClassAndResultCode) {
  const std::string page = PageText("zorvbtrfssnapusage.3");
  for (const char* name : kClasses)
    EXPECT_THAT(page, testing::HasSubstr(std::string("ZorvBtrfsUsage::") + name + "(3)"));
  const std::string types = ReadFile(ZORV_SOURCE_DIR "/include/zorvbtrfssnapusage/types.h");
  const std::regex value(R"(\n  ([A-Z]\w+ = \d+),)");
  int count = 0;
  for (std::sregex_iterator at(types.begin(), types.end(), value), end; at != end; ++at, ++count)
    EXPECT_THAT(page, testing::HasSubstr(".TP\n" + (*at)[1].str() + "\n"));
  EXPECT_EQ(39, count);
}

TEST(ManualPages, FormatsNameEachDirectory) {
  const std::string page = PageText("zorvbtrfssnapusage.5");
  const std::string paths = ReadFile(ZORV_SOURCE_DIR "/base/paths.h");
  const std::regex constant(R"re(\w+\[\] = "([^"]+)";)re");
  const std::pair<const char*, const char*> roots[] = {{"/run/lock/zorvbtrfssnapusage", "$LOCK"},
                                                       {"/run/zorvbtrfssnapusage", "$RUN"},
                                                       {"/usr/local/zorvbtrfssnapusage", "$KEEP"}};
  int count = 0;
  for (std::sregex_iterator at(paths.begin(), paths.end(), constant), end; at != end;
       ++at, ++count) {
    std::string path = (*at)[1];
    for (const auto& [root, name] : roots)
      if (path.rfind(std::string(root) + "/", 0) == 0)
        path = name + path.substr(std::string(root).size());
    EXPECT_THAT(page, testing::HasSubstr(path));
  }
  EXPECT_EQ(17, count);
}

TEST(ManualPages, ShowTheExampleThatIsBuilt) {
  const std::string page = PageText("zorvbtrfssnapusage.3");
  EXPECT_THAT(page, testing::HasSubstr("ShareSnapUsageCal calculation;\n"));
  EXPECT_THAT(page, testing::HasSubstr("printf("));
}

TEST(ClassPage, EnumeratorWithoutACommentIsRefused) {
  fs::create_directories("/tmp/zorvbtrfssnapusage");
  WriteFile(
      "/tmp/zorvbtrfssnapusage/kinds.h",
      "// Kinds.\nnamespace ZorvBtrfsUsage {\n\n// Which kind.\nenum Kind {\n  KIND_ONE = 1,\n"
      "};\n\n}  // namespace ZorvBtrfsUsage\n");
  const CommandResult run =
      ZorvTest::Run({"python3", ZORV_SOURCE_DIR "/docs/man/class_page.py",
                     "/tmp/zorvbtrfssnapusage/kinds.h", "/tmp/zorvbtrfssnapusage/kinds.md"});
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("no comment says what this is: KIND_ONE = 1,\n", run.err);
}
