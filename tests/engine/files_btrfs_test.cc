// Which files are behind a number, and who holds the data of a path: on real file systems, held
// against what the kernel shows of the trees and against what deletion frees.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <iomanip>

#include "tests/engine/history.h"
#include "tests/engine/seen_files.h"

using namespace ZorvTest;

namespace {

struct File {
  unsigned long long bytes = 0, shared = 0, sharers = 0, inode = 0, names = 0;
  std::string path;
  bool operator==(const File&) const = default;
};

struct Folder {
  unsigned long long files = 0, bytes = 0;
  bool operator==(const Folder&) const = default;
};

struct Listing {
  std::vector<File> files;
  std::map<std::string, Folder> folders;
  unsigned long long count = 0, data = 0, metadata = 0, unlinked = 0, unlinkedData = 0;
  bool ended = false;
};

// The bytes that a printed name stands for.
std::string Unescaped(const std::string& text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      bytes += text[i];
      continue;
    }
    bytes += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
    i += 3;
  }
  return bytes;
}

std::string After(const std::string& line, const std::string& mark) {
  const size_t at = line.find(mark);
  return at == std::string::npos ? "" : line.substr(at + mark.size());
}

// The lines of --files; paths that go on are put together.
Listing ListingOf(const EngineRun& run) {
  Listing listing;
  std::vector<std::string> lines;
  for (const std::string& line : run.lines) {
    EXPECT_LT(line.size(), 4096u);
    if (line.rfind("path also ", 0) == 0)
      lines.back() += line.substr(10);
    else
      lines.push_back(line);
  }
  for (const std::string& line : lines) {
    File file;
    if (sscanf(line.c_str(), "file data %llu shared %llu by %llu inode %llu names %llu",
               &file.bytes, &file.shared, &file.sharers, &file.inode, &file.names) == 5) {
      file.path = Unescaped(After(line, " path "));
      listing.files.push_back(file);
    }
    Folder folder;
    if (sscanf(line.c_str(), "folder files %llu data %llu path ", &folder.files, &folder.bytes) ==
        2)
      listing.folders[Unescaped(After(line, " path "))] = folder;
    if (sscanf(line.c_str(), "files %llu data %llu metadata %llu unlinked %llu data %llu",
               &listing.count, &listing.data, &listing.metadata, &listing.unlinked,
               &listing.unlinkedData) == 5)
      listing.ended = &line == &lines.back();
  }
  return listing;
}

Listing FilesOf(unsigned long long id, const std::vector<std::string>& options = {}) {
  std::vector<std::string> args = {"-vm", "-r", kMount, std::to_string(id)};
  for (const char* word : {"--files", "10000", "--depth", "1000"}) args.emplace_back(word);
  args.insert(args.end(), options.begin(), options.end());
  const EngineRun run = RunEngine(args);
  EXPECT_EQ(0, run.status) << run.err;
  const Listing listing = ListingOf(run);
  EXPECT_TRUE(listing.ended) << run.out;
  EXPECT_EQ(run.sizes.at(id), listing.data + listing.metadata);
  return listing;
}

// What the listing of a subvolume must be, by what the kernel shows.
Listing ExpectedListing(const SeenFiles& seen, unsigned long long id) {
  Listing expected;
  for (const auto& [inode, bytes] : seen.OwnBytes(id)) {
    const auto [shared, sharers] = seen.Shared(id, inode);
    const std::string path = seen.PathOf(id, inode);
    expected.files.push_back({bytes, shared, sharers, inode, seen.NamesOf(id, inode).size(), path});
    ++expected.count;
    expected.data += bytes;
    if (path.empty()) {
      ++expected.unlinked;
      expected.unlinkedData += bytes;
    }
    for (size_t at = path.find('/'); at != std::string::npos; at = path.find('/', at + 1)) {
      Folder& folder = expected.folders[path.substr(0, at)];
      ++folder.files;
      folder.bytes += bytes;
    }
  }
  std::ranges::stable_sort(expected.files, std::greater<>(), &File::bytes);
  return expected;
}

void ExpectSame(const Listing& expected, const Listing& found) {
  EXPECT_EQ(expected.count, found.count);
  EXPECT_EQ(expected.data, found.data);
  EXPECT_EQ(expected.unlinked, found.unlinked);
  EXPECT_EQ(expected.unlinkedData, found.unlinkedData);
  ASSERT_EQ(expected.files.size(), found.files.size());
  for (size_t i = 0; i < expected.files.size(); ++i) {
    SCOPED_TRACE("inode " + std::to_string(expected.files[i].inode));
    EXPECT_EQ(expected.files[i].path, found.files[i].path);
    EXPECT_TRUE(expected.files[i] == found.files[i]);
  }
  EXPECT_EQ(expected.folders.size(), found.folders.size());
  EXPECT_TRUE(expected.folders == found.folders);
}

// A subvolume `live` that changes at random, with every kind of file, and snapshots of it.
class ChangingTree {
 public:
  ChangingTree(unsigned seed, BtrfsVolume& volume) : random_(seed), volume_(volume) {
    CreateSubvolume(volume_.Path("live"));
    CreateSubvolume(volume_.Path("other"));
    folders_.push_back("live");
  }

  void Change(int steps) {
    for (int i = 0; i < steps; ++i) Step();
    sync();
  }

  void Snapshot(const std::string& name) {
    CreateSnapshot(volume_.Path("live"), volume_.Path(name), /*readOnly=*/true);
  }

 private:
  unsigned Below(unsigned end) { return static_cast<unsigned>(random_() % end); }

  std::string NewName() {
    static const std::string kOdd[] = {"a b", "new\nline", "\xFF\xFE", "back\\slash", "\"quoted\""};
    const std::string number = std::to_string(++names_);
    switch (Below(8)) {
      case 0:
        return kOdd[Below(5)] + number;
      case 1:
        return number + std::string(255 - number.size(), 'n');
      default:
        return "f" + number;
    }
  }

  std::string AnyFolder() { return folders_[Below(static_cast<unsigned>(folders_.size()))]; }
  std::string AnyFile() { return files_[Below(static_cast<unsigned>(files_.size()))]; }

  void Step() {
    if (files_.size() < 5) return Create();
    const std::string file = AnyFile();
    const std::string full = volume_.Path(file);
    const unsigned offset = 4096 * Below(30);
    switch (Below(13)) {
      case 0:
      case 1:
        return Create();
      case 2:
        return Write(file, 1 + Below(30000), random_(), offset);
      case 3:
        EXPECT_EQ(0, truncate(full.c_str(), offset + Below(4096)));
        return;
      case 4: {
        const UniqueFd fd(open(full.c_str(), O_WRONLY | O_CLOEXEC));
        EXPECT_EQ(0, posix_fallocate(fd.Get(), offset, 1 + Below(100000)));
        return;
      }
      case 5:
        return CloneWhole(file, AnyFolder() + "/" + NewName());
      case 6:
        return CloneWhole(file, "other/" + NewName());
      case 7: {
        const std::string link = AnyFolder() + "/" + NewName();
        if (::link(full.c_str(), volume_.Path(link).c_str()) == 0) files_.push_back(link);
        return;
      }
      case 8: {
        const std::string target = AnyFolder() + "/" + NewName();
        EXPECT_EQ(0, rename(full.c_str(), volume_.Path(target).c_str()));
        *std::ranges::find(files_, file) = target;
        return;
      }
      case 9: {
        const std::string folder = AnyFolder() + "/" + NewName();
        if (folder.size() > 2000) return;
        EXPECT_EQ(0, mkdir(volume_.Path(folder).c_str(), 0755));
        folders_.push_back(folder);
        return;
      }
      case 10: {
        const UniqueFd fd(open(full.c_str(), O_WRONLY | O_CLOEXEC));
        EXPECT_EQ(0, fallocate(fd.Get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, offset, 8192));
        return;
      }
      default:
        EXPECT_EQ(0, unlink(full.c_str()));
        files_.erase(std::ranges::find(files_, file));
    }
  }

  void Create() {
    files_.push_back(AnyFolder() + "/" + NewName());
    Write(files_.back(), 1 + Below(Below(3) == 0 ? 1500 : 150000), random_(),
          Below(5) == 0 ? 1 << 20 : 0);
  }

  // Files of other length than a multiple of the sector size are cloned whole.
  void CloneWhole(const std::string& source, const std::string& target) {
    CloneRange({volume_.Path(source)}, volume_.Path(target));
    if (target.rfind("live/", 0) == 0) files_.push_back(target);
  }

  std::mt19937 random_;
  BtrfsVolume& volume_;
  std::vector<std::string> folders_, files_;
  unsigned names_ = 0;
};

std::vector<SeenId> IdsOf(const BtrfsVolume& volume, const std::vector<std::string>& names) {
  std::vector<SeenId> ids = {5};
  for (const std::string& name : names) ids.push_back(SubvolumeID(volume.Path(name)));
  return ids;
}

}  // namespace

TEST(FilesBtrfs, AreThoseThatTheKernelShows) {
  for (const unsigned seed : {1u, 2u, 3u}) {
    SCOPED_TRACE(seed);
    BtrfsVolume volume(kMount, Options(512, {}, seed == 2 ? "compress-force=zstd" : ""));
    ChangingTree tree(seed, volume);
    std::vector<std::string> names = {"live", "other"};
    for (int i = 0; i < 5; ++i) {
      tree.Change(200);
      names.push_back("snap" + std::to_string(i));
      tree.Snapshot(names.back());
    }
    tree.Change(60);
    CommitAndClean(kMount);
    const std::vector<SeenId> ids = IdsOf(volume, names);
    const SeenFiles seen(kMount, ids);
    size_t found = 0;
    for (const SeenId id : ids) {
      SCOPED_TRACE("subvolume " + std::to_string(id));
      const Listing expected = ExpectedListing(seen, id);
      found += expected.files.size();
      ExpectSame(expected, FilesOf(id, {"--method", "scan"}));
      ExpectSame(expected, FilesOf(id, {"--method", "walk", "--memory", "1"}));
    }
    EXPECT_GT(found, 50u);

    const Sizes kernel = volume.KernelExclusive();
    for (const SeenId id : ids) {
      const Listing listing = FilesOf(id, {"--verify"});
      EXPECT_EQ(kernel.at(id), listing.data + listing.metadata);
    }
  }
}

TEST(FilesBtrfs, HaveWhatDeletionFrees) {
  BtrfsVolume volume(kMount, Options(512));
  ChangingTree tree(7, volume);
  std::vector<std::string> names;
  for (int i = 0; i < 4; ++i) {
    tree.Change(80);
    names.push_back("snap" + std::to_string(i));
    tree.Snapshot(names.back());
  }
  tree.Change(80);
  uint64_t freed = 0;
  for (const size_t next : {1, 0, 3, 2}) {
    CommitAndClean(kMount);
    const Listing listing = FilesOf(SubvolumeID(volume.Path(names[next])));
    const SpaceUsed before = UsedSpace(kMount);
    DestroySubvolume(volume.Path(names[next]));
    CommitAndClean(kMount);
    EXPECT_EQ(listing.data, before.data - UsedSpace(kMount).data) << names[next];
    freed += listing.data;
  }
  EXPECT_GT(freed, 0u);
}

TEST(FilesBtrfs, LieAsDeepAsDirectoriesGo) {
  BtrfsVolume volume(kMount, Options());
  CreateSubvolume(volume.Path("live"));
  const std::string name = std::string(250, 'd') + "\n\xC3";
  UniqueFd at(open(volume.Path("live").c_str(), O_DIRECTORY | O_CLOEXEC));
  std::string path;
  for (int depth = 0; depth < 1000; ++depth) {
    ASSERT_EQ(0, mkdirat(at.Get(), name.c_str(), 0755));
    at.Reset(openat(at.Get(), name.c_str(), O_DIRECTORY | O_CLOEXEC));
    path += name + "/";
  }
  UniqueFd file(openat(at.Get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  const std::string data(100000, 'x');
  ASSERT_EQ(100000, write(file.Get(), data.data(), data.size()));
  CommitAndClean(kMount);

  const Listing listing = FilesOf(SubvolumeID(volume.Path("live")), {"--files", "3"});
  ASSERT_EQ(1u, listing.files.size());
  EXPECT_TRUE(path + "file" == listing.files[0].path);
  EXPECT_EQ(102400u, listing.files[0].bytes);
  EXPECT_EQ((std::map<std::string, Folder>{{name, {1, 102400}},
                                           {name + "/" + name, {1, 102400}},
                                           {name + "/" + name + "/" + name, {1, 102400}}}),
            listing.folders);
}

TEST(FilesBtrfs, SayUnlinkedOnesAndManyLinks) {
  BtrfsVolume volume(kMount, Options());
  CreateSubvolume(volume.Path("live"));
  Write("live/open", 40000, 1);
  const UniqueFd open(::open(volume.Path("live/open").c_str(), O_RDONLY | O_CLOEXEC));
  Write("live/linked", 80000, 2);
  // More than an item for names has room for: the others have items of their own.
  Shell("mkdir live/links");
  for (int i = 0; i < 1000; ++i)
    ASSERT_EQ(0, link(volume.Path("live/linked").c_str(),
                      volume.Path("live/links/name-of-a-link-" + std::to_string(i)).c_str()));
  Shell("rm live/open");
  CommitAndClean(kMount);

  const Listing listing = FilesOf(SubvolumeID(volume.Path("live")));
  ASSERT_EQ(2u, listing.files.size());
  EXPECT_EQ("linked", listing.files[0].path);
  EXPECT_EQ(1001u, listing.files[0].names);
  EXPECT_EQ("", listing.files[1].path);
  EXPECT_EQ(0u, listing.files[1].names);
  EXPECT_EQ(1u, listing.unlinked);
  EXPECT_EQ(40960u, listing.unlinkedData);
  EXPECT_TRUE(listing.folders.empty());
}

TEST(FilesBtrfs, ListTheLargestOnly) {
  BtrfsVolume volume(kMount, Options());
  CreateSubvolume(volume.Path("live"));
  Shell("mkdir -p live/a/x live/b");
  for (unsigned i = 1; i <= 9; ++i)
    Write(std::string("live/") + (i % 2 == 0 ? "a/x/" : "b/") + std::to_string(i), i * 8192, i);
  CommitAndClean(kMount);
  const std::string id = std::to_string(SubvolumeID(volume.Path("live")));
  const Listing three = ListingOf(RunEngine({"--files", "3", "-r", kMount, id}));
  ASSERT_EQ(3u, three.files.size());
  EXPECT_EQ("b/9", three.files[0].path);
  EXPECT_EQ("a/x/8", three.files[1].path);
  EXPECT_EQ("b/7", three.files[2].path);
  EXPECT_EQ(9u, three.count);
  EXPECT_EQ(45u * 8192, three.data);
  EXPECT_EQ((std::map<std::string, Folder>{{"a", {4, 20 * 8192}}, {"b", {5, 25 * 8192}}}),
            three.folders);
  const Listing none = ListingOf(RunEngine({"--files=1", "--depth=0", "-r", kMount, id}));
  EXPECT_EQ(1u, none.files.size());
  EXPECT_TRUE(none.folders.empty());
}

TEST(FilesBtrfs, AreOfOneSubvolume) {
  BtrfsVolume volume(kMount, Options());
  ExpectFailure(RunEngine({"--files", "5", "-r", kMount, "5", "256"}),
                "--files is about one subvolume, and goes with neither --table nor --forecast; see "
                "btrfs subvolume size --help",
                "--files is about one subvolume, and goes with neither --table nor --forecast; see "
                "btrfs subvolume size --help");
}
