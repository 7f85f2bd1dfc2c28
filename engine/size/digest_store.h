// digest_store.h: the digests of all tree blocks that a scan has read, from pass to pass.
#ifndef ENGINE_SIZE_DIGEST_STORE_H_
#define ENGINE_SIZE_DIGEST_STORE_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "engine/io/array_memory.h"
#include "engine/io/block_reader.h"
#include "engine/size/address_map.h"
#include "engine/size/leaf_digest.h"

namespace ZorvEngine {

// Keeps a digest for each address: that of the generation read last.  Place and generation together
// name one content for ever, so what was read for one superblock serves later ones too.  What a
// newer digest replaces stays in memory until the end.
class DigestStore {
 public:
  // The memory is the caller's and outlives the store.
  explicit DigestStore(ArrayMemory& memory);
  DigestStore(const DigestStore&) = delete;
  DigestStore& operator=(const DigestStore&) = delete;
  ~DigestStore();

  // The digest of a block, if that generation of it has been read; lives as long as the store.
  std::optional<WordSpan> Find(uint64_t bytenr, uint64_t generation) const;

  // Keeps a digest; `filtered` when it left something out for reasons that may change.
  // Throws NoArrayMemory.
  void Put(uint64_t bytenr, uint64_t generation, const Words& digest, bool filtered);

  // Forgets the filtered digests.
  void DropFiltered();

 private:
  struct Entry {
    uint64_t generation;
    const uint64_t* words;
    uint32_t count;
    bool filtered;
  };
  static constexpr uint64_t kNone = UINT64_MAX;  // generation of an entry that was dropped
  static constexpr size_t kChunkWords = (1 << 20) / sizeof(uint64_t);

  uint64_t* Room(size_t words);

  ArrayMemory& memory_;
  AddressMap numbers_;  // of entries, by address
  BigArray<Entry> entries_;
  struct Chunk {
    uint64_t* words;
    size_t bytes;
  };
  std::vector<Chunk> chunks_;
  size_t left_ = 0;  // words not used in the last chunk
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_DIGEST_STORE_H_
