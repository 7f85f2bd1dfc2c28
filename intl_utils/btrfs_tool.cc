#include "zorvbtrfssnapusage/btrfs_tool.h"
