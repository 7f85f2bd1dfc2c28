#include "cli/units.h"

#include <fmt/format.h>

#include <iterator>

namespace ZorvSnapUsage {
namespace {

constexpr const char* kIecNames[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
constexpr const char* kSiNames[] = {"B", "kB", "MB", "GB", "TB", "PB", "EB"};
static_assert(std::size(kIecNames) == std::size(kSiNames));

std::string WithUnit(unsigned long long bytes, unsigned base, const char* const* names) {
  if (bytes < base) return fmt::format("{} {}", bytes, names[0]);
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  // Compared with what would be printed as 1024.00, so that 1023.999 MiB reads 1.00 GiB.
  while (value >= base - 0.005 && unit + 1 < std::size(kIecNames)) {
    value /= base;
    ++unit;
  }
  return fmt::format("{:.2f} {}", value, names[unit]);
}

}  // namespace

std::string BytesText(unsigned long long bytes, Units units) {
  switch (units) {
    case Units::kRaw:
      return std::to_string(bytes);
    case Units::kSi:
      return WithUnit(bytes, 1000, kSiNames);
    default:
      return WithUnit(bytes, 1024, kIecNames);
  }
}

}  // namespace ZorvSnapUsage
