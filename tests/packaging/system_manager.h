// systemd as the first process of a machine, in namespaces of its own inside the private world.
#ifndef TESTS_PACKAGING_SYSTEM_MANAGER_H_
#define TESTS_PACKAGING_SYSTEM_MANAGER_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/command.h"

namespace ZorvTest {

// Boots to where units can be started; ends with all that it runs when it goes. It knows the units
// of the packages, and of the system's own targets only their names: nothing else is started.
// It keeps mounts of its own: a volume is free only once it has gone.
class SystemManager {
 public:
  SystemManager();
  ~SystemManager();
  SystemManager(const SystemManager&) = delete;
  SystemManager& operator=(const SystemManager&) = delete;

  // Runs a program on that machine.
  CommandResult Run(const std::vector<std::string>& argv) const;

 private:
  void JoinAndBoot() const;
  void End();

  // Its own part of the tree of control groups.
  const std::string group_;
  pid_t outer_ = -1;  // unshare, whose child is the manager
};

}  // namespace ZorvTest

#endif  // TESTS_PACKAGING_SYSTEM_MANAGER_H_
