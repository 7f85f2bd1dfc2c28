// Why the engine failed, in words, and what to do about it.
#ifndef CLI_ENGINE_FAILURE_H_
#define CLI_ENGINE_FAILURE_H_

#include <string>

#include "cli/failure.h"

namespace ZorvSnapUsage {

// The failure of `what`, such as "the plan", for the reason that the engine at `place` gave;
// `directory` lies on the file system that it was asked about.
Failure EngineFailure(const std::string& what, const std::string& reason, const char* place,
                      const std::string& directory);

}  // namespace ZorvSnapUsage

#endif  // CLI_ENGINE_FAILURE_H_
