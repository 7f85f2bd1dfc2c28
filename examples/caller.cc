// Prints what each snapshot of a share takes: caller SHARE
#include <signal.h>
#include <unistd.h>
#include <zorvbtrfssnapusage/share_snap_usage_cal.h>

#include <cstdio>

using namespace ZorvBtrfsUsage;

int main(int argc, char** argv) {
  const std::string share = argc > 1 ? argv[1] : "photos";
  ShareSnapUsageCal calculation;
  if (int code = calculation.CreateTask(share)) return code;  // 4: one is running
  if (int code = calculation.Launch(nullptr, nullptr)) return code;

  ShareTaskStatus status;
  status.Init(share, false);
  CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
  int pid = 0, error = -1;
  while (status.GetCalculatorStatus(state, error) == 0 && state < CAL_TASK_STATUS_FAIL) sleep(1);
  if (state != CAL_TASK_STATUS_DONE) return 1;
  // "done" comes before the results are copied: the process is gone when they are.
  while (status.GetStatusIntAttr(TASKSTATUS_ATTR_PID, pid) == 0 && kill(pid, 0) == 0) usleep(10000);

  std::vector<unsigned long long> bytes, ids;
  ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_RESULT, share, bytes);
  ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, share, ids);
  PLATSZLIST* names = PLATCSzListAlloc(16);
  ShareSnapUsageCal::FindSnapNameBySubvolID(share, ids, &names);
  for (int i = 0; i < names->count; ++i)
    printf("%llu %s\n", bytes[static_cast<size_t>(i)], PLATCSzListGet(names, i));
  PLATCSzListFree(names);
}
