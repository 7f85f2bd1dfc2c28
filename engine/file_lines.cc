#include "engine/file_lines.h"

#include <limits.h>

#include <algorithm>

#include "engine/name_text.h"

namespace ZorvEngine {
namespace {

// Gives `line` with a path behind it, which goes on in further lines where it does not fit.
bool GiveWithPath(std::string line, const std::string& path, const LineSink& sink) {
  const std::string text = NameText(path);
  for (size_t at = 0;;) {
    const size_t fits = std::min(text.size() - at, PIPE_BUF - 1 - line.size());
    if (!sink(line + text.substr(at, fits) + "\n")) return false;
    at += fits;
    if (at == text.size()) return true;
    line = "path also ";
  }
}

std::string Sum(const FileSum& sum) {
  return std::to_string(sum.files) + " data " + std::to_string(sum.bytes);
}

bool GiveFile(const FileRow& row, const LineSink& sink) {
  const FileNumbers& file = row.numbers;
  const std::string line = "file data " + std::to_string(file.bytes) + " shared " +
                           std::to_string(file.sharedBytes) + " by " +
                           std::to_string(file.sharers) + " inode " + std::to_string(file.inode) +
                           " names " + std::to_string(file.names);
  return file.names == 0 ? sink(line + "\n") : GiveWithPath(line + " path ", row.path, sink);
}

}  // namespace

bool GiveFileLines(const FileReport& report, uint64_t metadata, const LineSink& sink) {
  for (const FileRow& row : report.largest)
    if (!GiveFile(row, sink)) return false;
  for (const FolderRow& row : report.folders)
    if (!GiveWithPath("folder files " + Sum(row.sum) + " path ", row.path, sink)) return false;
  return sink("files " + Sum(report.all) + " metadata " + std::to_string(metadata) + " unlinked " +
              Sum(report.unlinked) + "\n");
}

}  // namespace ZorvEngine
