// address_map.h: a number for each of many addresses.
#ifndef ENGINE_SIZE_ADDRESS_MAP_H_
#define ENGINE_SIZE_ADDRESS_MAP_H_

#include <cstdint>
#include <optional>

#include "engine/io/array_memory.h"

namespace ZorvEngine {

// A hash table from logical addresses to 32-bit numbers: 32 to 64 bytes for each address, half as
// much again while it grows.  An address and its number lie side by side, so that a look-up waits
// for memory once.
class AddressMap {
 public:
  // The memory is the caller's and outlives the map.
  explicit AddressMap(ArrayMemory& memory) : slots_(memory), memory_(&memory) {}

  // Enters `number` for `address`, in place of an older one.  Throws NoArrayMemory.
  void Set(uint64_t address, uint32_t number) {
    if (2 * (count_ + 1) > slots_.Size()) Grow();
    Slot& slot = slots_[SlotOf(address)];
    if (slot.key == kFree) ++count_;
    slot = {address + 1, number};
  }

  // The number of `address`, if it has one.
  std::optional<uint32_t> Find(uint64_t address) const {
    if (count_ == 0) return std::nullopt;
    const Slot& slot = slots_[SlotOf(address)];
    if (slot.key == kFree) return std::nullopt;
    return slot.number;
  }

  size_t Count() const { return count_; }

 private:
  struct Slot {
    uint64_t key;  // the address plus one
    uint32_t number;
  };
  static constexpr uint64_t kFree = 0;
  static constexpr size_t kFirstSlots = 1024;

  // Where `address` stands, or would.
  size_t SlotOf(uint64_t address) const {
    const size_t mask = slots_.Size() - 1;
    size_t slot = (address * 0x9E3779B97F4A7C15ULL >> 20) & mask;
    while (slots_[slot].key != kFree && slots_[slot].key != address + 1) slot = (slot + 1) & mask;
    return slot;
  }

  void Grow() {
    AddressMap larger(*memory_);
    larger.slots_.GrowTo(slots_.Size() == 0 ? kFirstSlots : 2 * slots_.Size());
    for (const Slot& slot : slots_)
      if (slot.key != kFree) larger.Set(slot.key - 1, slot.number);
    slots_ = std::move(larger.slots_);
  }

  BigArray<Slot> slots_;
  ArrayMemory* memory_;
  size_t count_ = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_ADDRESS_MAP_H_
