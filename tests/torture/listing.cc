#include "tests/torture/listing.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

namespace ZorvTest {
namespace {

namespace fs = std::filesystem;

std::string TimeOf(const timespec& time) {
  return std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec);
}

std::string LookOf(const std::string& path) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) return "gone";
  std::string look;
  for (const unsigned long long number : {static_cast<unsigned long long>(status.st_mode),
                                          static_cast<unsigned long long>(status.st_uid),
                                          static_cast<unsigned long long>(status.st_gid),
                                          static_cast<unsigned long long>(status.st_size),
                                          static_cast<unsigned long long>(status.st_nlink),
                                          static_cast<unsigned long long>(status.st_ino)})
    look += std::to_string(number) + " ";
  return look + TimeOf(status.st_mtim) + " " + TimeOf(status.st_ctim);
}

void Add(const std::string& path, const std::vector<std::string>& without, Listing* listing) {
  if (std::find(without.begin(), without.end(), path) != without.end()) return;
  (*listing)[path] = LookOf(path);
  std::error_code none;
  if (!fs::is_directory(fs::symlink_status(path, none))) return;
  for (const auto& entry : fs::directory_iterator(path, none)) Add(entry.path(), without, listing);
}

}  // namespace

Listing List(const std::vector<std::string>& trees, const std::vector<std::string>& without) {
  Listing listing;
  for (const std::string& tree : trees) Add(tree, without, &listing);
  return listing;
}

std::string Difference(const Listing& before, const Listing& after) {
  std::string text;
  for (const auto& [path, look] : before) {
    const auto now = after.find(path);
    if (now == after.end())
      text += path + " is gone\n";
    else if (now->second != look)
      text += path + " was " + look + ", is " + now->second + "\n";
  }
  for (const auto& [path, look] : after)
    if (before.find(path) == before.end()) text += path + " is new\n";
  return text;
}

}  // namespace ZorvTest
