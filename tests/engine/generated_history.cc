#include "tests/engine/generated_history.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <system_error>

#include "tests/support/btrfs_ioctls.h"
#include "tests/support/command.h"

namespace ZorvTest {
namespace {

constexpr size_t kMostPlaces = 24;
constexpr char kReceived[] = "received";
constexpr uint64_t kLongestCopy = 4 << 20;

[[noreturn]] void Throw(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Combinations that btrfs refuses: sharing between files with and without checksums, or of bytes
// that lie inline.
bool IsNotOffered(const std::system_error& error) {
  return error.code().value() == EINVAL || error.code().value() == EOPNOTSUPP;
}

uint64_t SizeOf(const std::string& path) { return std::filesystem::file_size(path); }

void Allocate(const std::string& path, int mode, uint64_t offset, uint64_t length) {
  if (fallocate(Open(path, O_RDWR).Get(), mode, static_cast<off_t>(offset),
                static_cast<off_t>(length)) != 0)
    Throw("fallocate " + path);
}

std::string ParentOf(const std::string& path) { return std::filesystem::path(path).parent_path(); }

}  // namespace

struct GeneratedHistory::Step {
  const char* name;
  unsigned weight;  // 0: done by Run itself
  bool (GeneratedHistory::*run)();
};

const GeneratedHistory::Step GeneratedHistory::kSteps[] = {
    {"WriteInline", 40, &GeneratedHistory::WriteInline},
    {"WriteSmall", 60, &GeneratedHistory::WriteSmall},
    {"WriteLarge", 15, &GeneratedHistory::WriteLarge},
    {"WriteCompressible", 30, &GeneratedHistory::WriteCompressible},
    {"WriteSparse", 15, &GeneratedHistory::WriteSparse},
    {"Overwrite", 70, &GeneratedHistory::Overwrite},
    {"OverwriteUnaligned", 30, &GeneratedHistory::OverwriteUnaligned},
    {"Append", 20, &GeneratedHistory::Append},
    {"Preallocate", 15, &GeneratedHistory::Preallocate},
    {"PreallocateBeyondTheEnd", 8, &GeneratedHistory::PreallocateBeyondTheEnd},
    {"PunchHole", 15, &GeneratedHistory::PunchHole},
    {"ZeroRange", 8, &GeneratedHistory::ZeroRange},
    {"TruncateShorter", 15, &GeneratedHistory::TruncateShorter},
    {"TruncateLonger", 8, &GeneratedHistory::TruncateLonger},
    {"NoCowFile", 8, &GeneratedHistory::NoCowFile},
    {"ReflinkInside", 25, &GeneratedHistory::ReflinkInside},
    {"ReflinkAcross", 30, &GeneratedHistory::ReflinkAcross},
    {"ReflinkPart", 30, &GeneratedHistory::ReflinkPart},
    {"Dedupe", 20, &GeneratedHistory::Dedupe},
    {"Unlink", 30, &GeneratedHistory::Unlink},
    {"Rename", 10, &GeneratedHistory::Rename},
    {"HardLink", 15, &GeneratedHistory::HardLink},
    {"Xattr", 15, &GeneratedHistory::Xattr},
    {"ManyFiles", 8, &GeneratedHistory::ManyFiles},
    {"RemoveManyFiles", 6, &GeneratedHistory::RemoveManyFiles},
    {"Fsync", 10, &GeneratedHistory::Fsync},
    {"Defragment", 8, &GeneratedHistory::DefragmentFile},
    {"DefragmentCompressed", 5, &GeneratedHistory::DefragmentCompressed},
    {"SnapshotReadOnly", 25, &GeneratedHistory::SnapshotReadOnly},
    {"SnapshotWritable", 12, &GeneratedHistory::SnapshotWritable},
    {"SnapshotOfSnapshot", 15, &GeneratedHistory::SnapshotOfSnapshot},
    {"SnapshotOfTopLevel", 1, &GeneratedHistory::SnapshotOfTopLevel},
    {"ToggleWriteToggle", 12, &GeneratedHistory::ToggleWriteToggle},
    {"NestSubvolume", 8, &GeneratedHistory::NestSubvolume},
    {"DeleteSnapshot", 20, &GeneratedHistory::DeleteSnapshot},
    {"DeleteOriginal", 3, &GeneratedHistory::DeleteOriginal},
    {"SendFull", 2, &GeneratedHistory::SendFull},
    {"SendIncremental", 8, &GeneratedHistory::SendIncremental},
    {"Commit", 30, &GeneratedHistory::CommitNow},
    {"CleanUp", 5, &GeneratedHistory::CleanUp},
    {"BalanceFull", 2, &GeneratedHistory::BalanceFull},
    {"BalanceMetadata", 2, &GeneratedHistory::BalanceMetadata},
    {"Remount", 2, &GeneratedHistory::Remount},
    {"ReferToOneExtentManyTimes", 0, &GeneratedHistory::ReferToOneExtentManyTimes},
    {"TakeManySnapshots", 0, &GeneratedHistory::TakeManySnapshots},
};

std::vector<std::string> GeneratedHistory::AllSteps() {
  std::vector<std::string> names;
  for (const Step& step : kSteps) names.push_back(step.name);
  return names;
}

GeneratedHistory::GeneratedHistory(BtrfsVolume& volume, const Recipe& recipe)
    : volume_(volume), recipe_(recipe), random_(recipe.seed) {}

void GeneratedHistory::Run() {
  Populate();
  if (recipe_.manyReferences) Try("ReferToOneExtentManyTimes");
  if (recipe_.manySnapshots) Try("TakeManySnapshots");
  for (unsigned step = 0; step < recipe_.steps; ++step) DoOne();
}

// The top level with files of its own, and live subvolumes large enough for trees of some levels.
void GeneratedHistory::Populate() {
  std::filesystem::create_directory(volume_.Path(kReceived));
  places_.push_back({});
  const unsigned live = 1 + Below(3);
  for (unsigned n = 0; n < live; ++n) {
    places_.push_back({NewName("live")});
    CreateSubvolume(Full(places_.back()));
  }
  for (unsigned n = 0; n < 60; ++n) (Chance(70) ? WriteSmall() : WriteInline());
  for (unsigned n = 0; n < 4; ++n) ManyFiles();
}

void GeneratedHistory::DoOne() {
  unsigned sum = 0;
  for (const Step& step : kSteps) sum += step.weight;
  unsigned ticket = Below(sum);
  for (const Step& step : kSteps) {
    if (ticket < step.weight) return Try(step);
    ticket -= step.weight;
  }
}

void GeneratedHistory::Try(const Step& step) {
  try {
    if ((this->*step.run)()) ++done_[step.name];
  } catch (const std::system_error& error) {
    if (!IsNotOffered(error)) throw;
  }
}

void GeneratedHistory::Try(const std::string& name) {
  for (const Step& step : kSteps)
    if (step.name == name) Try(step);
}

std::string GeneratedHistory::Full(const Place& place) const {
  return place.path.empty() ? volume_.MountPoint() : volume_.Path(place.path);
}

std::string GeneratedHistory::Full(const Place& place, const std::string& file) const {
  return Full(place) + "/" + file;
}

Place* GeneratedHistory::Any() { return &places_[Below(static_cast<unsigned>(places_.size()))]; }

Place* GeneratedHistory::Writable() {
  // The top level is written to now and then only.
  for (;;) {
    Place* place = Any();
    if (!place->isReadOnly && (!place->path.empty() || places_.size() == 1 || Chance(30)))
      return place;
    if (std::none_of(places_.begin() + 1, places_.end(),
                     [](const Place& other) { return !other.isReadOnly; }))
      return &places_[0];
  }
}

const std::string* GeneratedHistory::FileOf(const Place* place, std::string* path) {
  if (place->files.empty()) return nullptr;
  const std::string& file = place->files[Below(static_cast<unsigned>(place->files.size()))];
  *path = Full(*place, file);
  return &file;
}

bool GeneratedHistory::WritableFile(std::string* path) {
  return FileOf(Writable(), path) != nullptr;
}

std::string GeneratedHistory::NewFile() {
  Place* place = Writable();
  place->files.push_back(NewName("f"));
  return Full(*place, place->files.back());
}

void GeneratedHistory::WriteAt(const std::string& path, uint64_t offset, size_t bytes,
                               bool compressible) {
  std::vector<uint64_t> words((bytes + 7) / 8);
  for (uint64_t& word : words) word = random_();
  // Every long run of the same word packs well; its value keeps extents from being alike.
  if (compressible)
    for (size_t i = 0; i < words.size(); ++i) words[i] = words[i / 64 * 64] & 0xffff;
  const UniqueFd fd = Open(path, O_WRONLY | O_CREAT);
  if (pwrite(fd.Get(), words.data(), bytes, static_cast<off_t>(offset)) !=
      static_cast<ssize_t>(bytes))
    Throw("write " + path);
}

bool GeneratedHistory::WriteInline() {
  WriteAt(NewFile(), 0, 1 + Below(2000), Chance(50));
  return true;
}

bool GeneratedHistory::WriteSmall() {
  WriteAt(NewFile(), 0, 4096 + Below(120000), /*compressible=*/false);
  return true;
}

bool GeneratedHistory::WriteLarge() {
  WriteAt(NewFile(), 0, 500000 + Below(1500000), Chance(30));
  return true;
}

bool GeneratedHistory::WriteCompressible() {
  WriteAt(NewFile(), 0, 10000 + Below(400000), /*compressible=*/true);
  return true;
}

bool GeneratedHistory::WriteSparse() {
  const std::string path = NewFile();
  for (unsigned n = 0; n < 1 + Below(5); ++n)
    WriteAt(path, n * 300000 + Blocks(40), 3000 + Below(20000), /*compressible=*/false);
  return true;
}

bool GeneratedHistory::Overwrite() {
  std::string path;
  if (!WritableFile(&path)) return false;
  const uint64_t blocks = SizeOf(path) / 4096;
  if (blocks < 2) return false;
  WriteAt(path, Blocks(static_cast<unsigned>(blocks)), 4096 * (1 + Below(4)), Chance(30));
  return true;
}

bool GeneratedHistory::OverwriteUnaligned() {
  std::string path;
  if (!WritableFile(&path)) return false;
  WriteAt(path, Below(static_cast<unsigned>(SizeOf(path)) + 1), 1 + Below(9000), Chance(30));
  return true;
}

bool GeneratedHistory::Append() {
  std::string path;
  if (!WritableFile(&path)) return false;
  WriteAt(path, SizeOf(path), 1 + Below(40000), Chance(30));
  return true;
}

bool GeneratedHistory::Preallocate() {
  const std::string path = NewFile();
  WriteAt(path, 0, 100, /*compressible=*/false);
  Allocate(path, 0, Blocks(10), 4096 * (1 + Below(200)));
  if (Chance(60)) WriteAt(path, Blocks(50), 4096 * (1 + Below(8)), /*compressible=*/false);
  return true;
}

bool GeneratedHistory::PreallocateBeyondTheEnd() {
  std::string path;
  if (!WritableFile(&path)) return false;
  Allocate(path, FALLOC_FL_KEEP_SIZE, SizeOf(path), 4096 * (1 + Below(60)));
  return true;
}

bool GeneratedHistory::PunchHole() {
  std::string path;
  if (!WritableFile(&path) || SizeOf(path) < 8192) return false;
  Allocate(path, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
           Below(static_cast<unsigned>(SizeOf(path))), 1 + Below(60000));
  return true;
}

bool GeneratedHistory::ZeroRange() {
  std::string path;
  if (!WritableFile(&path) || SizeOf(path) < 8192) return false;
  Allocate(path, FALLOC_FL_ZERO_RANGE, Below(static_cast<unsigned>(SizeOf(path))),
           1 + Below(60000));
  return true;
}

bool GeneratedHistory::TruncateShorter() {
  std::string path;
  if (!WritableFile(&path) || SizeOf(path) == 0) return false;
  std::filesystem::resize_file(path, Below(static_cast<unsigned>(SizeOf(path))));
  return true;
}

bool GeneratedHistory::TruncateLonger() {
  std::string path;
  if (!WritableFile(&path)) return false;
  std::filesystem::resize_file(path, SizeOf(path) + Below(100000));
  return true;
}

bool GeneratedHistory::NoCowFile() {
  const std::string path = NewFile();
  const UniqueFd fd = Open(path, O_RDWR | O_CREAT);
  int flags = 0;
  if (ioctl(fd.Get(), FS_IOC_GETFLAGS, &flags) != 0) Throw("flags of " + path);
  flags = (flags & ~FS_COMPR_FL) | FS_NOCOW_FL;
  if (ioctl(fd.Get(), FS_IOC_SETFLAGS, &flags) != 0) Throw("flags of " + path);
  WriteAt(path, 0, 8192 + Below(200000), /*compressible=*/false);
  return true;
}

bool GeneratedHistory::CloneBetween(const Place* from, Place* to, bool whole) {
  FileRange source;
  if (FileOf(from, &source.path) == nullptr) return false;
  const uint64_t size = SizeOf(source.path);
  if (!whole) {
    if (size < 16384) return false;
    source.offset = Blocks(static_cast<unsigned>(size / 4096) - 2);
    source.length = std::min(4096 + Blocks(30), (size - source.offset) / 4096 * 4096);
  }
  std::string target;
  if (whole || Chance(40) || FileOf(to, &target) == nullptr) {
    to->files.push_back(NewName("c"));
    target = Full(*to, to->files.back());
    Open(target, O_WRONLY | O_CREAT);
  }
  if (target == source.path) return false;
  CloneRange(source, target, whole ? 0 : Blocks(60));
  return true;
}

bool GeneratedHistory::ReflinkInside() {
  Place* place = Writable();
  return CloneBetween(place, place, /*whole=*/Chance(60));
}

bool GeneratedHistory::ReflinkAcross() {
  const Place* from = Any();
  Place* to = Writable();
  return from != to && CloneBetween(from, to, /*whole=*/true);
}

bool GeneratedHistory::ReflinkPart() {
  const Place* from = Any();
  return CloneBetween(from, Writable(), /*whole=*/false);
}

// A file is copied byte by byte, wherever it lies, and the copy is then shared with it again.
bool GeneratedHistory::Dedupe() {
  FileRange source;
  if (FileOf(Any(), &source.path) == nullptr) return false;
  source.length = SizeOf(source.path) / 4096 * 4096;
  if (source.length == 0 || source.length > kLongestCopy) return false;
  const std::string copy = NewFile();
  WriteFile(copy, ReadFile(source.path).substr(0, source.length));
  if (Chance(50)) source.length = 4096 + Blocks(static_cast<unsigned>(source.length / 4096));
  return DedupeRange(source, copy, 0) > 0;
}

bool GeneratedHistory::Unlink() {
  Place* place = Writable();
  if (place->files.size() < 10) return false;
  const size_t which = Below(static_cast<unsigned>(place->files.size()));
  std::filesystem::remove(Full(*place, place->files[which]));
  place->files.erase(place->files.begin() + static_cast<long>(which));
  return true;
}

bool GeneratedHistory::Rename() {
  Place* place = Writable();
  if (place->files.empty()) return false;
  std::string& file = place->files[Below(static_cast<unsigned>(place->files.size()))];
  const std::string name = NewName("renamed-to-a-longer-name-");
  std::filesystem::rename(Full(*place, file), Full(*place, name));
  file = name;
  return true;
}

bool GeneratedHistory::HardLink() {
  Place* place = Writable();
  std::string path;
  if (FileOf(place, &path) == nullptr) return false;
  place->files.push_back(NewName("link"));
  std::filesystem::create_hard_link(path, Full(*place, place->files.back()));
  return true;
}

bool GeneratedHistory::Xattr() {
  std::string path;
  if (!WritableFile(&path)) return false;
  const std::string value(1 + Below(3000), 'x');
  const std::string name = "user.n" + std::to_string(Below(4));
  if (setxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) == 0) return true;
  if (errno == ENOSPC) return false;  // a leaf has room for so many of one hash only
  Throw("setxattr " + path);
}

// A directory full of empty files: many items, hence many leaves.
void GeneratedHistory::MakeFiles(const Place& place, unsigned count) {
  const std::string dir = Full(place, NewName("many"));
  std::filesystem::create_directory(dir);
  for (unsigned n = 0; n < count; ++n)
    Open(dir + "/a-name-of-some-length-" + std::to_string(n), O_WRONLY | O_CREAT);
}

bool GeneratedHistory::ManyFiles() {
  MakeFiles(*Writable(), 100 + Below(300));
  return true;
}

bool GeneratedHistory::RemoveManyFiles() {
  for (const auto& entry : std::filesystem::directory_iterator(Full(*Writable()))) {
    if (entry.path().filename().string().rfind("many", 0) != 0) continue;
    std::filesystem::remove_all(entry.path());
    return true;
  }
  return false;
}

bool GeneratedHistory::Fsync() {
  std::string path;
  if (!WritableFile(&path)) return false;
  WriteAt(path, Blocks(5), 5000, /*compressible=*/false);
  if (fsync(Open(path, O_RDWR).Get()) != 0) Throw("fsync " + path);
  return true;
}

bool GeneratedHistory::DefragmentFile() {
  std::string path;
  if (!WritableFile(&path)) return false;
  Defragment(path, /*compress=*/false);
  return true;
}

bool GeneratedHistory::DefragmentCompressed() {
  std::string path;
  if (!WritableFile(&path)) return false;
  Defragment(path, /*compress=*/true);
  return true;
}

bool GeneratedHistory::HasRoom(size_t places) const {
  return places_.size() + places <= kMostPlaces;
}

void GeneratedHistory::TakeSnapshot(const Place* source, bool readOnly) {
  Place snapshot = *source;
  for (const Place& other : places_)
    if (!other.path.empty() && ParentOf(other.path) == source->path && !source->path.empty())
      ++snapshot.nestedEntries;
  snapshot.path = NewName("snap");
  snapshot.isSnapshot = true;
  snapshot.isReadOnly = readOnly;
  CreateSnapshot(Full(*source), Full(snapshot), readOnly);
  places_.push_back(snapshot);
}

bool GeneratedHistory::SnapshotReadOnly() {
  const Place* source = Any();
  if (source->isSnapshot || source->path.empty() || !HasRoom()) return false;
  TakeSnapshot(source, /*readOnly=*/true);
  return true;
}

bool GeneratedHistory::SnapshotWritable() {
  const Place* source = Any();
  if (source->isSnapshot || source->path.empty() || !HasRoom()) return false;
  TakeSnapshot(source, /*readOnly=*/false);
  return true;
}

bool GeneratedHistory::SnapshotOfSnapshot() {
  const Place* source = Any();
  if (!source->isSnapshot || !HasRoom()) return false;
  TakeSnapshot(source, /*readOnly=*/Chance(50));
  return true;
}

bool GeneratedHistory::SnapshotOfTopLevel() {
  if (!HasRoom()) return false;
  TakeSnapshot(&places_[0], /*readOnly=*/Chance(50));
  return true;
}

// A read-only snapshot is made writable, written to, and made read-only again.
bool GeneratedHistory::ToggleWriteToggle() {
  Place* place = Any();
  if (!place->isReadOnly || place->path == lastSent_ || place->path.rfind(kReceived, 0) == 0)
    return false;
  std::string path;
  if (FileOf(place, &path) == nullptr) return false;
  SetReadOnly(Full(*place), false);
  WriteAt(path, Blocks(20), 1 + Below(30000), /*compressible=*/false);
  place->files.push_back(NewName("t"));
  WriteAt(Full(*place, place->files.back()), 0, 1 + Below(30000), /*compressible=*/false);
  SetReadOnly(Full(*place), true);
  return true;
}

bool GeneratedHistory::NestSubvolume() {
  const Place* outer = Writable();
  if (!HasRoom() || outer->path.empty()) return false;
  places_.push_back({outer->path + "/" + NewName("inner")});
  CreateSubvolume(Full(places_.back()));
  for (unsigned n = 0; n < 3; ++n) {
    places_.back().files.push_back(NewName("f"));
    WriteAt(Full(places_.back(), places_.back().files.back()), 0, 1 + Below(50000), Chance(50));
  }
  return true;
}

bool GeneratedHistory::HasNested(const Place& place) const {
  return std::any_of(places_.begin(), places_.end(), [&](const Place& other) {
    return !place.path.empty() && other.path.rfind(place.path + "/", 0) == 0;
  });
}

bool GeneratedHistory::DeletePlace(size_t index) {
  const Place& place = places_[index];
  if (place.path.empty() || HasNested(place)) return false;
  DestroySubvolume(Full(place));
  if (place.path == lastSent_ || place.path == kReceived + ("/" + lastSent_)) lastSent_.clear();
  places_.erase(places_.begin() + static_cast<long>(index));
  return true;
}

bool GeneratedHistory::DeleteSnapshot() {
  const size_t index = Below(static_cast<unsigned>(places_.size()));
  return places_[index].isSnapshot && places_.size() > 6 && DeletePlace(index);
}

// Its snapshots stay; something to write to stays as well.
bool GeneratedHistory::DeleteOriginal() {
  const size_t index = Below(static_cast<unsigned>(places_.size()));
  const Place& place = places_[index];
  if (place.isSnapshot || place.path.rfind("live", 0) != 0 || places_.size() < 8) return false;
  if (!DeletePlace(index)) return false;
  places_.push_back({NewName("live")});
  CreateSubvolume(Full(places_.back()));
  return true;
}

// `options` of the sending program go before the snapshot's name.
bool GeneratedHistory::Receive(const std::string& options) {
  const std::string name = places_.back().path;
  const std::string btrfs(kStockBtrfs);
  MustRun({"bash", "-ec",
           "set -o pipefail; cd " + volume_.MountPoint() + "; " + btrfs + " -q send " + options +
               name + " | " + btrfs + " -q receive " + kReceived});
  Place received = places_.back();
  received.path = kReceived + ("/" + name);
  places_.push_back(received);
  lastSent_ = name;
  return true;
}

bool GeneratedHistory::SendFull() {
  Place* source = Any();
  if (source->isSnapshot || source->path.empty() || !HasRoom(2)) return false;
  TakeSnapshot(source, /*readOnly=*/true);
  return Receive("");
}

bool GeneratedHistory::SendIncremental() {
  if (lastSent_.empty() || !HasRoom(2)) return false;
  // A writable snapshot of what was sent has what the stream builds on, and changes of its own.
  const auto last = std::find_if(places_.begin(), places_.end(),
                                 [&](const Place& place) { return place.path == lastSent_; });
  Place changed = *last;
  changed.path = NewName("changed");
  CreateSnapshot(Full(*last), Full(changed), /*readOnly=*/false);
  for (unsigned n = 0; n < 6; ++n) {
    std::string path;
    if (Chance(50) || FileOf(&changed, &path) == nullptr) {
      changed.files.push_back(NewName("s"));
      path = Full(changed, changed.files.back());
    }
    WriteAt(path, Blocks(10), 1 + Below(60000), Chance(30));
  }
  TakeSnapshot(&changed, /*readOnly=*/true);
  DestroySubvolume(Full(changed));
  return Receive("-p " + lastSent_ + " ");
}

bool GeneratedHistory::CommitNow() {
  Commit(volume_.MountPoint());
  return true;
}

bool GeneratedHistory::CleanUp() {
  CommitAndClean(volume_.MountPoint());
  return true;
}

bool GeneratedHistory::Balance(const std::vector<std::string>& filters) {
  if (++balances_ > 2) return false;  // each rewrites everything
  std::vector<std::string> argv = {kStockBtrfs, "balance", "start"};
  argv.insert(argv.end(), filters.begin(), filters.end());
  argv.push_back(volume_.MountPoint());
  const CommandResult result = ZorvTest::Run(argv);
  // Small devices of different sizes have no place for a further chunk of every profile.
  if (result.err.find("No space left") != std::string::npos) return false;
  if (result.status != 0) throw std::runtime_error("balance: " + result.err);
  return true;
}

bool GeneratedHistory::BalanceFull() { return Balance({"--full-balance"}); }

bool GeneratedHistory::BalanceMetadata() { return !recipe_.mixed && Balance({"-m"}); }

bool GeneratedHistory::Remount() {
  volume_.Unmount();
  volume_.Mount();
  return true;
}

// Doubles a file of one block by sharing it with itself until it refers to it 2^17 times.
bool GeneratedHistory::ReferToOneExtentManyTimes() {
  const std::string path = NewFile();
  WriteAt(path, 0, 4096, /*compressible=*/false);
  for (uint64_t bytes = 4096; bytes < uint64_t{4096} << 17; bytes *= 2)
    CloneRange({path, 0, bytes}, path, bytes);
  return true;
}

// Far more snapshots of one subvolume than the item of an extent has room for as holders, and a
// tree of three levels, where each snapshot leaves an older version of the middle one behind.
bool GeneratedHistory::TakeManySnapshots() {
  const size_t live = 1;
  MakeFiles(places_[live], 1500);
  for (unsigned n = 0; n < 60; ++n) {
    places_[live].files.push_back(NewName("f"));
    WriteAt(Full(places_[live], places_[live].files.back()), 0, 1 + Below(9000), Chance(50));
    TakeSnapshot(&places_[live], /*readOnly=*/true);
  }
  return true;
}

}  // namespace ZorvTest
