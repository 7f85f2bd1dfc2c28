// Names and records that lead elsewhere: nothing outside the library's directories is written,
// removed or signalled.
#include <signal.h>

#include <filesystem>

#include "tests/cli/cli_world.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

constexpr char kResultsOfShares[] = "/usr/local/zorvbtrfssnapusage/share_task_result";

std::vector<std::string> EntriesOf(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory))
    names.push_back(entry.path().filename());
  return names;
}

class ShareNames : public CliWorld {
 protected:
  // A share of this name with one snapshot.
  void MakeShare(const std::string& name) {
    volume_->Subvolume(name);
    volume_->Snapshot(name, name + "/.snapshots/one");
  }
};

TEST_F(ShareNames, OnesThatNoShareCanHaveAreUnknown) {
  const struct {
    const char* name;
    std::string share;
    std::string shown;
  } names[] = {
      {"empty", "", "''"},
      {"this directory", ".", "'.'"},
      {"the one above", "..", "'..'"},
      {"root", "/", "'/'"},
      {"path", "../../etc", "'../../etc'"},
      {"path of the share", "photos/", "'photos/'"},
      {"absolute path", "/volume1/photos", "'/volume1/photos'"},
      {"newline", "a\nb", "'a\\nb'"},
      {"escape", "a\x1B[31mb", "'a\\x1B[31mb'"},
      {"as long as names can be", std::string(255, 'x'), "'" + std::string(255, 'x') + "'"},
      {"too long for a name", std::string(256, 'x'), "'" + std::string(256, 'x') + "'"},
      {"too long for a path", std::string(5000, 'x'), "'" + std::string(5000, 'x') + "'"},
      {"not UTF-8", "a\xFF", "'a\\xFF'"},
  };
  for (const auto& c : names) {
    for (const char* command : {"run", "start", "status", "show", "stop", "clean"}) {
      SCOPED_TRACE(std::string(command) + ": " + c.name);
      const CommandResult result = Tool({command, c.share});
      EXPECT_EQ(5, result.status);
      const bool near = c.share == "photos/";
      EXPECT_EQ("zorv-snapusage: there is no share " + c.shown +
                    (near ? "; did you mean 'photos'?\n"
                          : "; a share is a subvolume directly below /volume1, /volume2, ...\n"),
                result.err);
    }
  }
  EXPECT_TRUE(fs::is_empty(kResultsOfShares));
}

// "clean" without a share means all of them: an empty name, of a variable that was never set for
// one, does not.
TEST_F(ShareNames, EmptyOneIsNotAllShares) {
  MustRun(Argv({"run", "photos", "--quiet"}));
  EXPECT_EQ(5, Tool({"clean", ""}).status);
  EXPECT_EQ(0, Tool({"show", "photos"}).status);
}

TEST_F(ShareNames, OneThatLooksLikeAnOption) {
  MakeShare("-x");
  EXPECT_EQ(2, Tool({"run", "-x"}).status);
  EXPECT_EQ(0, Tool({"run", "--", "-x"}).status);
  EXPECT_EQ(0, Tool({"show", "--", "-x"}).status);
  EXPECT_EQ("removed share '-x': state done, the result of 1 snapshot, and its tables\n",
            MustRun(Argv({"clean", "--", "-x"})));
}

// Commands that are to be typed failed as they stood.
TEST_F(ShareNames, CommandsForOneThatLooksLikeAnOptionCanBeTyped) {
  MakeShare("-x");
  EXPECT_THAT(Tool({"show", "--", "-x"}).err,
              HasSubstr("calculate it with: zorv-snapusage run -- -x\n"));
  EXPECT_THAT(Tool({"wait", "--", "-x"}).err,
              HasSubstr("start one with: zorv-snapusage run -- -x\n"));
}

TEST_F(ShareNames, OneWithControlCharactersStaysOnItsLine) {
  MakeShare("a\nb\x1B[31m");
  EXPECT_EQ(0, Tool({"run", "a\nb\x1B[31m"}).status);
  EXPECT_THAT(MustRun(Argv({"status", "a\nb\x1B[31m"})),
              HasSubstr("share:           a\\nb\\x1B[31m\n"));
  EXPECT_EQ(
      "removed share 'a\\nb\\x1B[31m': state done, the result of 1 snapshot, and its tables\n",
      MustRun(Argv({"clean", "--all"})));
}

TEST_F(ShareNames, LongestThatRecordsCanBeMadeOf) {
  const std::string name(248, 'n');
  MakeShare(name);
  EXPECT_EQ(0, Tool({"run", name}).status);
  EXPECT_EQ(0, Tool({"clean", name}).status);
}

TEST_F(ShareNames, OneThatIsTooLongForItsRecordsLeavesNothing) {
  for (const size_t length : {249, 250, 251, 255}) {
    SCOPED_TRACE(length);
    const std::string name(length, 'n');
    MakeShare(name);
    for (const char* command : {"run", "start"}) {
      const CommandResult result = Tool({command, name});
      EXPECT_EQ(1, result.status);
      EXPECT_EQ("zorv-snapusage: the name of share '" + name +
                    "' is too long for the names of its records; give it a name of at most 248 "
                    "bytes\n",
                result.err);
    }
    EXPECT_EQ(10, Tool({"status", name}).status);
    EXPECT_TRUE(fs::is_empty(kResultsOfShares));
  }
}

// The files that the library's own clean-up would remove stand below /opt.
class HostileMap : public CliWorld {
 protected:
  HostileMap() {
    MustRun(Argv({"run", "photos", "--quiet"}));
    WriteFile(kTreasure, "not to be touched");
  }
  ~HostileMap() override { EXPECT_EQ("not to be touched", ReadFile(kTreasure)); }

  // An entry like that of photos under another name.
  static void AddMember(const std::string& name) {
    EditJson(kMap, {name}, ParseJson(ReadFile(kMap))["photos"]);
  }

  static void SetTask(const std::string& taskID) { EditJson(kMap, {"photos", "task_id"}, taskID); }

  static constexpr char kTreasure[] = "/opt/away/file";
};

TEST_F(HostileMap, MemberThatIsAPathIsDroppedAndNotFollowed) {
  for (const char* name : {"../../../../opt/away", "..", ".", "", "photos/../photos"}) {
    SCOPED_TRACE(name);
    MustRun(Argv({"run", "photos", "--quiet"}));
    AddMember(name);
    const CommandResult result = Tool({"clean", "--all"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ(
        "removed share 'photos': state done, the result of 3 snapshots, and its tables\nremoved share '" +
            std::string(name) + "': it no longer exists\n",
        result.out);
    EXPECT_TRUE(fs::exists(kMap));
  }
}

TEST_F(HostileMap, MemberThatIsAPathAndTheOnlyOneIsLeftAlone) {
  for (const char* name : {"../../../../opt/away", "..", ""}) {
    SCOPED_TRACE(name);
    WriteFile(kMap, "{}");
    EditJson(kMap, {name, "task_id"}, "8b0f0c36-8a3f-4a57-9f6f-1f7e5d0c1a55");
    EditJson(kMap, {name, "time"}, 1);
    const CommandResult result = Tool({"clean", "--all"});
    EXPECT_EQ(16, result.status);
    EXPECT_EQ(std::string("zorv-snapusage: ") + kMap + " names a share '" + name +
                  "', which can be none; take the entry out of that file\n",
              result.err);
    EXPECT_EQ(5, Tool({"clean", name}).status);
    EXPECT_EQ(3u, EntriesOf("/usr/local/zorvbtrfssnapusage").size());
  }
}

// The library would remove <status directory>/<task ID>, and results whose names begin with it.
TEST_F(HostileMap, TaskThatIsNoneIsRefusedAndNotFollowed) {
  const std::string other = "00000000-0000-4000-8000-000000000000";
  const std::vector<std::string> files = {
      "/run/zorvbtrfssnapusage/task_status/" + other,
      "/run/zorvbtrfssnapusage/task_result/" + other + ".result",
      "/run/lock/zorvbtrfssnapusage/snap_cal_result/" + other + ".result"};
  for (const char* task :
       {"../../../opt/away/file", "../../../../opt/away/file", "..", ".", "/", "0", "00000000",
        "00000000-0000-4000-8000-00000000000", "photos", "00000000-0000-4000-8000-000000000000x",
        "00000000-0000-4000-8000-00000000000g", "00000000_0000-4000-8000-000000000000"}) {
    SCOPED_TRACE(task);
    for (const std::string& file : files) WriteFile(file, "{\"status\":\"fail\"}");
    SetTask(task);
    for (const char* command : {"run", "start", "status", "show", "stop"}) {
      SCOPED_TRACE(command);
      const CommandResult result = Tool({command, "photos"});
      EXPECT_EQ(16, result.status);
      EXPECT_EQ(std::string("zorv-snapusage: the record of share 'photos' names a task '") + task +
                    "', which is none; remove the record with: zorv-snapusage clean photos\n",
                result.err);
    }
    EXPECT_EQ(0, Tool({"clean", "photos"}).status);
    for (const std::string& file : files) EXPECT_TRUE(fs::exists(file)) << file;
    MustRun(Argv({"run", "photos", "--quiet"}));
  }
}

TEST_F(HostileMap, EmptyTaskMatchesNothing) {
  const std::string file =
      "/run/zorvbtrfssnapusage/task_result/00000000-0000-4000-8000-000000000000.result";
  WriteFile(file, "another task's");
  SetTask("");
  for (const char* command : {"status", "stop"})
    EXPECT_EQ(10, Tool({command, "photos"}).status) << command;
  EXPECT_EQ(0, Tool({"run", "photos"}).status);
  EXPECT_EQ(0, Tool({"clean", "--all"}).status);
  EXPECT_TRUE(fs::exists(file));
}

// The library cannot compare it, and every command gave up on the share for good.
TEST_F(HostileMap, TimeThatIsNoneIsOneThatHasExpired) {
  for (const char* time : {"4294967296", "-5", "\"abc\"", "{}", "1e300"}) {
    SCOPED_TRACE(time);
    EditJson(kMap, {"photos", "time"}, ParseJson(time));
    EXPECT_EQ(0, Tool({"status", "photos"}).status);
    EXPECT_EQ(0, Tool({"show", "photos"}).status);
    EXPECT_EQ(0, Tool({"stop", "photos"}).status);
    EXPECT_EQ(0, Tool({"run", "photos"}).status);
    EditJson(kMap, {"photos", "time"}, ParseJson(time));
    EXPECT_EQ(0, Tool({"clean", "photos"}).status);
    MustRun(Argv({"run", "photos", "--quiet"}));
  }
}

TEST_F(HostileMap, StateOfAnotherVersionCanBeCleaned) {
  EditJson(kStatusOfPhotos, {"status"}, "xyz");
  const CommandResult run = Tool({"run", "photos"});
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(
      "zorv-snapusage: the record of share 'photos' is in state 'xyz', which this version does not "
      "know; use the version that wrote it, or remove the record with: zorv-snapusage clean photos\n",
      run.err);
  EXPECT_EQ("removed share 'photos': state unknown, the result of 3 snapshots, and its tables\n",
            MustRun(Argv({"clean", "photos"})));
  EXPECT_EQ(0, Tool({"run", "photos"}).status);
}

// `clean` said that it had removed it, and it stayed.
TEST_F(HostileMap, MemberThatIsNoEntryIsRemoved) {
  for (const std::vector<std::string>& clean :
       {std::vector<std::string>{"clean", "--all"}, {"clean", "photos"}})
    for (const char* entry : {"5", "\"x\"", "[]", "{}"}) {
      SCOPED_TRACE(entry);
      EditJson(kMap, {"photos"}, ParseJson(entry));
      const CommandResult result = Tool(clean);
      EXPECT_EQ(0, result.status) << result.err;
      EXPECT_THAT(result.out, HasSubstr("removed share 'photos': state done, "));
      EXPECT_FALSE(ParseJson(ReadFile(kMap)).isMember("photos"));
      MustRun(Argv({"run", "photos", "--quiet"}));
    }
}

TEST_F(HostileMap, OneThatIsNoMapIsNotEmpty) {
  for (const char* text : {"[]", "7", "\"photos\""}) {
    SCOPED_TRACE(text);
    WriteFile(kMap, text);
    const CommandResult result = Tool({"clean", "--all"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_EQ(std::string("zorv-snapusage: ") + kMap +
                  " is no map of shares; look at what is in it, and remove it: rm " + kMap + "\n",
              result.err);
  }
}

// It was taken for one without shares.
TEST_F(HostileMap, DamagedOneIsSaid) {
  const std::string damaged = std::string(kMap) + " is damaged, it is no JSON text; ";
  for (const char* text : {"", "{", "{\"mail\"", "garbage"}) {
    SCOPED_TRACE(text);
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"clean", "--all"}, {"clean", "photos"}, {"status", "photos"}, {"stop", "photos"}}) {
      SCOPED_TRACE(words[0]);
      WriteFile(kMap, text);
      const CommandResult result = Tool(words);
      EXPECT_EQ(1, result.status);
      EXPECT_EQ("", result.out);
      EXPECT_EQ(
          "zorv-snapusage: " + damaged + "look at what is in it, and remove it: rm " + kMap + "\n",
          result.err);
    }
    const CommandResult run = Tool({"run", "photos", "--quiet"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("zorv-snapusage: note: " + damaged +
                  "what can be read of it is kept, the rest is lost when it is written\n",
              run.err);
    EXPECT_TRUE(ParseJson(ReadFile(kMap)).isMember("photos")) << "written anew";
    fs::remove(kMap);
  }
}

TEST_F(HostileMap, AnyTextInItIsSafe) {
  for (const char* text :
       {"", "null", "[]", "7", "\"photos\"", "{\"photos\":null}", "{\"photos\":[]}",
        "{\"photos\":{\"task_id\":{}}}", "{\"photos\":{\"task_id\":7,\"time\":\"x\"}}",
        "{\"photos\":{\"task_id\":\"8b0f0c36-8a3f-4a57-9f6f-1f7e5d0c1a55\",\"time\":-1}}", "{"}) {
    SCOPED_TRACE(text);
    WriteFile(kMap, text);
    for (const char* command : {"status", "show", "stop", "clean", "run"}) {
      const CommandResult result = Tool({command, "photos"});
      EXPECT_GT(128, result.status) << command;
      const bool said = result.err.find("zorv-snapusage: ") != std::string::npos &&
                        result.err.find("zorv-snapusage: note: ") == std::string::npos;
      EXPECT_NE(result.status == 0, said) << command << ": " << result.err;
    }
    fs::remove(kMap);
  }
}

}  // namespace
