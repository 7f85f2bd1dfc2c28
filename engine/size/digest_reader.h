// digest_reader.h: reads tree blocks of which no digest is known yet.
#ifndef ENGINE_SIZE_DIGEST_READER_H_
#define ENGINE_SIZE_DIGEST_READER_H_

#include <cstdint>
#include <functional>
#include <set>
#include <utility>
#include <vector>

#include "engine/io/block_reader.h"
#include "engine/ondisk/status.h"
#include "engine/size/digest_store.h"

namespace ZorvEngine {

// Fills a store of digests, pass by pass.  A block that cannot be used does not end a pass at once:
// the others are read all the same, so that the next pass need not.
class DigestReader {
 public:
  // Blocks that are read with one call at most.
  static constexpr size_t kMostAtOnce = 32768;

  // Makes the digest of a block; called from several threads at once.
  using Make = std::function<Status(const TreeBlockView& block, Words* digest)>;

  // The memory is the caller's and outlives the object.
  explicit DigestReader(ArrayMemory& memory) : store_(memory) {}

  const DigestStore& Store() const { return store_; }
  DigestStore& Store() { return store_; }

  // Begins a pass, from a newer superblock than the one before.
  void BeginPass();

  // Reads `pointers`, puts the digests that `make` makes of the blocks into the store, `filtered`
  // as DigestStore has it, and empties the list.  Blocks that cannot be used are remembered.
  Status Read(BlockReader& reader, std::vector<BlockPointer>* pointers, const Make& make,
              bool filtered);

  // How many blocks were bad, in all passes together.
  uint64_t BadBlocks() const { return badBlocks_; }

  // Success when no block of this pass was bad; else Status::kBadBlock, of the first.
  const Status& Outcome() const { return outcome_; }

 private:
  using BlockName = std::pair<uint64_t, uint64_t>;  // address and generation

  Status Remember(const BlockPointer& pointer, const Status& why);

  DigestStore store_;
  Status outcome_;
  uint64_t badBlocks_ = 0;
  std::set<BlockName> bad_;        // in this pass
  std::set<BlockName> badBefore_;  // in the pass before
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_DIGEST_READER_H_
