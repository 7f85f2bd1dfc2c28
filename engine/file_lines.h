// file_lines.h: the lines that say which files are behind a number.
#ifndef ENGINE_FILE_LINES_H_
#define ENGINE_FILE_LINES_H_

#include "engine/size/file_report.h"
#include "engine/table_lines.h"

namespace ZorvEngine {

// Gives a line for each listed file and folder, more when its path does not fit into one, and a
// last one with the sum over all files and `metadata`.  False when the sink was.
bool GiveFileLines(const FileReport& report, uint64_t metadata, const LineSink& sink);

}  // namespace ZorvEngine

#endif  // ENGINE_FILE_LINES_H_
