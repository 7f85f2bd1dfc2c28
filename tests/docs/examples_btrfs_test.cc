// The programs in examples/ do what they say, with the real tools that they are made for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <time.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "tests/support/btrfs_ioctls.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"

using namespace ZorvTest;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

constexpr size_t kKiB = 1024, kMiB = 1024 * kKiB;
constexpr unsigned long long kTreeBlock = 16 * kKiB;

const std::string kExamples = ZORV_SOURCE_DIR "/examples/";

// A volume with the share "photos", and the engine at its place.
class Examples : public testing::Test {
 protected:
  Examples() : volume_("/volume1") {
    fs::copy_file(ZORV_ENGINE_PATH, "/sbin/btrfs", fs::copy_options::overwrite_existing);
    volume_.Subvolume("photos");
  }

  BtrfsVolume volume_;
};

TEST_F(Examples, CallerPrintsWhatTheKernelSays) {
  volume_.Subvolume("photos/.snapshots");
  const std::string names[] = {"GMT-2024.03.01-09.04.09", "GMT-2024.03.02-09.04.09"};
  for (const std::string& name : names) {
    WriteRandom("/volume1/photos/file", name == names[0] ? kMiB : 2 * kMiB, 1);
    volume_.Snapshot("photos", "photos/.snapshots/" + name);
  }
  fs::remove("/volume1/photos/file");
  Commit("/volume1");

  std::string expected;
  const std::string printed = MustRun({ZORV_CALLER_PATH, "photos"});
  const auto kernel = volume_.KernelExclusive();
  for (const std::string& name : names)
    expected += std::to_string(kernel.at(SubvolumeID("/volume1/photos/.snapshots/" + name))) + " " +
                name + "\n";
  EXPECT_EQ(expected, printed);
}

// The program where its examples look for it.
class WarningExample : public Examples {
 protected:
  WarningExample() {
    fs::remove_all("/usr/local/zorvbtrfssnapusage");
    fs::create_symlink(ZORV_CLI_PATH, "/usr/bin/zorv-snapusage");
    fs::create_directory("/volume1/photos/.snapshots");
  }
  ~WarningExample() override { fs::remove("/usr/bin/zorv-snapusage"); }

  static CommandResult Warn(const std::string& limit) {
    return ZorvTest::Run({kExamples + "warn-of-snapshots", "photos", limit});
  }
};

TEST_F(WarningExample, NamesTheLargestBeyondTheLimit) {
  // Sizes whose order is not that of the snapshots.
  const std::pair<const char*, size_t> snapshots[] = {
      {"one", 2 * kMiB}, {"tw\no", 5 * kMiB}, {"three", 1 * kMiB}, {"four", 3 * kMiB}};
  for (const auto& [name, bytes] : snapshots) {
    WriteRandom("/volume1/photos/" + std::string(name), bytes, 1);
    volume_.Snapshot("photos", std::string("photos/.snapshots/") + name);
    fs::remove(std::string("/volume1/photos/") + name);
  }
  Commit("/volume1");
  MustRun({"zorv-snapusage", "run", "photos", "--quiet"});

  const CommandResult quiet = Warn("12M");
  EXPECT_EQ(0, quiet.status);
  EXPECT_EQ("", quiet.out + quiet.err);

  const CommandResult warned = Warn("11M");
  EXPECT_EQ(1, warned.status);
  EXPECT_EQ("", warned.err);
  EXPECT_THAT(warned.out, HasSubstr("photos: snapshots hold at least 12MiB, more than 11MiB "));
  EXPECT_THAT(warned.out, testing::ContainsRegex("MiB  tw[?]o\n .*MiB  four\n .*MiB  one\n$"));
}

TEST_F(WarningExample, NoResultIsNoSilence) {
  const CommandResult warned = Warn("1M");
  EXPECT_EQ(10, warned.status);
  EXPECT_THAT(warned.err, HasSubstr("there is no result of share 'photos'"));
}

// Snapshots as snapper makes them, some of them long ago.
class SnapperExample : public Examples {
 protected:
  SnapperExample() {
    fs::remove_all("/etc/snapper/configs");
    fs::create_directories("/etc/snapper/configs");
    WriteFile("/etc/default/snapper", "SNAPPER_CONFIGS=\"\"\n");
    Snapper({"create-config", "/volume1/photos"});
    Snapper({"set-config", "NUMBER_LIMIT=2-3", "NUMBER_LIMIT_IMPORTANT=1", "NUMBER_MIN_AGE=3600",
             "TIMELINE_MIN_AGE=3600", "TIMELINE_LIMIT_HOURLY=2", "TIMELINE_LIMIT_DAILY=2",
             "TIMELINE_LIMIT_WEEKLY=4", "TIMELINE_LIMIT_MONTHLY=1", "TIMELINE_LIMIT_YEARLY=1"});
  }

  static std::string Snapper(std::vector<std::string> words) {
    words.insert(words.begin(), {"snapper", "--no-dbus", "-c", "photos"});
    return MustRun(words);
  }

  // Makes a snapshot after something has changed; `date` is told of it, unless empty.
  int Snapshot(std::vector<std::string> options, const std::string& date) {
    ++made_;
    WriteRandom("/volume1/photos/file", (10 + 7 * made_) * 4 * kKiB, made_);
    if (made_ % 3 == 0) WriteRandom("/volume1/photos/other", 100 * kKiB, made_);
    options.insert(options.begin(), {"create", "-p"});
    const int number = std::stoi(Snapper(options));
    if (!date.empty())
      MustRun({"sed", "-i", "s,<date>.*</date>,<date>" + date + "</date>,", Info(number)});
    return number;
  }

  static std::string Info(int number) {
    return "/volume1/photos/.snapshots/" + std::to_string(number) + "/info.xml";
  }

  static std::set<int> Numbers() {
    std::set<int> numbers;
    for (const auto& entry : fs::directory_iterator("/volume1/photos/.snapshots"))
      numbers.insert(std::stoi(entry.path().filename()));
    return numbers;
  }

  unsigned made_ = 0;
};

// The time of so many seconds from now, as snapper keeps it.
std::string UtcTime(time_t fromNow) {
  const time_t at = time(nullptr) + fromNow;
  char text[32];
  strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", gmtime(&at));
  return text;
}

// What the script said: which go, and what comes free.
struct Announced {
  std::set<int> numbers;
  unsigned long long total = 0, sum = 0;
};

Announced Announcement() {
  std::istringstream lines(MustRun({kExamples + "snapper-would-free", "--bytes"}));
  Announced announced;
  std::string line;
  std::getline(lines, line);
  EXPECT_EQ(1, sscanf(line.c_str(),
                      "photos: the next cleanup deletes %*d of %*d snapshots and "
                      "frees %llu",
                      &announced.total))
      << line;
  unsigned long long bytes = 0;
  std::string algorithm, date;
  for (int number = 0; lines >> bytes >> algorithm >> number && std::getline(lines, date);) {
    announced.numbers.insert(number);
    announced.sum += bytes;
  }
  return announced;
}

TEST_F(SnapperExample, SaysWhatARealCleanupDeletesAndFrees) {
  // The one of a pair that would go, stays with the other.
  const int pre = Snapshot({"-t", "pre", "-c", "number"}, "2026-01-01 02:00:00");
  Snapshot({"-t", "post", "--pre-number", std::to_string(pre)}, "2026-01-01 02:30:00");
  for (int i = 0; i < 6; ++i)
    Snapshot({"-c", "number", "-u", i % 3 == 1 ? "important=yes" : "by=hand"},
             "2026-01-0" + std::to_string(i + 2) + " 03:00:00");
  for (const char* date :
       {"2026-02-10 01:02:03", "2026-02-10 01:40:00", "2026-03-03 01:40:00", "2026-03-11 02:02:03",
        "2026-03-12 01:02:03", "2026-03-12 02:02:03", "2026-03-13 00:02:03", "2026-03-13 01:02:03",
        "2026-04-14 02:02:03", "2026-04-14 02:02:03"})
    Snapshot({"-c", "timeline"}, date);
  // By hand: in nobody's cleanup. And too young for one.
  Snapshot({}, "2026-05-01 00:00:00");
  for (int i = 0; i < 2; ++i) Snapshot({"-c", "number"}, "");
  for (int minutesAgo : {3, 2, 1}) Snapshot({"-c", "timeline"}, UtcTime(-60 * minutesAgo));

  const Announced announced = Announcement();
  const std::set<int> before = Numbers();
  CommitAndClean("/volume1");
  const SpaceUsed usedBefore = UsedSpace("/volume1");
  Snapper({"cleanup", "number"});
  Snapper({"cleanup", "timeline"});
  CommitAndClean("/volume1");
  const SpaceUsed usedAfter = UsedSpace("/volume1");

  std::set<int> deleted;
  const std::set<int> after = Numbers();
  std::set_difference(before.begin(), before.end(), after.begin(), after.end(),
                      std::inserter(deleted, deleted.end()));
  EXPECT_EQ(deleted, announced.numbers);
  EXPECT_LT(5u, deleted.size());
  EXPECT_EQ(announced.total, announced.sum);
  // The deletions' own tree blocks come on top of the data; other trees shrink, too.
  const unsigned long long data = usedBefore.data - usedAfter.data;
  EXPECT_LT(data, announced.total);
  EXPECT_EQ(0u, (announced.total - data) % kTreeBlock);
  EXPECT_GE(usedBefore.metadata - usedAfter.metadata, announced.total - data);
}

TEST_F(SnapperExample, NothingToDeleteIsSaid) {
  Snapshot({"-c", "number"}, "2026-01-01 03:00:00");
  EXPECT_EQ("photos: the next cleanup deletes nothing\n",
            MustRun({kExamples + "snapper-would-free", "photos"}));
}

TEST_F(SnapperExample, CleanupThatIsOffDeletesNothing) {
  Snapper({"set-config", "NUMBER_CLEANUP=no"});
  for (int i = 0; i < 5; ++i) Snapshot({"-c", "number"}, "2026-01-01 03:00:00");
  EXPECT_EQ("photos: the next cleanup deletes nothing\n",
            MustRun({kExamples + "snapper-would-free"}));
}

}  // namespace
