// Who holds the data of a path: on real file systems, held against what the kernel shows of the
// trees and against what deletion frees.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "tests/engine/history.h"
#include "tests/engine/seen_files.h"

using namespace ZorvTest;

namespace {

using Ids = std::set<SeenId>;

struct Holders {
  std::vector<Ids> versions;  // who has each
  Ids without, nested;
  std::map<Ids, uint64_t> held;     // by nobody else: bytes
  std::map<Ids, uint64_t> outside;  // by somebody else too, by who refers to them
  bool ended = false;
};

Ids IdsIn(const std::string& text) {
  std::istringstream in(text);
  Ids ids;
  for (SeenId id; in >> id;) ids.insert(id);
  return ids;
}

std::string After(const std::string& line, const std::string& mark) {
  return line.substr(line.find(mark) + mark.size());
}

Holders HoldersIn(const EngineRun& run) {
  Holders holders;
  unsigned number = 0;
  unsigned long long bytes = 0;
  for (const std::string& line : run.lines) {
    if (sscanf(line.c_str(), "version %u of", &number) == 1 &&
        line.find(" of ") != std::string::npos)
      holders.versions.push_back(IdsIn(After(line, " of ")));
    if (line.rfind("without ", 0) == 0) holders.without = IdsIn(After(line, "without "));
    if (line.rfind("nested ", 0) == 0) holders.nested = IdsIn(After(line, "nested "));
    if (sscanf(line.c_str(), "held data %llu", &bytes) == 1) {
      const bool outside = line.find("outside too") != std::string::npos;
      (outside ? holders.outside : holders.held)[IdsIn(After(line, "by"))] += bytes;
    }
    holders.ended = line == "holders complete";
  }
  return holders;
}

Holders HoldersOf(const std::string& path, const std::vector<SeenId>& ids,
                  const std::vector<std::string>& options = {}) {
  std::vector<std::string> args = {"--holders", path, "-r", kMount};
  for (const SeenId id : ids) args.push_back(std::to_string(id));
  args.insert(args.end(), options.begin(), options.end());
  const EngineRun run = RunEngine(args);
  EXPECT_EQ(0, run.status) << run.err;
  const Holders holders = HoldersIn(run);
  EXPECT_TRUE(holders.ended) << run.out;
  return holders;
}

// Inodes below a path, the path's own included.
std::set<uint64_t> InodesBelow(const SeenFiles& seen, SeenId id, const std::string& path,
                               const std::set<uint64_t>& all) {
  std::set<uint64_t> below;
  for (const uint64_t inode : all)
    for (const std::string& name : seen.PathsOf(id, inode))
      if (name == path || name.rfind(path + "/", 0) == 0) below.insert(inode);
  return below;
}

// What must be found, by what the kernel shows of all subvolumes.
Holders Expected(const SeenFiles& seen, const std::string& path, const std::vector<SeenId>& asked) {
  Holders expected;
  std::map<SeenId, std::set<uint64_t>> all, wanted;
  for (const auto& [bytenr, extent] : seen.Extents())
    for (const auto& [id, inodes] : extent.inodes) all[id].insert(inodes.begin(), inodes.end());
  for (const SeenId id : asked) wanted[id] = InodesBelow(seen, id, path, all[id]);
  for (const auto& [bytenr, extent] : seen.Extents()) {
    Ids holders, referrers;
    bool outside = false;
    for (const auto& [id, inodes] : extent.inodes) {
      outside = outside || std::ranges::find(asked, id) == asked.end();
      holders.insert(id);
      if (std::ranges::any_of(inodes, [&, &id = id](uint64_t i) { return wanted[id].contains(i); }))
        referrers.insert(id);
    }
    if (referrers.empty()) continue;
    if (outside)
      expected.outside[referrers] += extent.bytes;
    else
      expected.held[holders] += extent.bytes;
  }
  return expected;
}

std::vector<SeenId> IdsOf(const BtrfsVolume& volume, const std::vector<std::string>& names) {
  std::vector<SeenId> ids;
  for (const std::string& name : names) ids.push_back(SubvolumeID(volume.Path(name)));
  return ids;
}

}  // namespace

TEST(HoldersBtrfs, AreThoseThatTheKernelShows) {
  for (const unsigned seed : {1u, 2u, 3u}) {
    SCOPED_TRACE(seed);
    BtrfsVolume volume(kMount, Options(512));
    CreateSubvolume(volume.Path("live"));
    CreateSubvolume(volume.Path("other"));
    Shell("mkdir -p live/dir/sub");
    std::mt19937 random(seed);
    int clones = 0;
    const std::vector<std::string> paths = {"file", "dir", "dir/sub/deep", "dir/x", "moved"};
    std::vector<std::string> names = {"live"};
    for (int i = 0; i < 6; ++i) {
      for (int step = 0; step < 8; ++step) {
        const std::string& path = paths[random() % 4];
        if (path == "dir") continue;
        const std::string full = volume.Path("live/" + path);
        switch (random() % 5) {
          case 0:
            (void)unlink(full.c_str());
            break;
          case 1:
            if (access(full.c_str(), F_OK) == 0) {
              const std::string clone =
                  volume.Path("live/dir/clone" + std::to_string(random() % 3));
              (void)unlink(clone.c_str());
              CloneRange({full}, clone);
            }
            break;
          case 2:
            if (access(full.c_str(), F_OK) == 0 && random() % 3 == 0)
              CloneRange({full}, volume.Path("other/" + std::to_string(clones++)));
            break;
          default:
            Write("live/" + path, 1 + random() % 90000, random(), 4096 * (random() % 10));
        }
      }
      CommitAndClean(kMount);
      names.push_back("snap" + std::to_string(i));
      CreateSnapshot(volume.Path("live"), volume.Path(names.back()), /*readOnly=*/true);
    }
    CommitAndClean(kMount);
    const std::vector<SeenId> asked = IdsOf(volume, names);
    std::vector<SeenId> everybody = asked;
    everybody.push_back(SubvolumeID(volume.Path("other")));
    everybody.push_back(5);
    const SeenFiles seen(kMount, everybody);
    size_t groups = 0, outside = 0;
    for (const std::string& path : paths) {
      SCOPED_TRACE(path);
      const Holders expected = Expected(seen, path, asked);
      groups += expected.held.size();
      outside += expected.outside.size();
      for (const char* method : {"scan", "walk"}) {
        const Holders found = HoldersOf(path, asked, {"--method", method});
        EXPECT_EQ(expected.held, found.held) << method;
        EXPECT_EQ(expected.outside, found.outside) << method;
        for (const SeenId id : asked)
          EXPECT_EQ(
              access(
                  volume
                      .Path(
                          names[static_cast<size_t>(std::ranges::find(asked, id) - asked.begin())] +
                          "/" + path)
                      .c_str(),
                  F_OK) != 0,
              found.without.contains(id));
      }
    }
    EXPECT_GT(groups, 10u);
    EXPECT_GT(outside, 0u);
  }
}

TEST(HoldersBtrfs, KeepBytesUntilTheLastOfThemGoes) {
  BtrfsVolume volume(kMount, Options());
  CreateSubvolume(volume.Path("live"));
  Write("live/film", 1 << 20, 1);
  CreateSnapshot(volume.Path("live"), volume.Path("a"), /*readOnly=*/true);
  CreateSnapshot(volume.Path("live"), volume.Path("b"), /*readOnly=*/true);
  Shell("rm live/film");
  CreateSnapshot(volume.Path("live"), volume.Path("c"), /*readOnly=*/true);
  CommitAndClean(kMount);
  const std::vector<SeenId> ids = IdsOf(volume, {"a", "b", "c", "live"});
  const Holders holders = HoldersOf("film", ids);
  ASSERT_EQ(1u, holders.versions.size());
  EXPECT_EQ((Ids{ids[0], ids[1]}), holders.versions[0]);
  EXPECT_EQ((Ids{ids[2], ids[3]}), holders.without);
  EXPECT_EQ((std::map<Ids, uint64_t>{{{ids[0], ids[1]}, 1 << 20}}), holders.held);

  const SpaceUsed before = UsedSpace(kMount);
  DestroySubvolume(volume.Path("a"));
  CommitAndClean(kMount);
  EXPECT_EQ(before.data, UsedSpace(kMount).data);
  DestroySubvolume(volume.Path("b"));
  CommitAndClean(kMount);
  EXPECT_EQ(before.data - (1 << 20), UsedSpace(kMount).data);
}

TEST(HoldersBtrfs, TellVersionsApart) {
  BtrfsVolume volume(kMount, Options());
  CreateSubvolume(volume.Path("live"));
  CreateSubvolume(volume.Path("live/nested"));
  Write("live/file", 50000, 1);
  std::vector<std::string> names;
  const auto snapshot = [&](const std::string& change) {
    Shell(change);
    names.push_back("s" + std::to_string(names.size()));
    CreateSnapshot(volume.Path("live"), volume.Path(names.back()), /*readOnly=*/true);
  };
  snapshot("true");
  snapshot("touch live/unrelated");
  snapshot("touch -d @1000000000 live/file");
  snapshot("echo more >> live/file");
  snapshot("cp --reflink=always live/file live/copy; rm live/file; mv live/copy live/file");
  snapshot("rm live/file");
  CommitAndClean(kMount);
  const std::vector<SeenId> ids = IdsOf(volume, names);
  const Holders holders = HoldersOf("/file", ids);
  EXPECT_EQ((std::vector<Ids>{{ids[0], ids[1]}, {ids[2]}, {ids[3]}, {ids[4]}}), holders.versions);
  EXPECT_EQ((Ids{ids[5]}), holders.without);

  const Holders nested = HoldersOf("nested/x", {SubvolumeID(volume.Path("live"))});
  EXPECT_EQ(1u, nested.nested.size());
  EXPECT_TRUE(nested.held.empty());
  const Holders nothing = HoldersOf("nothing", ids);
  EXPECT_TRUE(nothing.versions.empty());
  EXPECT_TRUE(nothing.nested.empty());
  EXPECT_EQ(ids.size(), nothing.without.size());
}
