// Conditions on snapshot names.
#ifndef PLATFORM_LINUX_SELECTOR_H
#define PLATFORM_LINUX_SELECTOR_H

#include "zorvplatform/share.h"

namespace ZorvPlatform {

// Whether the name passes all conditions.  1, 0, or negative: one of them failed, with its error
// record.
int PassesAll(const ZORVSHARESNAPSELECTOR* selectors, const char* snapName);

}  // namespace ZorvPlatform

#endif
