// Fills a directory of a btrfs file system with what the measurements need, much faster than a
// shell.
//
// clang-format off
//   make_files write DIR FIRST COUNT BYTES          files FIRST.. of random bytes
//   make_files rewrite DIR COUNT BYTES CHOSEN SEED  CHOSEN of the files 0..COUNT-1, anew, in place
//   make_files blocks FILE COUNT CHOSEN SEED        CHOSEN of the COUNT blocks of 4 KiB of a file,
//                                                   in random order, each written on its own
//   make_files pieces DIR FIRST COUNT PIECES        files FIRST.. of PIECES allocated extents of
//                                                   4 KiB
//   make_files clone FROM TO                        TO gets a reflinked copy of each file in FROM
//   make_files count DIR                            prints how many items the extent tree has for
//                                                   extents and tree blocks
// clang-format on
#include <dirent.h>
#include <endian.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <linux/fs.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace {

constexpr size_t kBlock = 4096;
// More files than this in one directory would measure the directory.
constexpr uint64_t kFilesPerDirectory = 1000;

// Ends the program with what went wrong at `where`: a file system half made is of no use.
[[noreturn]] void Fail(const std::string& where) {
  fprintf(stderr, "make_files: %s: %s\n", where.c_str(), strerror(errno));
  exit(1);
}

uint64_t Number(const char* text) {
  char* end = nullptr;
  errno = 0;
  const uint64_t value = strtoull(text, &end, 10);
  if (errno == 0 && (*end != '\0' || end == text)) errno = EINVAL;
  if (errno != 0) Fail(text);
  return value;
}

UniqueFd OpenFile(const std::string& path, int flags) {
  UniqueFd fd(open(path.c_str(), flags | O_CLOEXEC, 0644));
  if (!fd.Valid()) Fail(path);
  return fd;
}

void MakeDirectory(const std::string& path) {
  if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) Fail(path);
}

// The path of file `number` in `directory`, in a folder of its thousand.
std::string FilePath(const std::string& directory, uint64_t number) {
  return directory + "/" + std::to_string(number / kFilesPerDirectory) + "/" +
         std::to_string(number);
}

// Fills `buffer` with bytes that nothing can compress.
void FillRandom(std::mt19937_64& random, std::vector<uint64_t>& buffer) {
  std::generate(buffer.begin(), buffer.end(), std::ref(random));
}

void WriteAt(int fd, const void* bytes, size_t size, uint64_t offset, const std::string& path) {
  if (pwrite(fd, bytes, size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size)) Fail(path);
}

// Writes a file's `bytes` random bytes from its start; what it had there gets new extents.
void WriteFile(const std::string& path, uint64_t bytes, std::mt19937_64& random) {
  static std::vector<uint64_t> buffer;
  buffer.resize((bytes + 7) / 8);
  FillRandom(random, buffer);
  const UniqueFd fd = OpenFile(path, O_CREAT | O_WRONLY);
  WriteAt(fd.Get(), buffer.data(), bytes, 0, path);
}

void WriteFiles(const std::string& directory, uint64_t first, uint64_t count, uint64_t bytes) {
  std::mt19937_64 random(first);
  for (uint64_t number = first; number < first + count; ++number) {
    if (number == first || number % kFilesPerDirectory == 0)
      MakeDirectory(directory + "/" + std::to_string(number / kFilesPerDirectory));
    WriteFile(FilePath(directory, number), bytes, random);
  }
}

// `chosen` different numbers below `count`, in random order.
std::vector<uint64_t> Choose(uint64_t count, uint64_t chosen, std::mt19937_64& random) {
  std::vector<uint64_t> numbers(count);
  std::iota(numbers.begin(), numbers.end(), 0);
  std::shuffle(numbers.begin(), numbers.end(), random);
  numbers.resize(std::min(count, chosen));
  return numbers;
}

void RewriteFiles(const std::string& directory, uint64_t count, uint64_t bytes, uint64_t chosen,
                  uint64_t seed) {
  std::mt19937_64 random(seed);
  for (const uint64_t number : Choose(count, chosen, random))
    WriteFile(FilePath(directory, number), bytes, random);
}

// Written past the page cache, which would join neighbours into one extent.
void WriteBlocks(const std::string& path, uint64_t count, uint64_t chosen, uint64_t seed) {
  std::mt19937_64 random(seed);
  const UniqueFd fd = OpenFile(path, O_CREAT | O_WRONLY | O_DIRECT);
  if (ftruncate(fd.Get(), static_cast<off_t>(count * kBlock)) != 0) Fail(path);
  const std::unique_ptr<void, void (*)(void*)> block(aligned_alloc(kBlock, kBlock), free);
  for (const uint64_t number : Choose(count, chosen, random)) {
    auto* words = static_cast<uint64_t*>(block.get());
    std::generate(words, words + kBlock / sizeof(uint64_t), std::ref(random));
    WriteAt(fd.Get(), block.get(), kBlock, number * kBlock, path);
  }
}

// Each call allocates an extent of its own; its item is the one that written data would have.
void AllocatePieces(const std::string& path, uint64_t pieces) {
  const UniqueFd fd = OpenFile(path, O_CREAT | O_WRONLY);
  for (uint64_t piece = 0; piece < pieces; ++piece)
    if (fallocate(fd.Get(), 0, static_cast<off_t>(piece * kBlock), kBlock) != 0) Fail(path);
}

void MakePieces(const std::string& directory, uint64_t first, uint64_t count, uint64_t pieces) {
  for (uint64_t number = first; number < first + count; ++number)
    AllocatePieces(directory + "/" + std::to_string(number), pieces);
}

void CloneFiles(const std::string& from, const std::string& to) {
  const std::unique_ptr<DIR, void (*)(DIR*)> entries(opendir(from.c_str()),
                                                     [](DIR* open) { (void)closedir(open); });
  if (entries == nullptr) Fail(from);
  while (const dirent* entry = readdir(entries.get())) {
    if (entry->d_type != DT_REG) continue;
    const UniqueFd source = OpenFile(from + "/" + entry->d_name, O_RDONLY);
    const UniqueFd copy = OpenFile(to + "/" + entry->d_name, O_CREAT | O_WRONLY);
    if (ioctl(copy.Get(), FICLONE, source.Get()) != 0) Fail(to);
  }
}

// A search over the whole extent tree, a buffer full of items at a time.
class ExtentTreeSearch {
 public:
  ExtentTreeSearch() : memory_(sizeof(btrfs_ioctl_search_args_v2) + kBufferSize) {
    Args().key.tree_id = BTRFS_EXTENT_TREE_OBJECTID;
    Args().key.max_objectid = Args().key.max_offset = Args().key.max_transid = UINT64_MAX;
    Args().key.max_type = UINT8_MAX;
    Args().buf_size = kBufferSize;
  }

  // How many items the next search found, 0 at the end; Items() has them.
  uint32_t Next(int fd, const std::string& path) {
    Args().key.nr_items = UINT32_MAX;
    if (ioctl(fd, BTRFS_IOC_TREE_SEARCH_V2, &Args()) != 0) Fail(path);
    return Args().key.nr_items;
  }

  // A header and its data, and so on.
  const uint8_t* Items() const { return memory_.data() + sizeof(btrfs_ioctl_search_args_v2); }

  void StartAfter(const btrfs_ioctl_search_header& last) {
    Args().key.min_objectid = last.objectid;
    Args().key.min_type = last.type;
    Args().key.min_offset = last.offset + 1;  // no item here has the highest offset
  }

 private:
  static constexpr size_t kBufferSize = 1 << 20;

  btrfs_ioctl_search_args_v2& Args() {
    return *reinterpret_cast<btrfs_ioctl_search_args_v2*>(memory_.data());
  }

  std::vector<uint8_t> memory_;
};

// Whether a METADATA_ITEM speaks of a block of the extent tree.  Such a block has one holder, which
// stands in the item: after the fixed part the kind of reference and the tree.
bool IsExtentTreeBlock(const btrfs_ioctl_search_header& header, const uint8_t* data) {
  struct {
    btrfs_extent_item fixed;
    btrfs_extent_inline_ref holder;
  } __attribute__((packed)) item;
  if (header.type != BTRFS_METADATA_ITEM_KEY || header.len < sizeof item) return false;
  memcpy(&item, data, sizeof item);
  return item.holder.type == BTRFS_TREE_BLOCK_REF_KEY &&
         le64toh(item.holder.offset) == BTRFS_EXTENT_TREE_OBJECTID;
}

void CountExtents(const std::string& directory) {
  const UniqueFd fd = OpenFile(directory, O_RDONLY);
  ExtentTreeSearch search;
  uint64_t extents = 0;
  uint64_t ofExtentTree = 0;
  while (const uint32_t count = search.Next(fd.Get(), directory)) {
    btrfs_ioctl_search_header header{};
    const uint8_t* at = search.Items();
    for (uint32_t i = 0; i < count; ++i, at += sizeof header + header.len) {
      memcpy(&header, at, sizeof header);
      extents += header.type == BTRFS_EXTENT_ITEM_KEY || header.type == BTRFS_METADATA_ITEM_KEY;
      ofExtentTree += IsExtentTreeBlock(header, at + sizeof header);
    }
    search.StartAfter(header);
  }
  printf("%llu %llu\n", static_cast<unsigned long long>(extents),
         static_cast<unsigned long long>(ofExtentTree));
}

// Does what `words` ask for; false when they ask for nothing known.
bool Run(const std::vector<const char*>& words) {
  const std::string command = words.empty() ? "" : words[0];
  const auto number = [&](size_t at) { return Number(words[at]); };
  if (command == "write" && words.size() == 5)
    WriteFiles(words[1], number(2), number(3), number(4));
  else if (command == "rewrite" && words.size() == 6)
    RewriteFiles(words[1], number(2), number(3), number(4), number(5));
  else if (command == "blocks" && words.size() == 5)
    WriteBlocks(words[1], number(2), number(3), number(4));
  else if (command == "pieces" && words.size() == 5)
    MakePieces(words[1], number(2), number(3), number(4));
  else if (command == "clone" && words.size() == 3)
    CloneFiles(words[1], words[2]);
  else if (command == "count" && words.size() == 2)
    CountExtents(words[1]);
  else
    return false;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (Run(std::vector<const char*>(argv + 1, argv + argc))) return 0;
  fprintf(stderr,
          "make_files: write, rewrite, blocks, pieces, clone or count; see make_files.cc\n");
  return 2;
}
