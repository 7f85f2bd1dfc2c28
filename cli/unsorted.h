// The format of a second table, beside the one that is sorted as asked.
#ifndef CLI_UNSORTED_H_
#define CLI_UNSORTED_H_

#include "cli/output_format.h"

namespace ZorvSnapUsage {

// The same format without its order.
inline OutputFormat Unsorted(const OutputFormat& format) {
  OutputFormat unsorted;
  unsorted.json = format.json;
  unsorted.plain = format.plain;
  unsorted.color = format.color;
  unsorted.units = format.units;
  return unsorted;
}

}  // namespace ZorvSnapUsage

#endif  // CLI_UNSORTED_H_
