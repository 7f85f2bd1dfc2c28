#include "cli/patience.h"

#include "cli/standard_streams.h"

namespace ZorvSnapUsage {

Patience::Patience(std::string work, bool quiet) : work_(std::move(work)), said_(quiet) {}

void Patience::Tick() {
  if (said_ || std::chrono::steady_clock::now() - begin_ < std::chrono::seconds(2)) return;
  ToStandardError("zorv-snapusage: " + work_ + " (Ctrl-C ends it)\n");
  said_ = true;
}

}  // namespace ZorvSnapUsage
