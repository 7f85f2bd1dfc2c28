#include "zorvbtrfssnapusage/utils.h"
