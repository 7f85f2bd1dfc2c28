// A private copy of the machine for one test program or one demonstration.
//
// The product's paths are fixed, so the world is changed instead: own mount and process namespaces,
// a copy-on-write root (overlay over "/", the changes in memory), fresh /run, /tmp and /dev. All of
// it, with loop devices and left-over processes, goes when the body ends. Needs root.
#ifndef TESTS_SUPPORT_SANDBOX_H_
#define TESTS_SUPPORT_SANDBOX_H_

#include <functional>
#include <string>
#include <vector>

namespace ZorvTest {

// Runs `body` in a private world and returns its exit status (128 + signal when it was killed).
// `binds` are directories of the host that keep their content and are written through.
// 125: the world could not be made; the reason is on standard error.
int RunInSandbox(const std::vector<std::string>& binds, const std::function<int()>& body);

// Whether this process is in a private world already.
bool IsInSandbox();

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_SANDBOX_H_
