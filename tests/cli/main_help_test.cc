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

TEST(MainHelp, EveryCommandHasAnExample) {
  for (const char* command :
       {"run", "start", "status", "show", "plan", "explain", "whyheld", "stop", "clean", "names"}) {
    SCOPED_TRACE(command);
    const CommandResult result = Tool({command, "--help"});
    EXPECT_EQ(0, result.status);
    EXPECT_THAT(result.out, HasSubstr(std::string("Example: zorv-snapusage ") + command));
    EXPECT_LE(std::count(result.out.begin(), result.out.end(), '\n'), 24) << "fits a screen";
    EXPECT_THAT(Tool({"--help"}).out, HasSubstr(std::string("  ") + command + " "));
  }
}

TEST(MainHelp, ExitStatusesAreTheSameInHelpAndManual) {
  const std::string help = Tool({"--help"}).out;
  const std::string manual = ReadFile(ZORV_SOURCE_DIR "/docs/zorv-snapusage.md");
  std::istringstream lines(help.substr(help.find("Exit status:\n") + 13));
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
      {{"bogus"}, "there is no command 'bogus'"},
      {{"run"}, "SHARE is required"},
      {{"show", "photos", "--format", "yaml"}, "--format: yaml not in {table,json}"},
      {{"run", "photos", "--sinc", "x"}, "not expected: --sinc"},
      {{"stop", "photos", "mail"}, "not expected: mail"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const CommandResult result = Tool(c.words);
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_THAT(result.err, HasSubstr(c.what));
    EXPECT_THAT(result.err, HasSubstr("; see zorv-snapusage --help\n"));
  }
  EXPECT_EQ(2, Tool({}).status);
}

}  // namespace
