#include "zorvbtrfssnapusage/task_status.h"
