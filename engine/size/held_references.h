// held_references.h: references to addresses, each with who holds what refers to them.
#ifndef ENGINE_SIZE_HELD_REFERENCES_H_
#define ENGINE_SIZE_HELD_REFERENCES_H_

#include <cstdint>

#include "engine/io/array_memory.h"
#include "engine/size/holder_sets.h"

namespace ZorvEngine {

// `count` references to `bytenr` by something that `holder` holds.
struct HeldReference {
  uint64_t bytenr;
  HolderId holder;
  uint32_t count;
};

// References that are collected in any order and then taken by rising addresses.
class HeldReferences {
 public:
  // The memory is the caller's and outlives the object.
  explicit HeldReferences(ArrayMemory& memory) : memory_(&memory), references_(memory) {}

  // Throws NoArrayMemory.
  void Add(const HeldReference& reference) { references_.Add(reference); }

  // To be called once, after the last Add.  Needs the same memory again while it sorts.
  // Throws NoArrayMemory.
  void Sort();

  // Gives the references to `bytenr` to `visit`; not below the address of the call before.
  template <typename Visit>
  void Take(uint64_t bytenr, const Visit& visit) {
    while (next_ < references_.Size() && references_[next_].bytenr < bytenr) ++next_;
    for (; next_ < references_.Size() && references_[next_].bytenr == bytenr; ++next_)
      visit(references_[next_]);
  }

  // Gives the memory back.
  void Clear() { references_.Clear(); }

 private:
  void SortByDigit(int shift, BigArray<HeldReference>* room);

  ArrayMemory* memory_;
  BigArray<HeldReference> references_;
  size_t next_ = 0;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_HELD_REFERENCES_H_
