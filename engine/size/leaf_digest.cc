#include "engine/size/leaf_digest.h"

#include <algorithm>
#include <string>

#include "engine/size/file_extents.h"

namespace ZorvEngine {
namespace {

// Addresses are multiples of the sector size, which is 4096 at least: the low bits are free.
constexpr uint64_t kLowBits = 4095;

// The first word of an extent: its address and these.  Then its length or generation, a word with
// its references and the number of words of its parents, the references found when they are not
// all, those from moving data when there are any, and the parents.
constexpr uint64_t kLevelBits = 15;
constexpr uint64_t kTreeBlockBit = 1 << 4;
constexpr uint64_t kFullBackrefBit = 1 << 5;
constexpr uint64_t kOutsideBit = 1 << 6;
constexpr uint64_t kAskedBit = 1 << 7;
constexpr uint64_t kContinuedBit = 1 << 8;
constexpr uint64_t kPartialBit = 1 << 9;
constexpr uint64_t kMovingBit = 1 << 10;

// A leaf of 64 KiB has room for a few thousand references, so that few bits tell their words.
constexpr int kParentBits = 20;
constexpr uint64_t kMostParentWords = (1 << kParentBits) - 1;
constexpr uint64_t kMostRefs = UINT64_MAX >> kParentBits;

bool IsFlag(uint64_t word, uint64_t bit) { return (word & bit) != 0; }

uint64_t FlagIf(bool set, uint64_t bit) { return set ? bit : 0; }

// Makes the digest of one leaf of the extent tree.
class Digester {
 public:
  Digester(const DigestFilter& filter, Words* out) : filter_(filter), out_(*out) {}

  // Takes an extent; null when there is none.  Returns what is wrong with it.
  const char* Take(const ExtentRecord* extent) {
    if (extent == nullptr) return nullptr;
    if ((extent->bytenr & kLowBits) != 0) return "an extent lies at an impossible address";
    if (extent->refs > kMostRefs) return "an extent has an impossible number of references";
    if (const char* wrong = Sort(*extent)) return wrong;
    if (IsWorthKeeping(*extent)) Append(*extent);
    return nullptr;
  }

 private:
  // Finds out who holds the extent by name, and which blocks do, unless somebody outside has been
  // found who settles it: names come before blocks.
  const char* Sort(const ExtentRecord& extent) {
    const bool settles = !IsPartial(extent) && !extent.isTreeBlock;
    outside_ = asked_ = matters_ = false;
    moving_ = 0;
    parents_.clear();
    for (const ExtentReference& ref : extent.references) {
      if (ref.kind == ExtentReference::kTree || ref.kind == ExtentReference::kFile) {
        const bool asked = std::ranges::binary_search(filter_.asked, ref.holder);
        asked_ = asked_ || asked;
        outside_ = outside_ || !asked;
        if (ref.holder == kDataRelocationTreeId) moving_ += ref.count;
        continue;
      }
      if ((ref.holder & kLowBits) != 0) return "a reference comes from an impossible address";
      if (outside_ && settles) continue;
      matters_ = matters_ || ref.kind == ExtentReference::kBlock || !filter_.leafMatters ||
                 filter_.leafMatters(ref.holder);
      AppendCounted({ref.holder, ref.count}, &parents_);
    }
    return parents_.size() > kMostParentWords ? "an extent has too many references" : nullptr;
  }

  // What the next leaf may go on with is kept whatever it is.
  bool IsWorthKeeping(const ExtentRecord& extent) const {
    if (IsPartial(extent) || moving_ != 0) return true;
    if (outside_) return extent.isTreeBlock && !parents_.empty();
    return extent.isTreeBlock || asked_ || matters_;
  }

  static bool IsPartial(const ExtentRecord& extent) {
    return extent.continued || extent.found != extent.refs;
  }

  void Append(const ExtentRecord& extent) {
    const bool known = !extent.continued;
    const bool partial = IsPartial(extent);
    const bool treeBlock = known && extent.isTreeBlock;
    out_.push_back(
        extent.bytenr | (treeBlock ? extent.level : 0) | FlagIf(treeBlock, kTreeBlockBit) |
        FlagIf(known && extent.fullBackref, kFullBackrefBit) | FlagIf(outside_, kOutsideBit) |
        FlagIf(asked_, kAskedBit) | FlagIf(extent.continued, kContinuedBit) |
        FlagIf(partial, kPartialBit) | FlagIf(moving_ != 0, kMovingBit));
    out_.push_back(!known ? 0 : treeBlock ? extent.generation : extent.length);
    out_.push_back((known ? extent.refs << kParentBits : 0) | parents_.size());
    if (partial) out_.push_back(extent.found);
    if (moving_ != 0) out_.push_back(moving_);
    out_.insert(out_.end(), parents_.begin(), parents_.end());
  }

  const DigestFilter& filter_;
  Words& out_;
  bool outside_ = false;
  bool asked_ = false;
  bool matters_ = false;
  uint64_t moving_ = 0;
  Words parents_;
};

uint64_t TakeWord(WordSpan* words) {
  const uint64_t word = words->front();
  *words = words->subspan(1);
  return word;
}

// Takes the first extent of a digest off it.
ExtentDigest TakeExtentWords(WordSpan* words) {
  const uint64_t head = (*words)[0];
  const uint64_t size = (*words)[2];
  ExtentDigest extent;
  extent.bytenr = head & ~kLowBits;
  extent.isTreeBlock = IsFlag(head, kTreeBlockBit);
  extent.fullBackref = IsFlag(head, kFullBackrefBit);
  extent.outside = IsFlag(head, kOutsideBit);
  extent.asked = IsFlag(head, kAskedBit);
  extent.continued = IsFlag(head, kContinuedBit);
  extent.level = static_cast<uint8_t>(head & kLevelBits);
  (extent.isTreeBlock ? extent.generation : extent.length) = (*words)[1];
  extent.refs = size >> kParentBits;
  *words = words->subspan(3);
  extent.found = IsFlag(head, kPartialBit) ? TakeWord(words) : extent.refs;
  extent.moving = IsFlag(head, kMovingBit) ? TakeWord(words) : 0;
  extent.parents = words->first(size & kMostParentWords);
  *words = words->subspan(size & kMostParentWords);
  return extent;
}

}  // namespace

void AppendCounted(const CountedAddress& address, Words* words) {
  const bool fits = address.count > 0 && address.count <= kLowBits;
  words->push_back(address.bytenr | (fits ? address.count : 0));
  if (!fits) words->push_back(address.count);
}

CountedAddress TakeCounted(WordSpan* words) {
  const uint64_t word = words->front();
  CountedAddress address{word & ~kLowBits, word & kLowBits};
  const bool fits = address.count != 0;
  if (!fits) address.count = (*words)[1];
  *words = words->subspan(fits ? 1 : 2);
  return address;
}

Status ExtentTreeDamaged(uint64_t bytenr, const char* what) {
  return Status::Failed("the extent tree is damaged at " + std::to_string(bytenr) + ": " + what +
                        "; run btrfs scrub and btrfs check");
}

Status DigestExtentLeaf(const TreeBlockView& leaf, uint32_t nodeSize, const DigestFilter& filter,
                        Words* out) {
  ExtentAssembler assembler(nodeSize);
  Digester digester(filter, out);
  const ExtentRecord* ended = nullptr;
  for (uint32_t slot = 0; slot < leaf.Count(); ++slot) {
    const Key key = leaf.KeyAt(slot);
    const char* wrong = assembler.Take(key, leaf.DataAt(slot), &ended);
    if (wrong == nullptr) wrong = digester.Take(ended);
    if (wrong != nullptr) return ExtentTreeDamaged(key.objectid, wrong);
  }
  const char* wrong = assembler.Finish(&ended);
  if (wrong == nullptr) wrong = digester.Take(ended);
  return wrong == nullptr ? Status()
                          : ExtentTreeDamaged(leaf.KeyAt(leaf.Count() - 1).objectid, wrong);
}

Status DigestOwnBlock(const TreeBlockView& block, Words* out) {
  Words addresses;
  if (block.IsLeaf())
    ENGINE_TRY(VisitFileExtents(
        block, [&](const FileExtent& extent) { addresses.push_back(extent.bytenr); }));
  else
    for (uint32_t slot = 0; slot < block.Count(); ++slot)
      addresses.push_back(block.PointerAt(slot).bytenr.Get());

  std::ranges::sort(addresses);
  for (size_t at = 0; at < addresses.size();) {
    const uint64_t bytenr = addresses[at];
    size_t end = at;
    while (end < addresses.size() && addresses[end] == bytenr) ++end;
    if ((bytenr & kLowBits) != 0)
      return Status::Failed("tree block " + std::to_string(block.Header().bytenr.Get()) +
                            " refers to an impossible address; run btrfs check");
    AppendCounted({bytenr, end - at}, out);
    at = end;
  }
  return Status();
}

Status ExtentJoiner::Take(WordSpan digest) {
  while (!digest.empty()) ENGINE_TRY(TakeExtent(TakeExtentWords(&digest)));
  return Status();
}

Status ExtentJoiner::TakeAfterGap(WordSpan digest) {
  pending_ = false;
  WordSpan rest = digest;
  if (!rest.empty() && TakeExtentWords(&rest).continued) return Take(rest);
  return Take(digest);
}

Status ExtentJoiner::TakeExtent(const ExtentDigest& extent) {
  if (extent.continued) return Continue(extent);
  ENGINE_TRY(Finish());
  if (extent.bytenr < lowest_) return ExtentTreeDamaged(extent.bytenr, "extents are out of order");
  lowest_ = extent.bytenr + 1;
  if (extent.found == extent.refs) return sink_(extent);
  pending_ = true;
  open_ = extent;
  openParents_.assign(extent.parents.begin(), extent.parents.end());
  return Status();
}

Status ExtentJoiner::Continue(const ExtentDigest& more) {
  if (!pending_ || open_.bytenr != more.bytenr)
    return ExtentTreeDamaged(more.bytenr, "a reference without an extent");
  open_.found += more.found;
  open_.moving += more.moving;
  open_.outside = open_.outside || more.outside;
  open_.asked = open_.asked || more.asked;
  openParents_.insert(openParents_.end(), more.parents.begin(), more.parents.end());
  return open_.found == open_.refs ? Finish() : Status();
}

Status ExtentJoiner::Finish() {
  if (!pending_) return Status();
  pending_ = false;
  if (open_.found != open_.refs)
    return ExtentTreeDamaged(open_.bytenr,
                             "the references found are not as many as the item counts");
  open_.parents = openParents_;
  return sink_(open_);
}

}  // namespace ZorvEngine
