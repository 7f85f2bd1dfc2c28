#include "engine/size/held_references.h"

#include <algorithm>
#include <array>

namespace ZorvEngine {
namespace {

// Digits of 11 bits: their counters fit into the first cache.
constexpr int kDigitBits = 11;
constexpr uint64_t kDigitMask = (1 << kDigitBits) - 1;

// Addresses are multiples of 4096.
constexpr int kLowBits = 12;

// Fewer than this are sorted faster by comparing.
constexpr size_t kFewest = 4096;

}  // namespace

// Digit by digit from the lowest: millions of references are sorted in a few passes.
void HeldReferences::Sort() {
  uint64_t highest = 0;
  for (const HeldReference& reference : references_) highest = std::max(highest, reference.bytenr);
  if (references_.Size() < kFewest) {
    std::ranges::sort(references_.begin(), references_.end(), {}, &HeldReference::bytenr);
    return;
  }
  BigArray<HeldReference> room(*memory_);
  room.GrowTo(references_.Size());
  for (int shift = kLowBits; shift < 64 && highest >> shift != 0; shift += kDigitBits)
    SortByDigit(shift, &room);
}

// Leaves references with equal digits in their order.
void HeldReferences::SortByDigit(int shift, BigArray<HeldReference>* room) {
  std::array<size_t, kDigitMask + 1> next{};
  const auto digit = [shift](const HeldReference& reference) {
    return reference.bytenr >> shift & kDigitMask;
  };
  for (const HeldReference& reference : references_) ++next[digit(reference)];
  size_t begin = 0;
  for (size_t& place : next) begin += std::exchange(place, begin);
  for (const HeldReference& reference : references_) (*room)[next[digit(reference)]++] = reference;
  std::swap(references_, *room);
}

}  // namespace ZorvEngine
