// Asks the engine which files are behind what one snapshot holds alone.
#ifndef CLI_ENGINE_FILES_H_
#define CLI_ENGINE_FILES_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ZorvSnapUsage {

// Files, and the bytes of data that these have.
struct FileSum {
  unsigned long long files = 0;
  unsigned long long data = 0;
};

struct ExplainedFile {
  unsigned long long inode = 0;
  unsigned long long data = 0;
  unsigned long long sharedData = 0;  // of these, what other files of the snapshot refer to too
  unsigned long long names = 0;
  std::optional<std::string> path;  // nothing: unlinked
};

struct ExplainedFolder {
  FileSum sum;
  std::string path;
};

struct Explanation {
  unsigned long long generation = 0;
  unsigned long long data = 0;
  unsigned long long metadata = 0;
  FileSum all;
  FileSum unlinked;
  std::vector<ExplainedFile> files;      // the largest first
  std::vector<ExplainedFolder> folders;  // likewise
};

// How much of it is wanted: so many files, and folders, these as deep as `depth`.
struct ExplanationSize {
  unsigned most = 20;
  unsigned depth = 1;
};

// The engine reads the state that the file system of `directory` has now. Gives up, with the
// engine's reason and what to do about it, when there is no answer, or one that cannot be read.
Explanation AskForFiles(const std::string& directory, unsigned long long subvolumeID,
                        const ExplanationSize& size);

// Reads the engine's document; throws JsonError.
Explanation ReadFilesDocument(std::string_view text, unsigned long long subvolumeID);

}  // namespace ZorvSnapUsage

#endif  // CLI_ENGINE_FILES_H_
