// The JSON store: what was read is read again after it was written, and a failed write changes
// nothing.
#include <json/value.h>

#include <filesystem>

#include "base/utf8.h"
#include "tests/fuzz/target.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::IsUtf8;
using ZorvBtrfsUsage::Utils;

namespace {

constexpr char kDir[] = "/tmp/json_store";
constexpr char kFile[] = "/tmp/json_store/file";
constexpr char kOld[] = "{\"old\":1}";

size_t FilesIn(const char* dir) {
  const std::filesystem::directory_iterator files(dir);
  return static_cast<size_t>(std::distance(begin(files), end(files)));
}

}  // namespace

FUZZ_TARGET(json_store) {
  std::filesystem::create_directory(kDir);
  PutFile(kFile, input);
  Json::Value value;
  if (!Utils::JsonFromFile(value, kFile)) {
    FUZZ_LAW(FileContent(kFile) == input);
    return;
  }
  FUZZ_LAW(Utils::GetJsonAttrByPath(kFile) == value);

  PutFile(kFile, kOld);
  if (!Utils::JsonToFile(value, kFile)) {
    FUZZ_LAW(FileContent(kFile) == kOld);
  } else {
    FUZZ_LAW(IsUtf8(FileContent(kFile)));
    Json::Value again;
    FUZZ_LAW(Utils::JsonFromFile(again, kFile));
    FUZZ_LAW(again == value);
  }
  FUZZ_LAW(FilesIn(kDir) == 1);
}
