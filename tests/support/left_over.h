// Nothing is left over: each test ends with the descriptors and the children that it began with.
#ifndef TESTS_SUPPORT_LEFT_OVER_H_
#define TESTS_SUPPORT_LEFT_OVER_H_

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace ZorvTest {

// The open descriptors of this process, each with what it leads to.
std::map<int, std::string> OpenDescriptors();

// The children of this process, each with the name of its program; those that have ended and were
// not waited for count as well.
std::map<int, std::string> Children();

// Fails a test that has left a descriptor open or a child behind. Ended orphans that came to a
// subreaper are nobody's fault and are waited for here.
class LeftOverIsFailure : public testing::EmptyTestEventListener {
 public:
  // Seconds that children get for their way out.
  explicit LeftOverIsFailure(double patience = 60) : patience_(patience) {}

 private:
  void OnTestStart(const testing::TestInfo&) override;
  void OnTestEnd(const testing::TestInfo&) override;

  const double patience_;
  std::map<int, std::string> descriptors_;
  std::map<int, std::string> children_;
};

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_LEFT_OVER_H_
