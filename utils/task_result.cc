#include "zorvbtrfssnapusage/task_result.h"
