// Amounts of bytes as people write them.
#include "cli/byte_count.h"

#include <gtest/gtest.h>

using namespace ZorvSnapUsage;

TEST(ByteCount, Units) {
  const struct {
    const char* text;
    unsigned long long bytes;
  } kCases[] = {
      {"0", 0},
      {"1073741824", 1073741824},
      {"7B", 7},
      {"1K", 1024},
      {"2k", 2048},
      {"200G", 200ull << 30},
      {"512MiB", 512ull << 20},
      {"1.5T", 3ull << 39},
      {"0.5KiB", 512},
      {"200GB", 200000000000},
      {"1.25kB", 1250},
      {"3P", 3ull << 50},
      {"15E", 15ull << 60},
      {"18446744073709551615", 18446744073709551615ull},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.bytes, ParseByteCount(c.text)) << c.text;
}

TEST(ByteCount, WhatIsNone) {
  for (const char* text :
       {"",    "G",   "-1",   "+1",   "1 G", "1X",   "1GiBB", "1Gi",
        "1.G", ".5G", "1.5",  "1.5B", "1e3", "0x10", "16E",   "18446744073709551616",
        "nan", "inf", "1,5G", "1..5G"})
    EXPECT_FALSE(ParseByteCount(text)) << text;
}

TEST(ByteCount, OfThousandsOfDigits) {
  // What no floating-point number can hold once ended the program.
  EXPECT_EQ(std::nullopt, ParseByteCount(std::string(5000, '9')));
  EXPECT_EQ(std::nullopt, ParseByteCount(std::string(5000, '9') + "G"));
  EXPECT_EQ(0u, ParseByteCount("0." + std::string(5000, '0') + "1G"));
}
