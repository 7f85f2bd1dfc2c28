// A word about work that takes a while.
#ifndef CLI_PATIENCE_H_
#define CLI_PATIENCE_H_

#include <chrono>
#include <string>

namespace ZorvSnapUsage {

// Says once on standard error what is being done and how to end it, when it takes over two seconds.
class Patience {
 public:
  // Nothing is said when `quiet`.
  explicit Patience(std::string work, bool quiet = false);

  void Tick();

 private:
  const std::string work_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  bool said_;
};

}  // namespace ZorvSnapUsage

#endif  // CLI_PATIENCE_H_
