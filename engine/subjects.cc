#include "engine/subjects.h"

#include <optional>
#include <unordered_set>

#include "engine/io/live_subvolumes.h"
#include "engine/ondisk/keys.h"

namespace ZorvEngine {
namespace {

// A path that does not open and looks like an ID was probably meant as one.
Status WithHint(const Status& status, const std::string& argument) {
  uint64_t id = 0;
  if (status.Ok() || !ParseSubvolumeId(argument, &id).Ok()) return status;
  return Status::Failed(status.Text() + "; to give subvolume IDs, add -r DIR");
}

}  // namespace

Status Subjects::Find(const Options& options, const NoteSink& note, MountedFilesystem* filesystem) {
  ENGINE_TRY(options.byId ? FindById(options, filesystem)
                          : FindByPath(options.arguments, filesystem));
  LeaveOutRepeats(note);
  return Status();
}

Status Subjects::FindByPath(const std::vector<std::string>& paths, MountedFilesystem* filesystem) {
  ENGINE_TRY(WithHint(filesystem->Open(paths[0]), paths[0]));
  for (const std::string& path : paths) {
    MountedFilesystem here;
    ENGINE_TRY(WithHint(here.Open(path), path));
    if (!here.SameAs(*filesystem))
      return Status::Failed(path + " is on another file system than " + paths[0] +
                            "; ask for them one after the other");
    uint64_t id = 0;
    ENGINE_TRY(here.SubvolumeHere(&id));
    ids_.push_back(id);
    paths_.emplace(id, path);
  }
  return Status();
}

// The plan comes first: what comes free in the asked order is always known.
Status Subjects::FindById(const Options& options, MountedFilesystem* filesystem) {
  ENGINE_TRY(filesystem->Open(options.directory));
  ids_ = options.forecast;
  for (const std::string& text : options.arguments) {
    uint64_t id = 0;
    ENGINE_TRY(ParseSubvolumeId(text, &id));
    ids_.push_back(id);
  }
  LiveSubvolumes live(filesystem->Directory());
  for (const uint64_t id : ids_)
    if (const std::optional<std::string> path = live.PathOf(id)) paths_.emplace(id, *path);
  return Status();
}

// Leaves each number at its first place; says each repeated one once.
void Subjects::LeaveOutRepeats(const NoteSink& note) {
  std::vector<uint64_t> unique;
  std::unordered_set<uint64_t> seen;
  std::unordered_set<uint64_t> said;
  for (const uint64_t id : ids_) {
    if (seen.insert(id).second)
      unique.push_back(id);
    else if (said.insert(id).second)
      note("subvolume " + std::to_string(id) + " is given more than once; it counts once");
  }
  ids_ = std::move(unique);
}

Status Subjects::Explain(const MountedFilesystem& filesystem, const Status& failure) const {
  const LiveSubvolumes live(filesystem.Directory());
  for (const auto& [id, path] : paths_)
    if (live.IsGone(id))
      return Status::Failed("subvolume " + std::to_string(id) + " (" + path +
                            ") was deleted meanwhile; ask again without it (" + failure.Text() +
                            ")");
  return failure;
}

}  // namespace ZorvEngine
