// Owner of a platform string list.
#ifndef CLI_STRING_LIST_H_
#define CLI_STRING_LIST_H_

#include <zorvplatform/platc.h>

#include <string>
#include <vector>

#include "cli/failure.h"

namespace ZorvSnapUsage {

// A list to hand to the library, freed when it goes.
class StringList {
 public:
  StringList() : list_(PLATCSzListAlloc(1024)) {
    if (list_ == nullptr) throw SystemFailure("out of memory");
  }
  ~StringList() { PLATCSzListFree(list_); }
  StringList(const StringList&) = delete;
  StringList& operator=(const StringList&) = delete;

  // For functions that fill the list and may move it.
  PLATSZLIST** Ref() { return &list_; }

  void Push(const std::string& text) {
    if (PLATCSzListPush(&list_, text.c_str()) < 0) throw SystemFailure("out of memory");
  }

  std::vector<std::string> Strings() const {
    return std::vector<std::string>(list_->items, list_->items + list_->count);
  }

 private:
  PLATSZLIST* list_;
};

}  // namespace ZorvSnapUsage

#endif  // CLI_STRING_LIST_H_
