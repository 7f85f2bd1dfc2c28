#include "zorvbtrfssnapusage/share_task_status.h"
