#include "engine/size/digest_store.h"

#include <algorithm>

namespace ZorvEngine {

DigestStore::DigestStore(ArrayMemory& memory)
    : memory_(memory), numbers_(memory), entries_(memory) {}

DigestStore::~DigestStore() {
  for (const Chunk& chunk : chunks_) memory_.Free(chunk.words, chunk.bytes);
}

std::optional<WordSpan> DigestStore::Find(uint64_t bytenr, uint64_t generation) const {
  const std::optional<uint32_t> number = numbers_.Find(bytenr);
  if (!number || entries_[*number].generation != generation) return std::nullopt;
  return WordSpan(entries_[*number].words, entries_[*number].count);
}

void DigestStore::Put(uint64_t bytenr, uint64_t generation, const Words& digest, bool filtered) {
  uint64_t* const words = Room(digest.size());
  std::ranges::copy(digest, words);
  const Entry entry{generation, words, static_cast<uint32_t>(digest.size()), filtered};
  if (const std::optional<uint32_t> number = numbers_.Find(bytenr)) {
    entries_[*number] = entry;
    return;
  }
  numbers_.Set(bytenr, static_cast<uint32_t>(entries_.Size()));
  entries_.Add(entry);
}

void DigestStore::DropFiltered() {
  for (Entry& entry : entries_)
    if (entry.filtered) entry.generation = kNone;
}

uint64_t* DigestStore::Room(size_t words) {
  if (chunks_.empty() || words > left_) {
    const size_t bytes = std::max(words, kChunkWords) * sizeof(uint64_t);
    chunks_.push_back({static_cast<uint64_t*>(memory_.Allocate(bytes)), bytes});
    left_ = bytes / sizeof(uint64_t);
  }
  const Chunk& last = chunks_.back();
  uint64_t* const room = last.words + (last.bytes / sizeof(uint64_t) - left_);
  left_ -= words;
  return room;
}

}  // namespace ZorvEngine
