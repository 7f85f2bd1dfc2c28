// ScopedUmask sets the mask and puts the old one back.
#include "base/scoped_umask.h"

#include <gtest/gtest.h>

using ZorvBtrfsUsage::ScopedUmask;

namespace {

mode_t CurrentMask() {
  const mode_t mask = umask(0);
  umask(mask);
  return mask;
}

}  // namespace

TEST(ScopedUmask, HoldsForItsScope) {
  umask(027);
  {
    const ScopedUmask tight(077);
    EXPECT_EQ(077u, CurrentMask());
    {
      const ScopedUmask open(0);
      EXPECT_EQ(0u, CurrentMask());
    }
    EXPECT_EQ(077u, CurrentMask());
  }
  EXPECT_EQ(027u, CurrentMask());
  umask(022);
}
