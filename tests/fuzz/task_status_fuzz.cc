// The status file of a task with any content.
#include "tests/fuzz/status_laws.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

FUZZ_TARGET(task_status) {
  TaskStatus status;
  FUZZ_LAW(status.Init("fuzz", /*create=*/false));
  const std::string path = TaskStatus::GetFilePath("fuzz");
  PutFile(path, input);
  ReadEverything(status);
  FUZZ_LAW(FileContent(path) == input);
  ChangeOneMember(status, path);
}
