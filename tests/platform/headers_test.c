/* The interface used from C. */
#include <string.h>
#include <zorvplatform/share.h>

int UsePlatformFromC(void);

/* 0 when a few calls through each header do what they should. */
int UsePlatformFromC(void) {
  BOOL good = 1;
  time_t seconds = 0;
  PLATSZLIST* list = PLATCSzListAlloc(4);
  ZORVMOUNTVOLINFO info;
  good = good && PLATCSzListPush(&list, "from C") == 0;
  good = good && strcmp(PLATCSzListGet(list, 0), "from C") == 0 && list->count == 1;
  good = good && ZORVShareSnapTimeGet("GMT-1970.01.01-00.01.00", &seconds) == 0 && seconds == 60;
  good = good && ZORVMountVolInfoGet("/no/such/path", &info) < 0 && PLATCErrGet() == 0xBE00;
  PLATCSzListFree(list);
  return good ? 0 : 1;
}
