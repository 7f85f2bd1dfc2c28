// Where the engine's stand-in leaves its time: a timespec of CLOCK_MONOTONIC, as it lies in memory.
#ifndef BENCH_STARTED_AT_H_
#define BENCH_STARTED_AT_H_

namespace ZorvBench {

inline constexpr char kStartedAt[] = "/run/engine-started-at";

}  // namespace ZorvBench

#endif  // BENCH_STARTED_AT_H_
