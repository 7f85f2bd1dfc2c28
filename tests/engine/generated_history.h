// A random history on a generated file system: what users do to files, subvolumes and snapshots.
#ifndef TESTS_ENGINE_GENERATED_HISTORY_H_
#define TESTS_ENGINE_GENERATED_HISTORY_H_

#include <random>
#include <string>
#include <vector>

#include "tests/engine/features.h"
#include "tests/engine/generated_recipe.h"
#include "tests/support/btrfs_volume.h"

namespace ZorvTest {

// A subvolume of the history, with what the history knows to be in it.
struct Place {
  std::string path;  // from the mount point; empty for the top level
  bool isSnapshot = false;
  bool isReadOnly = false;
  unsigned nestedEntries = 0;           // of subvolumes that were nested in its original
  std::vector<std::string> files = {};  // from the subvolume's root
};

// Makes its changes in an order that its recipe's seed repeats.  Throws what the kernel refuses,
// except combinations that btrfs does not offer: those do not count as done.
class GeneratedHistory {
 public:
  GeneratedHistory(BtrfsVolume& volume, const Recipe& recipe);

  void Run();

  // What was done, by the name of the step, such as "Dedupe".
  const Features& Done() const { return done_; }

  // All that is left at the end, the top level first; a nested one after what it lies in.
  const std::vector<Place>& Places() const { return places_; }

  // Every name that Done can have.
  static std::vector<std::string> AllSteps();

 private:
  struct Step;
  static const Step kSteps[];

  unsigned Below(unsigned end) { return static_cast<unsigned>(random_() % end); }
  bool Chance(unsigned percent) { return Below(100) < percent; }
  std::string NewName(const char* prefix) { return prefix + std::to_string(++names_); }
  std::string Full(const Place& place, const std::string& file) const;
  std::string Full(const Place& place) const;
  uint64_t Blocks(unsigned end) { return uint64_t{4096} * Below(end); }

  Place* Writable();
  Place* Any();
  // A file of a place, or null; its full path in `path`.
  const std::string* FileOf(const Place* place, std::string* path);
  // A file of any writable place; false: the first that chance chose has none.
  bool WritableFile(std::string* path);
  // Puts a new file into a writable place.
  std::string NewFile();
  void WriteAt(const std::string& path, uint64_t offset, size_t bytes, bool compressible);

  void MakeFiles(const Place& place, unsigned count);

  void DoOne();
  void Try(const Step& step);
  void Try(const std::string& name);
  void Populate();

  bool WriteInline();
  bool WriteSmall();
  bool WriteLarge();
  bool WriteCompressible();
  bool WriteSparse();
  bool Overwrite();
  bool OverwriteUnaligned();
  bool Append();
  bool Preallocate();
  bool PreallocateBeyondTheEnd();
  bool PunchHole();
  bool ZeroRange();
  bool TruncateShorter();
  bool TruncateLonger();
  bool NoCowFile();
  bool ReflinkInside();
  bool ReflinkAcross();
  bool ReflinkPart();
  bool Dedupe();
  bool Unlink();
  bool Rename();
  bool HardLink();
  bool Xattr();
  bool ManyFiles();
  bool RemoveManyFiles();
  bool Fsync();
  bool DefragmentFile();
  bool DefragmentCompressed();
  bool SnapshotReadOnly();
  bool SnapshotWritable();
  bool SnapshotOfSnapshot();
  bool SnapshotOfTopLevel();
  bool ToggleWriteToggle();
  bool NestSubvolume();
  bool DeleteSnapshot();
  bool DeleteOriginal();
  bool SendFull();
  bool SendIncremental();
  bool CommitNow();
  bool CleanUp();
  bool BalanceFull();
  bool BalanceMetadata();
  bool Remount();
  bool ReferToOneExtentManyTimes();
  bool TakeManySnapshots();

  void TakeSnapshot(const Place* source, bool readOnly);
  bool HasRoom(size_t places = 1) const;
  bool CloneBetween(const Place* from, Place* to, bool whole);
  bool Receive(const std::string& options);
  bool DeletePlace(size_t index);
  bool HasNested(const Place& place) const;
  bool Balance(const std::vector<std::string>& filters);

  BtrfsVolume& volume_;
  const Recipe& recipe_;
  std::mt19937_64 random_;
  std::vector<Place> places_;
  Features done_;
  unsigned names_ = 0;
  unsigned balances_ = 0;
  std::string lastSent_;  // the snapshot that the next incremental stream builds on, or empty
};

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_GENERATED_HISTORY_H_
