// Platform lists from texts and back, and the platform's error record as log lines show it.
#ifndef TESTS_SUPPORT_PLATFORM_VALUES_H_
#define TESTS_SUPPORT_PLATFORM_VALUES_H_

#include <stdio.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "base/sz_list.h"

namespace ZorvTest {

// A platform list with these strings.
inline ZorvBtrfsUsage::SzList ListOf(const std::vector<std::string>& texts) {
  ZorvBtrfsUsage::SzList list = ZorvBtrfsUsage::MakeSzList();
  for (const std::string& text : texts)
    if (PLATCSzListPush(ZorvBtrfsUsage::SzListRef(list), text.c_str()) < 0)
      throw std::runtime_error("no list");
  return list;
}

inline std::vector<std::string> TextsOf(const PLATSZLIST* list) {
  return {list->items, list->items + list->count};
}
inline std::vector<std::string> TextsOf(const ZorvBtrfsUsage::SzList& list) {
  return TextsOf(list.get());
}

// The tail of a line about a failed platform call, as the error record stands now.
inline std::string Tail() {
  char text[512];
  snprintf(text, sizeof text, "[0x%04X %s:%u]", PLATCErrGet(), PLATCErrorGetFile(),
           PLATCErrorGetLine());
  return text;
}

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_PLATFORM_VALUES_H_
