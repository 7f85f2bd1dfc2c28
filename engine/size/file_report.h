// file_report.h: which files are behind what one subvolume holds alone.
#ifndef ENGINE_SIZE_FILE_REPORT_H_
#define ENGINE_SIZE_FILE_REPORT_H_

#include <cstdint>
#include <string>
#include <vector>

namespace ZorvEngine {

// What is to be listed.
struct FileListing {
  uint32_t most = 0;   // files, and folders, the largest; 0: files are not asked about
  uint32_t depth = 1;  // of folders: 1 are those in the subvolume's root
};

// Files, and the bytes that these have.
struct FileSum {
  uint64_t files = 0;
  uint64_t bytes = 0;
};

inline FileSum& operator+=(FileSum& sum, const FileSum& more) {
  sum.files += more.files;
  sum.bytes += more.bytes;
  return sum;
}

// What is known of a file with data that the subvolume holds alone.  Of an extent to which several
// of its files refer, the one with the lowest inode number has all bytes.
struct FileNumbers {
  uint64_t inode = 0;
  uint64_t bytes = 0;
  uint64_t sharedBytes = 0;  // of these, what other files of the subvolume refer to as well
  uint32_t sharers = 1;      // the most files that refer to one of its extents
  uint32_t names = 0;        // 0: unlinked
};

struct FileRow {
  FileNumbers numbers;
  std::string path;  // by the first name; empty: unlinked
};

// A folder with such files in it or below it.
struct FolderRow {
  FileSum sum;
  std::string path;
};

// A value: made by ExclusiveFiles, passed between processes, read by whoever prints it.
struct FileReport {
  FileSum all;
  FileSum unlinked;  // of all, those without a name
  std::vector<FileRow> largest;
  std::vector<FolderRow> folders;
};

}  // namespace ZorvEngine

#endif  // ENGINE_SIZE_FILE_REPORT_H_
