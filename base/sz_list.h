// Owner of a platform string list.
#ifndef BASE_SZ_LIST_H_
#define BASE_SZ_LIST_H_

#include <zorvplatform/platc.h>

#include <memory>

namespace ZorvBtrfsUsage {

struct SzListFree {
  void operator()(PLATSZLIST* list) const { PLATCSzListFree(list); }
};

// Frees its list when it goes. Functions that may move the list take `PLATSZLIST**`: use SzListRef.
using SzList = std::unique_ptr<PLATSZLIST, SzListFree>;

// All lists of the library start with this capacity.
inline constexpr int kSzListCapacity = 1024;

// Null when there is no memory; the caller logs.
inline SzList MakeSzList() { return SzList(PLATCSzListAlloc(kSzListCapacity)); }

// Lends an owned list to a function that takes `PLATSZLIST**` and may put another in its place:
//   PLATCSzListPush(SzListRef(names), text)
class SzListRef {
 public:
  explicit SzListRef(SzList& list) : list_(list), raw_(list.release()) {}
  ~SzListRef() { list_.reset(raw_); }
  SzListRef(const SzListRef&) = delete;
  SzListRef& operator=(const SzListRef&) = delete;
  operator PLATSZLIST**() { return &raw_; }

 private:
  SzList& list_;
  PLATSZLIST* raw_;
};

}  // namespace ZorvBtrfsUsage

#endif  // BASE_SZ_LIST_H_
