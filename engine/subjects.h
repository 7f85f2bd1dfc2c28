// subjects.h: the subvolumes that a command line is about.
#ifndef ENGINE_SUBJECTS_H_
#define ENGINE_SUBJECTS_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "engine/io/mounted_filesystem.h"
#include "engine/options.h"
#include "engine/size/newest_state_run.h"

namespace ZorvEngine {

// The subvolumes asked about, and what they were called when they were.
class Subjects {
 public:
  // Finds them: those of the plan first, then the arguments, each once; says repeats to `note`.
  // `filesystem` becomes theirs, also when something after that fails.  Whether IDs exist in a
  // committed state is not looked at.
  Status Find(const Options& options, const NoteSink& note, MountedFilesystem* filesystem);

  const std::vector<uint64_t>& Ids() const { return ids_; }

  // The failure of a run about them.  When one of them was there at Find and is not now, it is
  // named as the reason, with `failure` behind it; else `failure`.
  Status Explain(const MountedFilesystem& filesystem, const Status& failure) const;

 private:
  Status FindByPath(const std::vector<std::string>& paths, MountedFilesystem* filesystem);
  Status FindById(const Options& options, MountedFilesystem* filesystem);
  void LeaveOutRepeats(const NoteSink& note);

  std::vector<uint64_t> ids_;
  std::map<uint64_t, std::string> paths_;  // of those that are there
};

}  // namespace ZorvEngine

#endif  // ENGINE_SUBJECTS_H_
