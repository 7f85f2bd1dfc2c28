// Amounts of bytes as people or programs read them.
#include "cli/units.h"

#include <gtest/gtest.h>

using namespace ZorvSnapUsage;

namespace {

TEST(BytesText, EachUnit) {
  const struct {
    unsigned long long bytes;
    const char* iec;
    const char* si;
  } cases[] = {
      {0, "0 B", "0 B"},
      {999, "999 B", "999 B"},
      {1000, "1000 B", "1.00 kB"},
      {1023, "1023 B", "1.02 kB"},
      {1024, "1.00 KiB", "1.02 kB"},
      {1280, "1.25 KiB", "1.28 kB"},
      {999994, "976.56 KiB", "999.99 kB"},
      {999996, "976.56 KiB", "1.00 MB"},
      {1048575, "1.00 MiB", "1.05 MB"},
      {1ull << 40, "1.00 TiB", "1.10 TB"},
      {~0ull, "16.00 EiB", "18.45 EB"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.iec, BytesText(c.bytes, Units::kIec));
    EXPECT_EQ(c.si, BytesText(c.bytes, Units::kSi));
    EXPECT_EQ(std::to_string(c.bytes), BytesText(c.bytes, Units::kRaw));
  }
}

}  // namespace
