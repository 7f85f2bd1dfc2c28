// `show`: the last good result of a share, whatever came after it.
#include <sys/resource.h>
#include <sys/syscall.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "tests/cli/cli_world.h"
#include "tests/platform/closed_mount.h"
#include "tests/support/syscall_stepper.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

class CmdShow : public CliWorld {
 protected:
  static void RunOnce() { MustRun(Argv({"run", "photos", "--quiet"})); }

  // The only result file with this suffix.
  static std::string ResultFile(const std::string& suffix) {
    for (const auto& entry : fs::directory_iterator(kResultsOfPhotos))
      if (entry.path().extension() == suffix) return entry.path();
    throw std::runtime_error("no " + suffix);
  }

  // As if the result had been stored that much later.
  static void StoreResultAgain(std::chrono::seconds later) {
    for (const char* suffix : {".result", ".subvol_id"})
      fs::last_write_time(ResultFile(suffix), fs::file_time_type::clock::now() + later);
  }

  // A volume at /volume2 with a share photos whose two snapshots have IDs of those at /volume1.
  std::unique_ptr<BtrfsVolume> OtherVolume() {
    auto other = std::make_unique<BtrfsVolume>("/volume2");
    other->Subvolume("photos");
    for (const char* snapshot : {"one", "two"})
      other->Snapshot("photos", std::string("photos/.snapshots/") + snapshot);
    return other;
  }

  // The files that say of which file system the calculations of photos are.
  static std::vector<fs::path> TheirFileSystems() {
    std::vector<fs::path> kept;
    for (const auto& entry : fs::directory_iterator("/var/cache/zorv-snapusage/photos"))
      if (entry.path().filename().string().starts_with("of-")) kept.push_back(entry.path());
    EXPECT_FALSE(kept.empty());
    return kept;
  }

  // As if others than this program had begun them.
  static void ForgetTheirFileSystems() {
    for (const fs::path& path : TheirFileSystems()) fs::remove(path);
  }

  // Another file system takes the place of the volume. Its two snapshots have IDs of the old ones.
  void MakeVolumeAnew() {
    const unsigned long long id = ID(kFirst);
    volume_.reset();
    volume_ = std::make_unique<BtrfsVolume>("/volume1");
    volume_->Subvolume("photos");
    for (const char* snapshot : {"one", "two"})
      volume_->Snapshot("photos", std::string("photos/.snapshots/") + snapshot);
    if (ID("one") != id) throw std::logic_error("other subvolume IDs than before");
  }
};

TEST_F(CmdShow, NoResultYet) {
  const CommandResult result = Tool({"show", "photos"});
  EXPECT_EQ(10, result.status);
  EXPECT_EQ(
      "zorv-snapusage: there is no result of share 'photos'; calculate it with: zorv-snapusage run "
      "photos\n",
      result.err);
}

TEST_F(CmdShow, NoResultAfterAFailure) {
  FakeEngine("echo 'exclusive sizes unavailable: x'\n");
  Tool({"run", "photos"});
  const CommandResult result = Tool({"show", "photos"});
  EXPECT_EQ(10, result.status);
  EXPECT_EQ(
      "zorv-snapusage: there is no result of share 'photos', its last calculation is in state fail; "
      "calculate it with: zorv-snapusage run photos\n",
      result.err);
}

TEST_F(CmdShow, ShowsWhatRunShowed) {
  const std::string run = MustRun(Argv({"run", "photos", "--quiet"}));
  const CommandResult show = Tool({"show", "photos"});
  EXPECT_EQ(0, show.status);
  EXPECT_EQ(run, show.out);
  EXPECT_EQ("", show.err);
}

TEST_F(CmdShow, JsonHasNumbersAsNumbers) {
  RunOnce();
  const Json::Value shown = Shown();
  EXPECT_EQ(1, shown["__header"]["version"].asInt());
  EXPECT_EQ("photos", shown["share"].asString());
  EXPECT_EQ(36u, shown["task_id"].asString().size());
  EXPECT_TRUE(shown["calculated_timestamp"].isIntegral());
  EXPECT_THAT(shown["calculated"].asString(),
              testing::MatchesRegex("....-..-..T..:..:..[+-]..:.."));
  EXPECT_TRUE(shown["complete"].asBool());
  EXPECT_EQ(0u, shown["missing"].size());
  EXPECT_EQ(0u, shown["not_measured"].size());
  ASSERT_EQ(3u, shown["snapshots"].size());
  const Json::Value& second = shown["snapshots"][1];
  EXPECT_EQ(kSecond, second["name"].asString());
  EXPECT_TRUE(second["present"].asBool());
  EXPECT_EQ(1709370249, second["timestamp"].asInt64());
  EXPECT_EQ("2024-03-02T09:04:09+00:00", second["time"].asString());
  EXPECT_TRUE(second["subvolume_id"].isUInt64());
  EXPECT_EQ(ID(kSecond), second["subvolume_id"].asUInt64());
  EXPECT_EQ(ID(kSecond) * 10, second["exclusive"].asUInt64());
  EXPECT_EQ((ID(kFirst) + ID(kSecond)) * 10, second["running_total"].asUInt64());
  EXPECT_TRUE(shown["snapshots"][2]["time"].isNull());
  EXPECT_TRUE(shown["snapshots"][2]["timestamp"].isNull());
}

TEST_F(CmdShow, LargestNumbersStayExact) {
  FakeEngine(
      "echo \"subvol($1) 18446744073709551615 bytes\"\n"
      "echo \"subvol($2) 9007199254740993 bytes\"; echo \"subvol($3) 0 bytes\"\n");
  RunOnce();
  const std::string text = Tool({"show", "photos", "--format", "json"}).out;
  EXPECT_THAT(text, HasSubstr("\"exclusive\" : 18446744073709551615,"));
  EXPECT_THAT(text, HasSubstr("\"exclusive\" : 9007199254740993,"));
}

TEST_F(CmdShow, SortsTablesAndJson) {
  FakeEngine(
      "echo \"subvol($1) 5 bytes\"; echo \"subvol($2) 7 bytes\"; echo \"subvol($3) 6 bytes\"\n");
  RunOnce();
  const auto names = [](const std::string& sort) {
    const Json::Value shown =
        ParseJson(MustRun(Argv({"show", "photos", "--format", "json", "--sort=" + sort})));
    std::vector<std::string> order;
    for (const Json::Value& row : shown["snapshots"]) order.push_back(row["name"].asString());
    return order;
  };
  using Names = std::vector<std::string>;
  EXPECT_EQ((Names{kFirst, kNoTime, kSecond}), names("exclusive"));
  EXPECT_EQ((Names{kSecond, kNoTime, kFirst}), names("-exclusive"));
  EXPECT_EQ((Names{kSecond, kFirst, kNoTime}), names("-time")) << "the unknown last";
  EXPECT_THAT(MustRun(Argv({"show", "photos", "-H", "--sort=+name"})),
              testing::MatchesRegex("5\t5\t.*\n7\t12\t.*\n6\t18\t.*by hand\n"));
}

TEST_F(CmdShow, ColumnThatThereIsNot) {
  const CommandResult result = Tool({"show", "photos", "--sort=-exlusive"});
  EXPECT_EQ(2, result.status);
  EXPECT_THAT(result.err, HasSubstr("there is no column 'exlusive', did you mean 'exclusive'?"));
  EXPECT_THAT(Tool({"show", "photos", "--sort=zzz"}).err,
              HasSubstr("there is no column 'zzz', there are exclusive, running_total, metadata, "
                        "with_older, new, subvolume_id, time, present, name"));
}

TEST_F(CmdShow, UnitsAsAskedFor) {
  FakeEngine("for id; do echo \"subvol($id) 1000000 bytes\"; done\n");
  RunOnce();
  const auto first = [](const std::vector<std::string>& words) {
    const std::string text = MustRun(Argv(words));
    return text.substr(0, text.find('\t'));
  };
  EXPECT_EQ("1000000", first({"show", "photos", "-H"}));
  EXPECT_EQ("976.56 KiB", first({"show", "photos", "-H", "--iec"}));
  EXPECT_EQ("1.00 MB", first({"show", "photos", "-H", "--si"}));
  EXPECT_THAT(Tool({"show", "photos", "--raw"}).out, HasSubstr("\n  1000000        1000000  "));
  EXPECT_THAT(Tool({"show", "photos", "--si"}).out, HasSubstr("\n  1.00 MB        1.00 MB  "));
  EXPECT_EQ(2, Tool({"show", "photos", "--si", "--raw"}).status) << "one of them";
}

TEST_F(CmdShow, ColorsAreForTerminalsThatWantThem) {
  RunOnce();
  volume_->DeleteSubvolume(std::string("photos/.snapshots/") + kFirst);
  const struct {
    std::vector<std::string> settings;
    bool colors;
  } cases[] = {{{}, true}, {{"NO_COLOR="}, true}, {{"NO_COLOR=1"}, false}, {{"TERM=dumb"}, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.settings.empty() ? "" : c.settings[0]);
    std::vector<std::string> argv = {"env", "-u", "NO_COLOR", "TERM=xterm"};
    argv.insert(argv.end(), c.settings.begin(), c.settings.end());
    for (const std::string& word : Argv({"show", "photos"})) argv.push_back(word);
    const std::string shown = Background(argv, Background::Terminal{100}).Wait().out;
    EXPECT_EQ(c.colors, shown.find("\x1b[1mEXCLUSIVE") != std::string::npos) << shown;
    EXPECT_EQ(c.colors, shown.find("\x1b[") != std::string::npos) << shown;
    EXPECT_THAT(ZorvTest::Run(argv).out, Not(HasSubstr("\x1b"))) << "a pipe never wants any";
  }
}

TEST_F(CmdShow, OutputThatCannotBeWrittenIsNoSuccess) {
  RunOnce();
  for (const char* words : {"show photos", "show photos --format json", "shares", "status"}) {
    SCOPED_TRACE(words);
    const CommandResult full =
        ZorvTest::Run({"bash", "-c", std::string(ZORV_CLI_PATH " ") + words + " > /dev/full"});
    EXPECT_EQ(1, full.status);
    EXPECT_THAT(full.err, HasSubstr("the output could not be written"));
    // A reader that has seen enough is no failure to speak of.
    const CommandResult closed = ZorvTest::Run(
        {"bash", "-c", std::string("{ sleep 0.2; " ZORV_CLI_PATH " ") + words + "; } | true"});
    EXPECT_EQ("", closed.err);
  }
}

TEST_F(CmdShow, RunUnderWayDoesNotHideTheLastResult) {
  RunOnce();
  WaitingEngine();
  MustRun(Argv({"start", "photos", "--snapshot", kFirst}));
  ASSERT_TRUE(EngineWaits());
  const CommandResult result = Tool({"show", "photos", "--raw"});
  EXPECT_EQ(0, result.status);
  EXPECT_THAT(result.out, HasSubstr("  by hand\n"));
  EXPECT_EQ(
      "zorv-snapusage: note: this is an earlier result; the last calculation is in state process\n",
      result.err);
}

// Results are taken away and copied anew, and it said that there was none.
TEST_F(CmdShow, ResultsThatAreBeingHandedOverAreLookedForAgain) {
  RunOnce();
  const std::string away = std::string(kResultsOfPhotos) + ".away";
  for (const char* command : {"show photos", "shares"}) {
    SCOPED_TRACE(command);
    size_t looks = 0;
    const auto run = [&](size_t hidden) {
      looks = 0;
      return SyscallStepper(std::vector<WatchedCall>{{SYS_openat}})
          .Run(
              Program({"/bin/sh", "-c", "exec \"$0\" " + std::string(command) + " -H", Argv({})[0]},
                      "/tmp/out"),
              [&](const Step& step) {
                if (step.paths.front() != kResultsOfPhotos) return Action::GoOn();
                ++looks;
                if (looks == hidden) fs::rename(kResultsOfPhotos, away);
                if (looks == hidden + 1) fs::rename(away, kResultsOfPhotos);
                return Action::GoOn();
              });
    };
    ASSERT_EQ(0, run(/*hidden=*/SIZE_MAX - 1));
    const std::string before = ReadFile("/tmp/out").substr(0, 12);  // ages come later
    ASSERT_THAT(before, HasSubstr("\t"));
    EXPECT_EQ(0, run(looks));
    EXPECT_EQ(before, ReadFile("/tmp/out").substr(0, 12));
  }
}

TEST_F(CmdShow, FailedRunDoesNotHideTheLastResult) {
  RunOnce();
  FakeEngine("echo 'exclusive sizes unavailable: x'\n");
  Tool({"run", "photos"});
  const CommandResult result = Tool({"show", "photos"});
  EXPECT_EQ(0, result.status);
  EXPECT_THAT(result.out, HasSubstr("  by hand\n"));
  EXPECT_THAT(result.err, HasSubstr("this is an earlier result; the last calculation is in state "
                                    "fail\n"));
}

TEST_F(CmdShow, ResultOutlivesAReboot) {
  RunOnce();
  fs::remove_all("/run/zorvbtrfssnapusage");
  fs::remove_all("/run/lock/zorvbtrfssnapusage");
  EXPECT_EQ(3u, Shown()["snapshots"].size());
}

TEST_F(CmdShow, DeletedSnapshotKeepsItsNameAndSaysSo) {
  RunOnce();
  const std::string others =
      "others may free more now than shown\nget their numbers with: "
      "zorv-snapusage run photos\n";
  EXPECT_THAT(Tool({"show", "photos"}).out, Not(HasSubstr(others)));
  volume_->DeleteSubvolume(std::string("photos/.snapshots/") + kFirst);
  const CommandResult result = Tool({"show", "photos"});
  EXPECT_EQ(0, result.status);
  EXPECT_THAT(result.out, HasSubstr(others));
  EXPECT_THAT(result.out,
              HasSubstr(std::string("2024-03-01 09:04:09  ") + kFirst + " (deleted)\n"));
  EXPECT_FALSE(Shown()["snapshots"][0]["present"].asBool());
  EXPECT_EQ(1u, Shown()["deleted_since"].asUInt64());
}

// Its snapshots had the IDs of those that had been calculated, and got their numbers.
TEST_F(CmdShow, SnapshotsOfAnotherFileSystemAreNotInTheResult) {
  RunOnce();
  fs::remove_all("/var/cache/zorv-snapusage/photos");  // what a caller of the library leaves
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // times are whole seconds
  MakeVolumeAnew();
  const CommandResult result = Tool({"show", "photos"});
  EXPECT_EQ(0, result.status);
  EXPECT_THAT(result.out, HasSubstr(", 0 of 2 snapshots calculated\n"));
  EXPECT_THAT(result.out, HasSubstr(std::string(kFirst) + " (deleted)\n"));
  EXPECT_THAT(result.out, Not(HasSubstr("others may free more")));
  EXPECT_THAT(result.err, HasSubstr("note: the share lies on another file system than "));
  const Json::Value shown = Shown();
  EXPECT_TRUE(shown["other_file_system"].asBool());
  EXPECT_EQ("one", shown["not_measured"][0].asString());
}

// Disks that take turns: the snapshots of the other one are older than the result, and have its
// IDs.
TEST_F(CmdShow, SnapshotsOfAnExchangedVolumeAreNotInTheResult) {
  const auto other = OtherVolume();
  RunOnce();
  ForgetTheirFileSystems();
  EXPECT_FALSE(Shown()["other_file_system"].asBool());
  volume_->Unmount();
  MustRun({"mount", "--bind", "/volume2", "/volume1"});
  const Json::Value shown = Shown();
  EXPECT_TRUE(shown["other_file_system"].asBool());
  EXPECT_FALSE(shown["snapshots"][0]["present"].asBool());
  EXPECT_EQ(2u, shown["not_measured"].size());
  EXPECT_TRUE(shown["generation"].isNull()) << "it is one of the other disk";
  const Json::Value shares = ParseJson(MustRun(Argv({"shares", "--format", "json"})));
  EXPECT_TRUE(shares["shares"][0]["generation"].isNull());
  MustRun(Argv({"run", "photos", "--quiet"}));
  MustRun({"umount", "/volume1"});
  volume_->Mount();
  MustRun(Argv({"plan", "photos", "--keep-last", "1"}));
  volume_->Unmount();
  MustRun({"mount", "--bind", "/volume2", "/volume1"});
  ForgetTheirFileSystems();
  EXPECT_FALSE(Shown()["other_file_system"].asBool()) << "no more of its numbers are elsewhere";
  MustRun({"umount", "/volume1"});
  volume_->Mount();
}

// Without a table, only what was kept when the calculation was started tells that.
TEST_F(CmdShow, FileSystemOfACalculationIsKept) {
  const auto other = OtherVolume();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(Settled());
  volume_->Unmount();
  MustRun({"mount", "--bind", "/volume2", "/volume1"});
  const Json::Value shown = Shown();
  EXPECT_TRUE(shown["other_file_system"].asBool());
  EXPECT_TRUE(shown["snapshots"][0]["present"].isNull()) << "nobody sees it from here";
  EXPECT_TRUE(shown["deleted_since"].isNull());
  EXPECT_EQ(2u, shown["not_measured"].size());
  MustRun({"umount", "/volume1"});
  volume_->Mount();
  FakeEngine("echo 'exclusive sizes unavailable: x'\n");
  for (int i = 0; i < 2; ++i) Tool({"run", "photos"});
  EXPECT_FALSE(Shown()["other_file_system"].asBool());
  EXPECT_EQ(2u, TheirFileSystems().size()) << "of the last result, and of the last calculation";
}

// Its file is not synced, and came back empty or as zeros.
TEST_F(CmdShow, FileSystemThatAPowerCutTookIsNotKnown) {
  RunOnce();
  const std::string file = TheirFileSystems().at(0);
  ASSERT_EQ(36u, ReadFile(file).size());
  for (const std::string& text : {std::string(), std::string(36, '\0'), std::string(35, '0')}) {
    WriteFile(file, text);
    EXPECT_FALSE(Shown()["other_file_system"].asBool()) << text.size();
  }
}

// It was said to be another one.
TEST_F(CmdShow, SameFileSystemOnAnotherVolume) {
  RunOnce();
  volume_->Unmount();
  fs::create_directory("/volume2");
  MustRun({"mount", "-o", "loop", volume_->Image(), "/volume2"});
  const Json::Value shown = Shown();
  EXPECT_FALSE(shown["other_file_system"].asBool());
  EXPECT_TRUE(shown["snapshots"][0]["present"].asBool());
  MustRun({"umount", "/volume2"});
  volume_->Mount();
}

// A caller of the library has calculated, so that there is no table.
TEST_F(CmdShow, SnapshotsOfAShareOnAnotherVolumeAreNotInTheResult) {
  const auto other = OtherVolume();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(Settled());
  ForgetTheirFileSystems();
  volume_->Unmount();
  const Json::Value shown = Shown();
  EXPECT_TRUE(shown["other_file_system"].asBool());
  EXPECT_TRUE(shown["snapshots"][0]["present"].isNull());
  volume_->Mount();
  EXPECT_FALSE(Shown()["other_file_system"].asBool());
}

// The record has names of the calculation under way, of other snapshots with these IDs.
TEST_F(CmdShow, NamesOfALaterCalculationAreNotThoseOfTheResult) {
  RunOnce();
  MakeVolumeAnew();
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  const Json::Value shown = Shown();
  EXPECT_TRUE(shown["other_file_system"].asBool());
  for (const Json::Value& row : shown["snapshots"]) EXPECT_TRUE(row["name"].isNull()) << row;
  Release();
}

// It was called complete as soon as nobody could list the snapshots.
TEST_F(CmdShow, ShortResultOfAVolumeThatIsNotMounted) {
  FakeEngine("echo \"subvol($1) 10 bytes\"\n");
  EXPECT_EQ(13, Tool({"run", "photos", "--quiet"}).status);
  volume_->Unmount();
  EXPECT_EQ(13, Tool({"show", "photos"}).status);
  volume_->Mount();
}

// The snapshots seem to have been made after the result.
TEST_F(CmdShow, ClockThatWasSetBackMakesNoOtherFileSystem) {
  RunOnce();
  StoreResultAgain(-std::chrono::hours(1));
  const Json::Value shown = Shown();
  EXPECT_FALSE(shown["other_file_system"].asBool()) << "a table of this file system proves it";
  EXPECT_TRUE(shown["snapshots"][0]["present"].asBool());
  fs::remove_all("/var/cache/zorv-snapusage/photos");
  EXPECT_TRUE(Shown()["other_file_system"].asBool());
}

// It was called complete.
TEST_F(CmdShow, ResultOfAPartSaysSo) {
  MustRun(Argv({"run", "photos", "--quiet", "--snapshot", kSecond}));
  EXPECT_THAT(MustRun(Argv({"show", "photos"})), HasSubstr(", 1 of 3 snapshots calculated\n"));
}

// `run` ended with 13, and `show` called it complete.
TEST_F(CmdShow, SnapshotThatCannotBeRecordedIsMissing) {
  volume_->Snapshot("photos", "photos/.snapshots/a\xFFz");
  EXPECT_EQ(13, Tool({"run", "photos", "--quiet"}).status);
  EXPECT_EQ(13, Tool({"show", "photos"}).status);
  EXPECT_EQ("a\xEF\xBF\xBDz", Shown()["missing"][0].asString());
  MustRun(Argv({"run", "photos", "--quiet", "--snapshot", kSecond}));
  EXPECT_EQ(0, Tool({"show", "photos"}).status) << "it was not asked for";
}

TEST_F(CmdShow, DeletedSnapshotThatNobodyRemembers) {
  RunOnce();
  volume_->DeleteSubvolume(std::string("photos/.snapshots/") + kFirst);
  EditJson(kMap, {"photos", "snap_list"}, Json::Value());
  EXPECT_THAT(Tool({"show", "photos"}).out, HasSubstr("-  (deleted)\n"));
  EXPECT_TRUE(Shown()["snapshots"][0]["name"].isNull());
}

TEST_F(CmdShow, NewSnapshotIsNoted) {
  RunOnce();
  volume_->Snapshot("photos", "photos/.snapshots/new");
  const CommandResult result = Tool({"show", "photos"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("zorv-snapusage: note: 1 snapshot of the share is not in this result\n", result.err);
  EXPECT_EQ("new", Shown()["not_measured"][0].asString());
  EXPECT_TRUE(Shown()["complete"].asBool());
}

TEST_F(CmdShow, ShortResultSaysSo) {
  FakeEngine("echo \"subvol($1) 10 bytes\"\n");
  Tool({"run", "photos"});
  const CommandResult result = Tool({"show", "photos", "--format", "json"});
  EXPECT_EQ(13, result.status);
  EXPECT_THAT(result.err, HasSubstr("the result of share 'photos' is short: 2 of 3 snapshots"));
  const Json::Value shown = ParseJson(result.out);
  EXPECT_FALSE(shown["complete"].asBool());
  EXPECT_EQ(kSecond, shown["missing"][0].asString());
  EXPECT_EQ(kNoTime, shown["missing"][1].asString());
}

TEST_F(CmdShow, ResultOfADeletedShare) {
  RunOnce();
  for (const char* snapshot : {kFirst, kSecond, kNoTime})
    volume_->DeleteSubvolume(std::string("photos/.snapshots/") + snapshot);
  volume_->DeleteSubvolume("photos");
  const CommandResult result = Tool({"show", "photos"});
  EXPECT_EQ(0, result.status);
  EXPECT_THAT(result.out, HasSubstr("by hand (deleted)\n"));
}

// All were said to be deleted.
TEST_F(CmdShow, SnapshotsOfARenamedShareAreNotSaidToBeDeleted) {
  RunOnce();
  const unsigned long long first = ID(kFirst);
  fs::rename(volume_->Path("photos"), volume_->Path("pictures"));
  const CommandResult result = Tool({"show", "photos"});
  EXPECT_EQ(0, result.status);
  EXPECT_THAT(result.out, Not(HasSubstr("deleted")));
  EXPECT_EQ(
      "zorv-snapusage: note: which snapshots are still there cannot be told: share 'photos' is "
      "gone, but /volume1 still has a subvolume with the ID " +
          std::to_string(first) +
          "; see whether the share has another name now: zorv-snapusage shares\n",
      result.err);
  EXPECT_TRUE(Shown()["snapshots"][0]["present"].isNull());
}

// The result was there, and was not shown.
TEST_F(CmdShow, SnapshotsThatCannotBeListedDoNotHideTheResult) {
  RunOnce();
  const std::string directory = volume_->Path("photos/.snapshots");
  const ClosedMount closed(directory);
  const CommandResult result = Tool({"show", "photos"});
  EXPECT_EQ(0, result.status);
  EXPECT_THAT(result.out, HasSubstr(std::string(kFirst) + "\n"));
  EXPECT_THAT(result.out, Not(HasSubstr("deleted")));
  EXPECT_EQ(
      "zorv-snapusage: note: which snapshots are still there cannot be told: the snapshots of "
      "share 'photos' cannot be listed, '" +
          directory + "' cannot be opened (Permission denied); see what is mounted there " +
          "with: findmnt -T " + directory + "\n",
      result.err);
  EXPECT_TRUE(Shown()["snapshots"][0]["present"].isNull());
  EXPECT_TRUE(Shown()["deleted_since"].isNull());
}

TEST_F(CmdShow, SnapshotsThatCannotBeListedAreNobodyElses) {
  volume_->Subvolume("mail");
  volume_->Snapshot("mail", "mail/.snapshots/one");
  RunOnce();
  const ClosedMount closed(volume_->Path("photos/.snapshots"));
  const CommandResult run = Tool({"run", "photos"});
  EXPECT_EQ(1, run.status);
  EXPECT_THAT(run.err, HasSubstr("' cannot be opened (Permission denied); see what is mounted "));
  EXPECT_EQ(0, Tool({"status", "photos"}).status);
  EXPECT_EQ(0, Tool({"run", "mail"}).status);
  EXPECT_EQ(0, Tool({"show", "mail"}).status);
  EXPECT_EQ("removed share 'mail': state done, the result of 1 snapshot, and its tables\n",
            Tool({"clean", "mail"}).out);
  EXPECT_EQ("removed share 'photos': state done, the result of 3 snapshots, and its tables\n",
            Tool({"clean", "--all"}).out);
}

TEST_F(CmdShow, FilesThatAreCutShortAreNoResult) {
  RunOnce();
  for (const char* suffix : {".result", ".subvol_id"}) {
    SCOPED_TRACE(suffix);
    const std::string path = ResultFile(suffix);
    const std::string whole = ReadFile(path);
    for (const size_t size : {whole.size() - 8, whole.size() - 1, size_t{4}, size_t{0}}) {
      WriteFile(path, whole.substr(0, size));
      EXPECT_EQ(10, Tool({"show", "photos"}).status) << size;
    }
    WriteFile(path, whole + std::string(8, '\0'));
    EXPECT_EQ(10, Tool({"show", "photos"}).status) << "longer than its count";
    WriteFile(path, whole);
    EXPECT_EQ(0, Tool({"show", "photos"}).status);
  }
}

// The library would make up for the missing elements, and take half a gigabyte for it.
TEST_F(CmdShow, ACountWithoutElementsTakesNoMemory) {
  RunOnce();
  for (const char* suffix : {".result", ".subvol_id"})
    WriteFile(ResultFile(suffix), std::string("\0\0\0\4\0\0\0\0\1\0\0\0\0\0\0\0", 16));
  EXPECT_EQ(10, Tool({"show", "photos"}).status);
  rusage children = {};
  getrusage(RUSAGE_CHILDREN, &children);
  EXPECT_LT(children.ru_maxrss, 256 << 10);  // KiB
}

TEST_F(CmdShow, NewestCompletePairCounts) {
  RunOnce();
  const std::string vector("\1\0\0\0\0\0\0\0\7\0\0\0\0\0\0\0", 16);
  const std::string base = std::string(kResultsOfPhotos) + "/other";
  WriteFile(base + ".result", vector);
  EXPECT_EQ(3u, Shown()["snapshots"].size()) << "half a pair is none";
  WriteFile(base + ".subvol_id", vector);
  for (const char* suffix : {".result", ".subvol_id"})
    fs::last_write_time(base + suffix, fs::file_time_type::clock::now() + std::chrono::hours(1));
  EXPECT_EQ("other", Shown()["task_id"].asString());
  EXPECT_EQ(7u, Shown()["snapshots"][0]["exclusive"].asUInt64());
  for (const char* suffix : {".result", ".subvol_id"})
    fs::last_write_time(base + suffix, fs::file_time_type::clock::now() - std::chrono::hours(1));
  EXPECT_EQ(3u, Shown()["snapshots"].size());
}

TEST_F(CmdShow, EmptyResultIsATableWithoutLines) {
  FakeEngine("true\n");
  EXPECT_EQ(13, Tool({"run", "photos"}).status);
  EXPECT_EQ(13, Tool({"show", "photos"}).status);
  EXPECT_EQ(0u, Shown()["snapshots"].size());
}

// Each snapshot was asked for by itself, and each time the whole record was read.
TEST_F(CmdShow, ManySnapshotsAreLookedUpAtOnce) {
  RunOnce();
  const auto readingsOfMap = [&](uint64_t snapshots) {
    std::string ids(reinterpret_cast<const char*>(&snapshots), 8);
    Json::Value names(Json::objectValue);
    for (uint64_t id = 1; id <= snapshots; ++id) {
      ids.append(reinterpret_cast<const char*>(&id), 8);
      names["snapshot " + std::to_string(id)] = std::to_string(id);
    }
    for (const char* suffix : {".result", ".subvol_id"}) WriteFile(ResultFile(suffix), ids);
    EditJson(kMap, {"photos", "snap_list"}, names);
    size_t readings = 0;
    SyscallStepper(std::vector<WatchedCall>{{SYS_openat}})
        .Run(Program(Argv({"show", "photos"}), "/tmp/show.out"), [&](const Step& step) {
          if (step.paths.front() == kMap) ++readings;
          return Action::GoOn();
        });
    return readings;
  };
  const size_t readings = readingsOfMap(10);
  EXPECT_NE(0u, readings);
  EXPECT_EQ(readings, readingsOfMap(100));
  EXPECT_THAT(ReadFile("/tmp/show.out"), HasSubstr("snapshot 100 (deleted)\n"));
}

// Its snapshots were all said to be deleted.
TEST_F(CmdShow, VolumeThatIsNotMounted) {
  RunOnce();
  volume_->Unmount();
  const CommandResult result = Tool({"show", "photos"});
  EXPECT_EQ(0, result.status);
  EXPECT_THAT(result.out, Not(HasSubstr("deleted")));
  EXPECT_EQ(
      "zorv-snapusage: note: which snapshots are still there cannot be told: share 'photos' cannot "
      "be reached for the moment: /volume1, where it was, is not there; mount its volume; if the "
      "share is gone for good, remove its record with: zorv-snapusage clean photos\n",
      result.err);
  EXPECT_TRUE(Shown()["snapshots"][0]["present"].isNull());
  EXPECT_EQ(15, Tool({"run", "photos"}).status);
  volume_->Mount();
  EXPECT_TRUE(Shown()["snapshots"][0]["present"].asBool());
}

TEST_F(CmdShow, NameThatIsNotUtf8) {
  RunOnce();
  volume_->Snapshot("photos", "photos/.snapshots/a\xFFz");
  EXPECT_THAT(Tool({"show", "photos", "--format", "json"}).out, HasSubstr("\"a\xEF\xBF\xBDz\""));
}

}  // namespace
