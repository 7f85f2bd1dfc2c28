// Laws of a map of chunks, whatever it was made of.
#ifndef TESTS_FUZZ_CHUNK_LAWS_H_
#define TESTS_FUZZ_CHUNK_LAWS_H_

#include <vector>

#include "engine/io/chunk_map.h"
#include "tests/fuzz/target.h"

namespace ZorvTest {

// Every address that a chunk holds is found on a device, and no address outside.
inline void LookUpEverywhere(const ZorvEngine::ChunkMap& map) {
  using namespace ZorvEngine;
  constexpr uint64_t kBlock = 4096;
  std::vector<Redundancy> redundancies;
  uint64_t end = 0;
  for (const RedundantRange& range : map.RedundantRanges(&redundancies)) {
    FUZZ_LAW(range.begin >= end && range.end > range.begin);
    FUZZ_LAW(range.redundancy < redundancies.size());
    if (range.begin > end) FUZZ_LAW(map.Find(end, 1).Empty());
    end = range.end;

    const Redundancy& redundancy = redundancies[range.redundancy];
    FUZZ_LAW(redundancy.dataStripes > 0 && redundancy.dataStripes <= redundancy.stripes);
    for (const uint64_t at :
         {range.begin, range.begin + (range.end - range.begin) / 2, range.end - 1}) {
      FUZZ_LAW(!map.Find(at, 1).Empty());
      (void)map.Find(at, kBlock);
    }
    FUZZ_LAW(map.Find(range.end - 1, 2).Empty());
  }
  for (const uint64_t kind : {kChunkData, kChunkSystem, kChunkMetadata}) {
    uint64_t before = 0;
    for (const LogicalRange& range : map.Ranges(kind)) {
      FUZZ_LAW(range.begin >= before && range.end > range.begin);
      before = range.end;
    }
  }
  map.EachMetadataCopies([](uint64_t, const std::vector<uint64_t>& devices) {
    FUZZ_LAW(!devices.empty() && devices.size() <= Places::kMost);
  });
}

// A refusal says why, and names the chunk.
inline void ExpectReason(const ZorvEngine::Status& refused, uint64_t logical) {
  FUZZ_LAW(refused.Text().find("chunk at " + std::to_string(logical)) != std::string::npos);
}

}  // namespace ZorvTest

#endif  // TESTS_FUZZ_CHUNK_LAWS_H_
