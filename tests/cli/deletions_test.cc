// Deleted subvolumes that the file system is still taking apart: what they share is nobody else's
// alone, and every number says that there are some.
#include <fcntl.h>

#include <filesystem>

#include "base/unique_fd.h"
#include "tests/cli/cli_world.h"

using namespace ZorvTest;

namespace {

class Deletions : public CliWorld {
 protected:
  // A snapshot that is deleted, and stays for as long as a file of it is open.
  Deletions() {
    RealEngine();
    WriteRandom(volume_->Path("photos/film"), 300000, 1);
    for (const char* snapshot : {"GMT-2024.03.05-09.04.09", "GMT-2024.03.06-09.04.09"})
      volume_->Snapshot("photos", std::string("photos/.snapshots/") + snapshot);
    WriteRandom(volume_->Path("photos/film"), 300000, 2);
    const std::string deleted = "photos/.snapshots/GMT-2024.03.05-09.04.09";
    open_ = UniqueFd(open(volume_->Path(deleted + "/film").c_str(), O_RDONLY | O_CLOEXEC));
    if (!open_.Valid()) throw std::runtime_error("the film of the snapshot cannot be opened");
    volume_->DeleteSubvolume(deleted);
    MustRun({"sync", "-f", "/volume1"});
  }

  // An engine before which this subvolume is deleted when it is asked for a table of `volume`; a
  // file of it stays open, so that the deletion goes on.
  UniqueFd DeletingEngine(const std::string& subvolume, const std::string& volume) const {
    UniqueFd film(open((subvolume + "/film").c_str(), O_RDONLY | O_CLOEXEC));
    if (!film.Valid()) throw std::runtime_error("the film of the subvolume cannot be opened");
    std::filesystem::rename("/sbin/btrfs", "/opt/engine");
    WriteScript("/sbin/btrfs", "case \"$*\" in *--table*" + volume + "/*) " + kStockBtrfs +
                                   " subvolume delete " + subvolume + " >&2; sync -f " + volume +
                                   " ;; esac\nexec /opt/engine \"$@\"\n");
    return film;
  }

  void EndDeletion() {
    open_.Reset();
    MustRun({kStockBtrfs, "filesystem", "sync", "/volume1"});
    MustRun({kStockBtrfs, "subvolume", "sync", "/volume1"});
    MustRun({"sync", "-f", "/volume1"});
  }

  static constexpr char kNote[] =
      "zorv-snapusage: note: the deletion of 1 subvolume is still going on: until it has ended no "
      "snapshot holds alone what it shares with what was deleted; wait for that with: btrfs "
      "subvolume sync /volume1\n";

  UniqueFd open_;
};

// What the later snapshot holds alone, by its own row.
unsigned long long LastExclusive(const Json::Value& document) {
  for (const Json::Value& row : document["snapshots"])
    if (row["name"].asString() == "GMT-2024.03.06-09.04.09") return row["exclusive"].asUInt64();
  throw std::runtime_error("the snapshot is not in the result");
}

TEST_F(Deletions, RunSaysThatTheyGoOn) {
  const CommandResult during = Tool({"run", "photos", "--quiet", "--format", "json"});
  EXPECT_EQ(0, during.status);
  EXPECT_THAT(during.err, HasSubstr(kNote));
  EXPECT_EQ(1u, ParseJson(during.out)["being_deleted"].asUInt64());
  EXPECT_LT(LastExclusive(ParseJson(during.out)), 300000u) << "the deleted one holds the film too";
  EndDeletion();
  const CommandResult after = Tool({"run", "photos", "--quiet", "--format", "json"});
  EXPECT_EQ("", after.err);
  EXPECT_EQ(Json::Value(0), ParseJson(after.out)["being_deleted"]);
  EXPECT_GT(LastExclusive(ParseJson(after.out)), 300000u);
  EXPECT_TRUE(Shown()["being_deleted"].isNull()) << "nobody wrote it down";
}

TEST_F(Deletions, StartSaysThatTheyGoOn) {
  const CommandResult start = Tool({"start", "photos"});
  EXPECT_EQ(0, start.status);
  EXPECT_EQ(kNote, start.err);
  ASSERT_TRUE(Settled());
}

// Also where its table is kept, so that nobody reads.
TEST_F(Deletions, PlanSaysThatTheyGoOn) {
  for (const char* table : {"read", "kept"}) {
    SCOPED_TRACE(table);
    const CommandResult plan = Tool({"plan", "photos", "--keep-last", "1", "--format", "json"});
    EXPECT_EQ(0, plan.status);
    EXPECT_EQ(kNote, plan.err);
    EXPECT_EQ(1u, ParseJson(plan.out)["being_deleted"].asUInt64());
  }
  EndDeletion();
  const CommandResult after = Tool({"plan", "photos", "--keep-last", "1", "--format", "json"});
  EXPECT_EQ("", after.err);
  EXPECT_EQ(Json::Value(0), ParseJson(after.out)["being_deleted"]);
}

// The engine's note was hushed, and the document said that there was none.
TEST_F(Deletions, OneThatBeginsAfterTheFirstLookIsSaid) {
  EndDeletion();
  const std::string next = volume_->Path("photos/.snapshots/GMT-2024.03.07-09.04.09");
  volume_->Snapshot("photos", "photos/.snapshots/GMT-2024.03.07-09.04.09");
  const std::string strange = volume_->Path("strange");
  MustRun({kStockBtrfs, "subvolume", "snapshot", next, strange});
  open_ = DeletingEngine(strange, "/volume1");
  const CommandResult plan = Tool({"plan", "photos", "--keep-last", "1", "--format", "json"});
  EXPECT_EQ(0, plan.status) << plan.err;
  EXPECT_THAT(plan.err, Not(HasSubstr(kNote)));
  EXPECT_THAT(plan.err, HasSubstr("zorv-snapusage: note: a subvolume is being deleted; "));
  EXPECT_EQ(1u, ParseJson(plan.out)["being_deleted"].asUInt64());
}

TEST_F(Deletions, ExplainAndWhyheldSayThatTheyGoOn) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"explain", "photos", "GMT-2024.03.06-09.04.09"},
        std::vector<std::string>{"whyheld", "photos", "film"}}) {
    const CommandResult result = Tool(words);
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(kNote, result.err);
  }
}

// What was said of the deletions beside one share hushed the engine's note about another.
TEST_F(Deletions, OneBesideAnotherShareIsSaid) {
  const BtrfsVolume other("/volume2");
  other.Subvolume("films");
  std::filesystem::create_directory(other.Path("films/.snapshots"));
  other.Snapshot("films", "films/.snapshots/one");
  other.Subvolume("strange");
  WriteRandom(other.Path("strange/film"), 300000, 1);
  MustRun({"sync", "-f", "/volume2"});
  const UniqueFd film = DeletingEngine(other.Path("strange"), "/volume2");
  const CommandResult run = Tool({"run", "photos", "films", "--quiet"});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_THAT(run.err, HasSubstr(kNote));
  EXPECT_THAT(run.err, HasSubstr("zorv-snapusage: note: a subvolume is being deleted; "));
}

// The advice was to wait for what does not come to an end.
TEST_F(Deletions, OnesThatStandStillAreNotWaitedFor) {
  MustRun({"mount", "-o", "remount,ro", "/volume1"});
  const CommandResult plan = Tool({"plan", "photos", "--keep-last", "1", "--format", "json"});
  EXPECT_EQ(0, plan.status);
  EXPECT_EQ(
      "zorv-snapusage: note: the deletion of 1 subvolume stands still, '/volume1' is mounted "
      "read-only: until it goes on and has ended no snapshot holds alone what it shares with what "
      "was deleted\n",
      plan.err);
  EXPECT_EQ(1u, ParseJson(plan.out)["being_deleted"].asUInt64());
}

// Others may write to the file system, and so may it itself.
TEST_F(Deletions, OnesBehindAMountThatIsOnlyReadGoOn) {
  MustRun({"mount", "-o", "remount,bind,ro", "/volume1"});
  EXPECT_EQ(kNote, Tool({"plan", "photos", "--keep-last", "1"}).err);
}

}  // namespace
