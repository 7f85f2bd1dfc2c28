// Marks what the shared library exports; everything else in it is hidden.
#ifndef ZORVBTRFSSNAPUSAGE_EXPORT_H_
#define ZORVBTRFSSNAPUSAGE_EXPORT_H_

#define ZORV_EXPORT __attribute__((visibility("default")))

#endif  // ZORVBTRFSSNAPUSAGE_EXPORT_H_
