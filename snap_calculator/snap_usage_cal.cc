#include "zorvbtrfssnapusage/snap_usage_cal.h"
