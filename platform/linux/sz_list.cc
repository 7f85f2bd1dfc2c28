// String lists: an array of copies that doubles when it is full.
#include "platform/linux/sz_list.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char kUnit[] = "platform/sz_list";

bool Grow(PLATSZLIST* list) {
  if (list->capacity > INT_MAX / 2) return false;
  const int capacity = list->capacity > 0 ? list->capacity * 2 : 1;
  void* items = realloc(list->items, static_cast<size_t>(capacity) * sizeof(char*));
  if (items == nullptr) return false;
  list->items = static_cast<char**>(items);
  list->capacity = capacity;
  return true;
}

bool Append(PLATSZLIST* list, const char* text) {
  const size_t size = strlen(text) + 1;
  char* copy = static_cast<char*>(malloc(size));
  if (copy == nullptr) return false;
  memcpy(copy, text, size);
  if (list->count >= list->capacity && !Grow(list)) {
    free(copy);
    return false;
  }
  list->items[list->count++] = copy;
  return true;
}

// Drops the strings from index `count` on.
void CutTo(PLATSZLIST* list, int count) {
  while (list->count > count) free(list->items[--list->count]);
}

}  // namespace

namespace ZorvPlatform {

int AppendAll(Site site, PLATSZLIST* list, const std::vector<std::string>& names) {
  const int before = list->count;
  for (const std::string& name : names) {
    if (Append(list, name.c_str())) continue;
    CutTo(list, before);
    return FailNoMemory(site);
  }
  return 0;
}

}  // namespace ZorvPlatform

using namespace ZorvPlatform;

PLATSZLIST* PLATCSzListAlloc(int capacity) {
  if (capacity < 1) {
    (void)Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
    return nullptr;
  }
  PLATSZLIST* list = static_cast<PLATSZLIST*>(malloc(sizeof(PLATSZLIST)));
  char** items = static_cast<char**>(calloc(static_cast<size_t>(capacity), sizeof(char*)));
  if (list == nullptr || items == nullptr) {
    free(list);
    free(items);
    (void)FailNoMemory(PLATFORM_HERE);
    return nullptr;
  }
  *list = {capacity, 0, items};
  return list;
}

int PLATCSzListPush(PLATSZLIST** list, const char* text) {
  if (list == nullptr || *list == nullptr || text == nullptr) {
    return Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
  }
  if (!Append(*list, text)) return FailNoMemory(PLATFORM_HERE);
  return (*list)->count - 1;
}

const char* PLATCSzListGet(const PLATSZLIST* list, int index) {
  if (list == nullptr || index < 0 || index >= list->count) {
    (void)Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
    return nullptr;
  }
  return list->items[index];
}

void PLATCSzListRemoveAll(PLATSZLIST* list) {
  if (list == nullptr) {
    (void)Fail(PLATFORM_HERE, PLATC_ERR_INVALID_ARGUMENT);
    return;
  }
  CutTo(list, 0);
}

void PLATCSzListFree(PLATSZLIST* list) {
  if (list == nullptr) return;
  CutTo(list, 0);
  free(list->items);
  free(list);
}
