// Time zones for targets that read local times.
#ifndef TESTS_FUZZ_TIME_ZONES_H_
#define TESTS_FUZZ_TIME_ZONES_H_

#include <stdint.h>
#include <stdlib.h>
#include <time.h>

#include <iterator>

namespace ZorvTest {

// Sets one of a few zones: without and with summer time, with minutes, at both ends of the day.
inline void SetZone(uint64_t number) {
  static constexpr const char* kZones[] = {"UTC0",
                                           "CET-1CEST,M3.5.0,M10.5.0/3",
                                           "NST3:30NDT,M3.2.0,M11.1.0",
                                           "<+0545>-5:45",
                                           "<+14>-14",
                                           "<-12>12"};
  setenv("TZ", kZones[number % std::size(kZones)], 1);
  tzset();
}

}  // namespace ZorvTest

#endif  // TESTS_FUZZ_TIME_ZONES_H_
