#include "zorvbtrfssnapusage/share_snap_usage_cal.h"
