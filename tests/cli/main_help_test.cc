// Help, version and wrong command lines.
#include "tests/cli/cli_world.h"

using namespace ZorvTest;

namespace {

CommandResult Tool(std::vector<std::string> words) {
  words.insert(words.begin(), ZORV_CLI_PATH);
  return Run(words);
}

TEST(MainHelp, VersionOfTheProgram) {
  const CommandResult result = Tool({"--version"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("zorv-snapusage " ZORV_VERSION "\n", result.out);
}

// The names of the commands, from the program's own help.
std::vector<std::string> Commands() {
  const std::string help = Tool({"--help"}).out;
  std::istringstream lines(help.substr(help.find("Subcommands:\n") + 13));
  std::vector<std::string> commands;
  for (std::string line; std::getline(lines, line) && line.rfind("  ", 0) == 0;)
    commands.push_back(line.substr(2, line.find(' ', 2) - 2));
  return commands;
}

// In the terminal's columns; the texts are of ASCII.
void ExpectFitsAScreen(const std::string& text) {
  EXPECT_LE(std::count(text.begin(), text.end(), '\n'), 23) << "with the prompt below it\n" << text;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 80u) << line;
}

TEST(MainHelp, EveryCommandFitsAScreenAndHasAnExample) {
  const std::vector<std::string> commands = Commands();
  EXPECT_THAT(commands, testing::IsSupersetOf({"run", "start", "wait", "status", "show", "stop",
                                               "clean", "shares", "reminder", "plan", "names"}));
  for (const std::string& command : commands) {
    SCOPED_TRACE(command);
    const CommandResult result = Tool({command, "--help"});
    EXPECT_EQ(0, result.status);
    EXPECT_THAT(result.out, HasSubstr("Example: zorv-snapusage " + command));
    EXPECT_THAT(result.out, Not(HasSubstr("TEXT"))) << "says nothing";
    ExpectFitsAScreen(result.out);
  }
  ExpectFitsAScreen(Tool({"--help"}).out);
}

// The words of an option's description, from the lines that it has.
std::string DescriptionOf(const std::string& option, const std::string& help) {
  std::istringstream lines(help);
  std::string found;
  for (std::string line; std::getline(lines, line);) {
    const bool goesOn = !found.empty() && line.starts_with("      ");
    if (!goesOn && !found.empty()) break;
    if (goesOn || line.starts_with("  " + option + " ")) found += line.substr(23);
  }
  return found;
}

// They were told only to those who had named a wrong one.
TEST(MainHelp, ColumnsToSortByAreNamed) {
  size_t withColumns = 0;
  for (const std::string& command : Commands()) {
    SCOPED_TRACE(command);
    const std::string sort = DescriptionOf("--sort", Tool({command, "--help"}).out);
    if (sort.empty()) continue;
    ++withColumns;
    const std::string refused = Tool({command, "photos", "x", "--sort=?"}).err;
    const size_t at = refused.find("there are ");
    ASSERT_NE(std::string::npos, at) << refused;
    const std::string columns = refused.substr(at + 10, refused.find(';', at) - at - 10);
    EXPECT_EQ(" Sort (-: backwards) by " + columns, sort);
  }
  EXPECT_EQ(7u, withColumns);
}

TEST(MainHelp, ExitStatusesAreTheSameInProgramAndManual) {
  const CommandResult printed = Tool({"--exit-statuses"});
  EXPECT_EQ(0, printed.status);
  const std::string manual = ReadFile(ZORV_SOURCE_DIR "/docs/zorv-snapusage.md");
  std::istringstream lines(printed.out.substr(printed.out.find("Exit status:\n") + 13));
  int rows = 0;
  for (std::string line; std::getline(lines, line) && !line.empty(); ++rows) {
    int status = 0, at = 0;
    ASSERT_EQ(1, sscanf(line.c_str(), "%d  %n", &status, &at)) << line;
    EXPECT_THAT(manual, HasSubstr("| " + std::to_string(status) + " | " + line.substr(at) + " |"));
  }
  EXPECT_EQ(21, rows);
}

TEST(MainHelp, WrongCommandLines) {
  const struct {
    std::vector<std::string> words;
    const char* what;
  } cases[] = {
      {{"bogus"}, "there is no command 'bogus'; see zorv-snapusage --help\n"},
      {{"shwo", "photos"}, "there is no command 'shwo'; did you mean 'show'?\n"},
      {{"show"}, "SHARE is required; see zorv-snapusage show --help\n"},
      {{"show", "photos", "--format", "yaml"}, "--format: yaml not in {table,json}"},
      {{"run", "photos", "--sinc"}, "not expected: --sinc; did you mean '--since'?\n"},
      {{"stop", "photos", "mail"}, "not expected: mail; see zorv-snapusage stop --help\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const CommandResult result = Tool(c.words);
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_THAT(result.err, HasSubstr(c.what));
  }
  EXPECT_EQ(2, Tool({}).status);
}

}  // namespace
