#include "zorvbtrfssnapusage/signal_handler.h"
