// `shares`: what there is, and how old the last result of each is.
#include <signal.h>

#include <filesystem>

#include "tests/cli/cli_world.h"

using namespace ZorvTest;
namespace fs = std::filesystem;

namespace {

class CmdShares : public CliWorld {
 protected:
  static Json::Value Share(const std::string& name) {
    const Json::Value document = ParseJson(MustRun(Argv({"shares", "--format", "json"})));
    for (const Json::Value& share : document["shares"])
      if (share["name"].asString() == name) return share;
    return Json::Value();
  }
};

TEST_F(CmdShares, ListsAllWithWhatIsKnown) {
  volume_->Subvolume("mail");
  MustRun(Argv({"run", "photos", "--quiet"}));
  const std::string text = MustRun(Argv({"shares"}));
  EXPECT_THAT(
      text,
      ContainsRegex(
          "^VOLUME    SNAPSHOTS  MEASURED           CALCULATED  AGE  GENERATION  STATE  SHARE\n"
          "/volume1          0         -                    -    -           -  -      mail\n"
          "/volume1          3         3  ....-..-.. ..:..:..  . s           7  done   photos\n$"));
}

TEST_F(CmdShares, JsonHasPlaceSourceAndState) {
  const Json::Value before = Share("photos");
  EXPECT_EQ("/volume1", before["volume"].asString());
  EXPECT_EQ("/volume1/photos", before["path"].asString());
  EXPECT_EQ("volume", before["source"].asString());
  EXPECT_EQ(3u, before["snapshots"].asUInt());
  for (const char* unknown : {"measured", "calculated", "calculated_timestamp", "age", "state"})
    EXPECT_TRUE(before[unknown].isNull()) << unknown;
  MustRun(Argv({"run", "photos", "--quiet", "--snapshot", kFirst}));
  const Json::Value after = Share("photos");
  EXPECT_EQ(1u, after["measured"].asUInt());
  EXPECT_EQ("done", after["state"].asString());
  EXPECT_EQ("none", after["activity"].asString());
  EXPECT_GE(after["age"].asInt64(), 0);
  EXPECT_LT(after["age"].asInt64(), 60);
}

TEST_F(CmdShares, ResultOfALaterClockHasNoAge) {
  MustRun(Argv({"run", "photos", "--quiet"}));
  const auto toCome = fs::file_time_type::clock::now() + std::chrono::hours(1);
  for (const auto& entry : fs::directory_iterator(kResultsOfPhotos))
    fs::last_write_time(entry.path(), toCome);
  EXPECT_TRUE(Share("photos")["calculated_timestamp"].isIntegral());
  EXPECT_TRUE(Share("photos")["age"].isNull());
}

TEST_F(CmdShares, RunningOneKeepsItsLastResult) {
  MustRun(Argv({"run", "photos", "--quiet"}));
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  EXPECT_EQ("process", Share("photos")["state"].asString());
  EXPECT_EQ("running", Share("photos")["activity"].asString());
  EXPECT_EQ(3u, Share("photos")["measured"].asUInt());
}

TEST_F(CmdShares, KilledOneSaysSo) {
  WaitingEngine();
  MustRun(Argv({"start", "photos"}));
  ASSERT_TRUE(EngineWaits());
  kill(CalculatorPid(), SIGKILL);
  ASSERT_TRUE(Settled());
  EXPECT_THAT(MustRun(Argv({"shares"})), HasSubstr("  process (gone)  photos\n"));
  EXPECT_EQ("died", Share("photos")["activity"].asString());
  Release();
}

TEST_F(CmdShares, RecordThatCannotBeReadHidesNoOther) {
  volume_->Subvolume("mail");
  MustRun(Argv({"run", "photos", "--quiet"}));
  fs::remove(kStatusOfPhotos);
  fs::create_symlink("/etc/passwd", kStatusOfPhotos);
  const CommandResult result = Tool({"shares", "--format", "json"});
  EXPECT_EQ(16, result.status);
  EXPECT_THAT(result.err, HasSubstr("is a symbolic link"));
  const Json::Value document = ParseJson(result.out);
  EXPECT_FALSE(document["complete"].asBool());
  EXPECT_EQ(2u, document["shares"].size());
  EXPECT_EQ(3u, document["shares"][1]["snapshots"].asUInt()) << "what can be told is told";
}

TEST_F(CmdShares, VolumeThatIsNotThere) {
  WriteFile("/etc/fstab", "/dev/sdz /volume2 btrfs defaults 0 0\n");
  const CommandResult result = Tool({"shares"});
  fs::remove("/etc/fstab");
  EXPECT_EQ(15, result.status);
  EXPECT_THAT(result.err, HasSubstr("note: shares may be missing, /volume2 is not there: "));
  EXPECT_THAT(result.out, HasSubstr("  photos\n")) << "one disk hid all others";
}

}  // namespace
