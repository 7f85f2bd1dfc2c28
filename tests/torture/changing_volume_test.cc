// What administrators do to a file system in the middle of a run: the number is right, or the error
// is clear.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>

#include "tests/engine/busy_volume.h"
#include "tests/support/torture.h"

using namespace ZorvTest;

namespace {

// What a commit frees is wiped at once: a run that is not at the newest state sees that it is not.
constexpr char kMountOptions[] = "noatime,discard=sync";

// A file system with subvolumes that stay as they are, one that is written to, and snapshots of
// that which come and go.
class ChangingVolume {
 public:
  // `metadata`: the profile of tree blocks.
  explicit ChangingVolume(const char* metadata) : volume_(kMount, OnOneDevice(metadata)) {
    MakeHistory(volume_, 200, 5);
    volume_.Subvolume("busy");
    WriteFiles("busy", 0, kFiles, 7);
    MustRun({"sync", "-f", kMount});
    const Sizes kernel = volume_.KernelExclusive();
    for (const char* name : {"snap1", "snap3", "snap4", "snap5", "live", "written"}) {
      const unsigned long long id = SubvolumeID(volume_.Path(name));
      still_[id] = kernel.at(id);
    }
    spare_ = volume_.AddDevice(kSpareMiB);
  }

  BtrfsVolume& Volume() { return volume_; }

  // A device that belongs to the file system at times. It has more room than the other, so that new
  // chunks are put there.
  const std::string& Spare() const { return spare_; }

  // Bytes of the chunks that lie on the spare device.
  unsigned long long BytesOnSpare() const {
    const std::string shown = MustRun({kStockBtrfs, "filesystem", "show", "--raw", kMount});
    std::smatch used;
    return std::regex_search(shown, used, std::regex(" used +([0-9]+) path " + spare_))
               ? std::stoull(used[1])
               : 0;
  }

  // The kernel's numbers of the subvolumes that stay as they are.
  const Sizes& Still() const { return still_; }

  // Writes to the busy subvolume and commits, so that much of the last state is gone.
  void Churn() {
    for (unsigned n = 0; n < 2; ++n) {
      for (unsigned file = 0; file < 15; ++file) {
        ++churned_;
        Overwrite(volume_.Path("busy/" + std::to_string(churned_ * 13 % kFiles)), 9000, churned_);
      }
      Commit(kMount);
    }
  }

  // Asks about all that stay as they are, or only about one of them.
  std::vector<std::string> Arguments(const std::string& options, bool all = true) const {
    std::vector<std::string> args = {"-vm", "-r", kMount};
    std::istringstream words(options);
    for (std::string word; words >> word;) args.push_back(word);
    for (const auto& [id, bytes] : still_)
      if (all || id == still_.rbegin()->first) args.push_back(std::to_string(id));
    return args;
  }

 private:
  static constexpr unsigned kFiles = 300;
  static constexpr int kMiB = 700, kSpareMiB = 2 * kMiB;

  static BtrfsOptions OnOneDevice(const char* metadata) {
    BtrfsOptions options = Options(0, {"-n", "4096", "-m", metadata}, kMountOptions);
    options.devicesMiB = {kMiB};
    return options;
  }

  BtrfsVolume volume_;
  std::string spare_;
  Sizes still_;
  unsigned churned_ = 0;
};

// Runs the stock program, which may be refused: another change may be under way.
bool Stock(std::vector<std::string> argv) {
  argv.insert(argv.begin(), kStockBtrfs);
  return ZorvTest::Run(argv).status == 0;
}

// One change, made while the engine stands still in the middle of its run.
class Change {
 public:
  explicit Change(ChangingVolume& volume) : volume_(volume) {}
  virtual ~Change() = default;

  // Before the run.
  virtual void Prepare() {}
  // In its middle; whether it could be made.
  virtual bool Make() = 0;
  // Whether files can be written and committed afterwards.
  virtual bool LeavesWritable() const { return true; }
  // When the run has ended.
  virtual void Undo() {}
  // Whether a run may end with this error because of the change.
  virtual bool Explains(const std::string& error) const { return IsClearRefusal(error); }
  // Further arguments of the run.
  virtual std::vector<std::string> Further() const { return {}; }

 protected:
  ChangingVolume& volume_;
};

// A change that a command makes, and one that takes it back.
class ByCommands : public Change {
 public:
  using Words = std::vector<std::string>;
  ByCommands(ChangingVolume& volume, Words make, Words undo)
      : Change(volume), make_(std::move(make)), undo_(std::move(undo)) {}

  bool Make() override { return Stock(make_); }
  void Undo() override {
    if (!undo_.empty()) (void)Stock(undo_);
  }

 private:
  Words make_, undo_;
};

// Moves nothing, and so is in nobody's way.
class Scrubbed : public ByCommands {
 public:
  explicit Scrubbed(ChangingVolume& volume)
      : ByCommands(volume, {"scrub", "start", "-B", kMount}, {}) {}
  bool Explains(const std::string&) const override { return false; }
};

class Frozen : public Change {
 public:
  using Change::Change;
  bool Make() override {
    freeze_.emplace(kMount);
    return true;
  }
  void Undo() override { freeze_.reset(); }
  bool LeavesWritable() const override { return false; }
  bool Explains(const std::string&) const override { return false; }

 private:
  std::optional<Freeze> freeze_;
};

class ReadOnly : public Change {
 public:
  using Change::Change;
  bool Make() override { return ZorvTest::Run({"mount", "-o", "remount,ro", kMount}).status == 0; }
  void Undo() override { MustRun({"mount", "-o", "remount,rw", kMount}); }
  bool LeavesWritable() const override { return false; }
  bool Explains(const std::string&) const override { return false; }
};

// Unmounts, or tries to; the engine is in the way for as long as it looks.
class Unmounted : public Change {
 public:
  Unmounted(ChangingVolume& volume, int flags) : Change(volume), flags_(flags) {}

  bool Make() override {
    done_ = umount2(kMount, flags_) == 0;
    EXPECT_TRUE(done_ || errno == EBUSY);
    return true;
  }
  bool LeavesWritable() const override { return !done_; }
  // At once: whoever has the result may unmount.
  void Undo() override {
    if (!done_) {
      EXPECT_TRUE(WaitUntil([] { return umount2(kMount, 0) == 0; })) << "still held after the run";
    }
    MustRun({"mount", "-t", "btrfs", "-o", std::string("commit=1,") + kMountOptions,
             volume_.Volume().Devices()[0], kMount});
  }
  // The run had not opened it yet.
  bool Explains(const std::string& error) const override {
    return Change::Explains(error) ||
           (done_ && error == std::string("ERROR: ") + kMount + " is not on btrfs\n");
  }

 private:
  int flags_;
  bool done_ = false;
};

// A snapshot that shares much with the busy subvolume is deleted, asked about or not.
class Deleted : public Change {
 public:
  Deleted(ChangingVolume& volume, bool asked) : Change(volume), asked_(asked) {}

  void Prepare() override {
    const std::string path = volume_.Volume().Snapshot("busy", "leaving");
    id_ = SubvolumeID(path);
    Commit(kMount);
  }
  bool Make() override {
    DestroySubvolume(volume_.Volume().Path("leaving"));
    return true;
  }
  void Undo() override { CommitAndClean(kMount); }
  bool Explains(const std::string& error) const override {
    if (!asked_) return Change::Explains(error);
    const std::string id = std::to_string(id_);
    return Change::Explains(error) ||
           error.rfind("ERROR: there is no subvolume " + id + " ", 0) == 0 ||
           error.rfind("ERROR: subvolume " + id + " ", 0) == 0;
  }
  std::vector<std::string> Further() const override {
    if (!asked_) return {};
    return {std::to_string(id_)};
  }

 private:
  bool asked_;
  unsigned long long id_ = 0;
};

// A device comes, and takes over some of what the other has.
class DeviceAdded : public Change {
 public:
  using Change::Change;
  bool Make() override {
    if (!Stock({"device", "add", "-f", volume_.Spare(), kMount}) ||
        !Stock({"balance", "start", "-dlimit=1", "-mlimit=1", kMount}))
      return false;
    EXPECT_GT(volume_.BytesOnSpare(), 0u) << "nothing lies on the device that came";
    return true;
  }
  void Undo() override { (void)Stock({"device", "remove", volume_.Spare(), kMount}); }
};

// It goes, with all that it has.
class DeviceRemoved : public Change {
 public:
  explicit DeviceRemoved(ChangingVolume& volume) : Change(volume), added_(volume) {}
  void Prepare() override { EXPECT_TRUE(added_.Make()); }
  bool Make() override { return Stock({"device", "remove", volume_.Spare(), kMount}); }

 private:
  DeviceAdded added_;
};

struct NamedChange {
  const char* name;
  std::unique_ptr<Change> change;
};

std::vector<NamedChange> AllChanges(ChangingVolume& volume) {
  std::vector<NamedChange> changes;
  const auto add = [&](const char* name, Change* change) {
    changes.push_back({name, std::unique_ptr<Change>(change)});
  };
  const auto command = [&](const char* name, ByCommands::Words make, ByCommands::Words undo = {}) {
    add(name, new ByCommands(volume, std::move(make), std::move(undo)));
  };
  command("metadata balanced", {"balance", "start", "-m", kMount});
  command("data balanced", {"balance", "start", "-d", kMount});
  add("scrubbed", new Scrubbed(volume));
  command("shrunk", {"filesystem", "resize", "1:-200M", kMount},
          {"filesystem", "resize", "1:max", kMount});
  command("quotas enabled", {"quota", "enable", kMount}, {"quota", "disable", kMount});
  add("frozen", new Frozen(volume));
  add("read-only", new ReadOnly(volume));
  add("unmounted", new Unmounted(volume, 0));
  add("unmounted lazily", new Unmounted(volume, MNT_DETACH));
  add("asked snapshot deleted", new Deleted(volume, true));
  add("other snapshot deleted", new Deleted(volume, false));
  add("device added", new DeviceAdded(volume));
  add("device removed", new DeviceRemoved(volume));
  return changes;
}

// Slow enough that most of a run is reading, which is what changes can overtake.
constexpr unsigned long long kBytesPerSecond = 2 << 20;

constexpr uint32_t kLongest = 200'000;  // microseconds that a run is thought to take at first

// What runs came to with one change; where not all of what is read lies on the slow disk they are
// shorter.
struct Outcomes {
  RandomMoment moment{kLongest};
  unsigned met = 0, exact = 0, refused = 0, overtaken = 0;
};

// A way of counting, or a question about files of what stays as it is.
struct Way {
  std::string options;
  bool all = true;         // it can be asked of several subvolumes
  std::string files = {};  // what is said of files
};

// What a run says of files and of who holds their data.
std::string SaidOfFiles(const EngineRun& run) {
  std::string said;
  for (const std::string& line : run.lines)
    for (const char* word : {"file ", "folder ", "files ", "path ", "version ", "held ", "without ",
                             "nested ", "holders "})
      if (line.rfind(word, 0) == 0) said += line + "\n";
  return said;
}

// A run is right, or says what was in the way.
void Judge(const EngineRun& run, const ChangingVolume& volume, const Change& change,
           const Way& way) {
  EXPECT_EQ(std::string::npos, run.err.find("run btrfs scrub")) << "nothing is damaged";
  if (run.status != 0) {
    EXPECT_TRUE(run.sizes.empty()) << "a number beside an error";
    EXPECT_TRUE(change.Explains(run.err)) << "the error is not clear";
    return;
  }
  EXPECT_LE(way.all ? volume.Still().size() : 1, run.sizes.size());
  for (const auto& [id, bytes] : run.sizes) {
    const auto still = volume.Still().find(id);
    if (still == volume.Still().end()) continue;
    EXPECT_EQ(still->second, bytes) << "a wrong number of subvolume " << id;
  }
  EXPECT_EQ(way.files, SaidOfFiles(run)) << "wrong numbers of files";
}

// One run with a change in its middle, or, where that did not succeed, beside it.
void RunWith(ChangingVolume& volume, Change& change, const Way& way, Outcomes* outcomes) {
  change.Prepare();
  std::vector<std::string> args = volume.Arguments(way.options, way.all);
  args.push_back("--stats");
  for (const std::string& word : change.Further()) args.push_back(word);
  const SlowDisk slow = SlowDisk::Reading(volume.Volume().Devices()[0], kBytesPerSecond);
  EngineProcess engine(EngineProcess::Whole{slow.Command(EngineCommand(args))});
  const bool stopped = engine.StopWorker(outcomes->moment.Next());
  outcomes->moment.WasMet(stopped);
  const bool made = change.Make();
  if (made && change.LeavesWritable()) volume.Churn();
  if (stopped) engine.ContinueWorker();
  const EngineRun run = engine.Finish();
  change.Undo();
  SCOPED_TRACE(way.options + ": " + run.err);
  Judge(run, volume, change, way);
  if (!stopped || !made) return;
  ++outcomes->met;
  ++(run.status == 0 ? outcomes->exact : outcomes->refused);
  outcomes->overtaken += run.status == 0 && NumberOf(run, "passes") > 1;
}

// Goes through the changes for its part of the program's time, and until each was met and one has
// overtaken a run.
void ChangeInTheMiddleOfRuns(ChangingVolume& volume, const std::vector<NamedChange>& changes,
                             const std::vector<Way>& ways, double part) {
  const Budget budget(part);
  std::map<std::string, Outcomes> outcomes;
  const auto eachWasMet = [&] {
    return std::ranges::all_of(
        changes, [&](const NamedChange& change) { return outcomes[change.name].met > 0; });
  };
  const auto nothingWasOvertaken = [&] {
    return std::ranges::none_of(outcomes, [](const auto& of) { return of.second.overtaken > 0; });
  };
  const size_t most = 5 * changes.size();  // rounds until something was overtaken
  for (unsigned round = 0;
       budget.IsLeft() || !eachWasMet() || (nothingWasOvertaken() && round < most); ++round) {
    const NamedChange& named = changes[round % changes.size()];
    if (!budget.IsLeft() && outcomes[named.name].met > 0 && !nothingWasOvertaken()) continue;
    SCOPED_TRACE(named.name);
    ASSERT_LT(round, 1000 * changes.size());
    RunWith(volume, *named.change, ways[round / changes.size() % ways.size()],
            &outcomes[named.name]);
  }
  unsigned met = 0, exact = 0, refused = 0, overtaken = 0;
  for (const auto& [name, of] : outcomes) {
    Figure(name, of.met);
    met += of.met;
    exact += of.exact;
    refused += of.refused;
    overtaken += of.overtaken;
  }
  Figure("changes in the middle of a run", met);
  Figure("right numbers", exact);
  Figure("of them by runs that went on from a newer state", overtaken);
  Figure("clear errors", refused);
  EXPECT_GT(exact, 0u) << "nothing was counted";
  EXPECT_GT(overtaken, 0u) << "nothing that was overtaken was begun anew";
}

// All changes, in all ways of counting.
void CountInTheMiddleOfChanges(const char* metadata) {
  ChangingVolume volume(metadata);
  ChangeInTheMiddleOfRuns(volume, AllChanges(volume),
                          {{"--method=scan"}, {"--method=walk"}, {"--method=auto"}, {"--verify"}},
                          0.4);
}

}  // namespace

TEST(ChangingVolumeRun, IsRightOrSaysWhyNot) { CountInTheMiddleOfChanges("single"); }

// What is being written and what was given up is not taken for damage of one of two copies.
TEST(ChangingVolumeRun, IsRightAndSeesNoDamageWithTwoCopies) { CountInTheMiddleOfChanges("dup"); }

// Which files are behind a number, and who holds the data of a file and of a folder: while blocks
// and data are moved to other places, and others write and commit.
TEST(ChangingVolumeRun, SaysOfFilesWhatIsRight) {
  ChangingVolume volume("single");
  std::vector<Way> ways;
  for (const char* method : {"--method=scan", "--method=walk"})
    for (const Way& question :
         {Way{"--files 10000 --depth 9", /*all=*/false}, Way{"--holders 7"}, Way{"--holders ."}}) {
      Way way = {question.options + " " + method, question.all};
      way.files = SaidOfFiles(RunEngine(volume.Arguments(way.options, way.all)));
      ASSERT_NE("", way.files);
      ways.push_back(way);
    }
  std::vector<NamedChange> changes = AllChanges(volume);
  std::erase_if(changes, [](const NamedChange& change) {
    return !change.change->Further().empty() ||
           dynamic_cast<ByCommands*>(change.change.get()) == nullptr;
  });
  ChangeInTheMiddleOfRuns(volume, changes, ways, 0.2);
}
