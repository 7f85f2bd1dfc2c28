// address_map.h: a number for each of many addresses.
#ifndef ENGINE_SIZE_ADDRESS_MAP_H_
#define ENGINE_SIZE_ADDRESS_MAP_H_

#include <cstdint>
#include <optional>

#include "engine/io/array_memory.h"

namespace ZorvEngine {

// A hash table from logical addresses to 32-bit numbers: 24 bytes for each address at most, and
// three times that while it grows.
class AddressMap {
 public:
  // The memory is the caller's and outlives the map.
  explicit AddressMap(ArrayMemory& memory)
      : addresses_(memory), numbers_(memory), memory_(&memory) {}

  // Enters `number` for `address`, in place of an older one.  Throws NoArrayMemory.
  void Set(uint64_t address, uint32_t number) {
    if (2 * (count_ + 1) > addresses_.Size()) Grow();
    const size_t slot = SlotOf(address);
    if (addresses_[slot] == kFree) ++count_;
    addresses_[slot] = address + 1;
    numbers_[slot] = number;
  }

  // The number of `address`, if it has one.
  std::optional<uint32_t> Find(uint64_t address) const {
    if (count_ == 0) return std::nullopt;
    const size_t slot = SlotOf(address);
    if (addresses_[slot] == kFree) return std::nullopt;
    return numbers_[slot];
  }

  size_t Count() const { return count_; }

 private:
  static constexpr uint64_t kFree = 0;  // addresses are entered plus one
  static constexpr size_t kFirstSlots = 1024;

  // Where `address` stands, or would.
  size_t SlotOf(uint64_t address) const {
    const size_t mask = addresses_.Size() - 1;
    size_t slot = (address * 0x9E3779B97F4A7C15ULL >> 20) & mask;
    while (addresses_[slot] != kFree && addresses_[slot] != address + 1) slot = (slot + 1) & mask;
    return slot;
  }

  void Grow() {
    AddressMap larger(*memory_);
    const size_t slots = addresses_.Size() == 0 ? kFirstSlots : 2 * addresses_.Size();
    larger.addresses_.GrowTo(slots);
    larger.numbers_.GrowTo(slots);
    for (size_t slot = 0; slot < addresses_.Size(); ++slot)
      if (addresses_[slot] != kFree) larger.Set(addresses_[slot] - 1, numbers_[slot]);
    addresses_ = std::move(larger.addresses_);
    numbers_ = std::move(larger.numbers_);
  }

  BigArray<uint64_t> addresses_;
  BigArray<uint32_t> numbers_;
  ArrayMemory* memory_;
  size_t count_ = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_ADDRESS_MAP_H_
