#include "engine/size/holder_sets.h"

#include <algorithm>

namespace ZorvEngine {
namespace {

uint64_t HashOf(const uint64_t* words, size_t count) {
  uint64_t hash = 0;
  for (size_t i = 0; i < count; ++i) {
    hash = (hash ^ words[i]) * 0x9E3779B97F4A7C15ULL;
    hash ^= hash >> 29;
  }
  return hash;
}

uint32_t LastBit(const std::vector<uint64_t>& words) {
  for (size_t i = words.size(); i-- > 0;)
    if (words[i] != 0) return static_cast<uint32_t>(64 * i + 63 - __builtin_clzll(words[i]));
  return 0;
}

// What one kept set takes, its entry in the hash table included.
size_t BytesOfSet(size_t words) { return words * sizeof(uint64_t) + 64; }

}  // namespace

HolderSets::HolderSets(size_t subvolumes, size_t mostBytes)
    : subvolumes_(subvolumes), words_((subvolumes + 63) / 64), mostSets_(0) {
  mostSets_ = std::min<size_t>(mostBytes / BytesOfSet(words_), kSeveral);
  if (mostSets_ <= subvolumes_ + 1) {
    words_ = 0;
    return;
  }
  std::vector<uint64_t> bits(words_);
  (void)Intern(bits);
  for (size_t i = 0; i < subvolumes_; ++i) {
    bits[i / 64] = 1ULL << (i % 64);
    (void)Intern(bits);
    bits[i / 64] = 0;
  }
}

uint32_t HolderSets::Last(HolderId id) const {
  if (!IsComplete(id)) return id & ~kSeveral;
  return IsSingle(id) ? id - 1 : last_[id];
}

std::vector<uint32_t> HolderSets::Members(HolderId id) const {
  if (id == kNobody) return {};
  if (!IsComplete(id) || IsSingle(id)) return {Last(id)};
  std::vector<uint32_t> members;
  for (size_t word = 0; word < words_; ++word)
    for (uint64_t left = Bits(id)[word]; left != 0; left &= left - 1)
      members.push_back(static_cast<uint32_t>(64 * word + __builtin_ctzll(left)));
  return members;
}

HolderId HolderSets::Intern(const std::vector<uint64_t>& bits) {
  const uint64_t hash = HashOf(bits.data(), words_);
  const auto candidates = byHash_.equal_range(hash);
  for (auto at = candidates.first; at != candidates.second; ++at)
    if (std::equal(bits.begin(), bits.end(), Bits(at->second))) return at->second;

  const uint32_t last = LastBit(bits);
  if (last_.size() >= mostSets_) return kSeveral | last;
  const auto id = static_cast<HolderId>(last_.size());
  bits_.insert(bits_.end(), bits.begin(), bits.end());
  last_.push_back(last);
  byHash_.emplace(hash, id);
  return id;
}

void HolderUnion::Clear() {
  if (several_) std::fill(bits_.begin(), bits_.end(), 0);
  only_ = added_ = HolderSets::kNobody;
  several_ = partial_ = false;
  last_ = 0;
}

void HolderUnion::Add(HolderId id) {
  if (id == added_ || id == HolderSets::kNobody) return;
  added_ = id;
  if (only_ == HolderSets::kNobody) {
    only_ = id;
    return;
  }
  if (id == only_) return;
  if (!several_) AddBits(only_);
  several_ = true;
  AddBits(id);
}

void HolderUnion::AddBits(HolderId id) {
  last_ = std::max(last_, sets_.Last(id));
  partial_ = partial_ || sets_.words_ == 0 || !sets_.IsComplete(id);
  if (partial_) return;
  const uint64_t* bits = sets_.Bits(id);
  for (size_t i = 0; i < bits_.size(); ++i) bits_[i] |= bits[i];
}

HolderId HolderUnion::Id() {
  if (!several_) return only_;
  return partial_ ? HolderSets::kSeveral | last_ : sets_.Intern(bits_);
}

}  // namespace ZorvEngine
