#include "engine/size/digest_reader.h"

#include <mutex>
#include <new>

namespace ZorvEngine {

void DigestReader::BeginPass() {
  badBefore_ = std::exchange(bad_, {});
  outcome_ = Status();
}

Status DigestReader::Read(BlockReader& reader, std::vector<BlockPointer>* pointers,
                          const Make& make, bool filtered) {
  std::mutex storing;
  const auto keep = [&](size_t index, const TreeBlockView& block) {
    try {
      Words digest;
      ENGINE_TRY(make(block, &digest));
      const std::lock_guard<std::mutex> lock(storing);
      const BlockPointer& pointer = (*pointers)[index];
      store_.Put(pointer.bytenr, pointer.generation, digest, filtered);
      return Status();
    } catch (const NoArrayMemory& error) {
      return Status::Failed(error.what());
    } catch (const std::bad_alloc&) {
      return Status::Failed("out of memory");
    }
  };
  std::vector<BadBlock> bad;
  ENGINE_TRY(reader.Sweep(*pointers, keep, &bad));
  for (const BadBlock& block : bad) ENGINE_TRY(Remember((*pointers)[block.index], block.why));
  pointers->clear();
  return Status();
}

// A block that is still in use by the newer superblock was not free for reuse when the pass before
// could not read it: it is damaged.
Status DigestReader::Remember(const BlockPointer& pointer, const Status& why) {
  const BlockName name(pointer.bytenr, pointer.generation);
  if (badBefore_.count(name) != 0) return Status::Failed(why.Text() + "; run btrfs scrub");
  bad_.insert(name);
  ++badBlocks_;
  if (outcome_.Ok()) outcome_ = why;
  return Status();
}

}  // namespace ZorvEngine
