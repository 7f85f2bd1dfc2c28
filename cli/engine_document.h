// Asks the engine for a JSON document.
#ifndef CLI_ENGINE_DOCUMENT_H_
#define CLI_ENGINE_DOCUMENT_H_

#include <fmt/format.h>

#include <string>
#include <vector>

#include "cli/failure.h"
#include "cli/json_reader.h"
#include "cli/text.h"

namespace ZorvSnapUsage {

struct DocumentQuestion {
  std::vector<std::string> options;
  std::string directory;  // on the file system
  std::vector<unsigned long long> subvolumeIDs;
  size_t mostOutput;   // bytes
  bool quiet = false;  // does not say that it takes a while
};

// The document that answers it. The engine reads the state that the file system has now; that may
// take minutes, and it may wait for other runs, which is said on standard error. Gives up, with the
// engine's reason and what to do about it, when there is none.
std::string AskEngine(const DocumentQuestion& question);

// Calls `read`, whose complaints become a failure.
template <typename Read>
auto Understood(const Read& read) {
  try {
    return read();
  } catch (const JsonError& error) {
    throw Failure(kNotAnEngine,
                  fmt::format("the engine's answer cannot be read ({})", Escaped(error.what())),
                  "install the engine that belongs to this program");
  }
}

}  // namespace ZorvSnapUsage

#endif  // CLI_ENGINE_DOCUMENT_H_
