#include "cli/share_path.h"

#include <fmt/format.h>

#include <filesystem>
#include <optional>
#include <system_error>

#include "cli/failure.h"
#include "cli/nearest.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

namespace fs = std::filesystem;

// The rest of `path` below `root`; nothing when it is not below it.
std::optional<fs::path> Below(const fs::path& path, const fs::path& root) {
  const fs::path relative = path.lexically_normal().lexically_relative(root.lexically_normal());
  if (relative.empty() || *relative.begin() == "..") return std::nullopt;
  return relative;
}

// With links resolved as far as there is something.
fs::path Resolved(const fs::path& path) {
  std::error_code error;
  const fs::path resolved = fs::weakly_canonical(path, error);
  return error ? path : resolved;
}

bool IsThere(const fs::path& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

std::vector<std::string> NamesIn(const fs::path& directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error))
    names.push_back(at->path().filename());
  return names;
}

}  // namespace

std::string PathInShare(const std::string& path, const std::string& share,
                        const std::string& sharePath) {
  const fs::path full = fs::path(sharePath) / path;  // an absolute path stays what it is
  std::optional<fs::path> below = Below(full, sharePath);
  if (!below) below = Below(Resolved(full), Resolved(sharePath));
  if (!below)
    throw Failure(kWrongUsage, fmt::format("{} is not in share {}", Quoted(path), Quoted(share)),
                  fmt::format("give a path from its root, or below {}", Quoted(sharePath)));
  const std::string text = *below;
  return text.size() > 1 && text.back() == '/' ? text.substr(0, text.size() - 1) : text;
}

std::string NearestPath(const std::string& path, const std::vector<std::string>& directories) {
  for (const std::string& directory : directories) {
    fs::path known;
    const fs::path wanted = path;
    for (auto name = wanted.begin(); name != wanted.end(); ++name) {
      if (IsThere(directory / known / *name)) {
        known /= *name;
        continue;
      }
      const std::optional<std::string> nearest = Nearest(*name, NamesIn(directory / known));
      if (!nearest) break;
      fs::path meant = known / *nearest;
      for (auto rest = std::next(name); rest != wanted.end(); ++rest) meant /= *rest;
      if (IsThere(directory / meant)) return meant;
      return known / *nearest;
    }
  }
  return "";
}

}  // namespace ZorvSnapUsage
