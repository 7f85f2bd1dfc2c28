// Seeds for the decoders of the engine, made of file systems instead of being kept as bytes.
#ifndef TESTS_FUZZ_ENGINE_SEEDS_H_
#define TESTS_FUZZ_ENGINE_SEEDS_H_

#include <map>
#include <set>
#include <string>

namespace ZorvTest {

// Inputs by target.
using SeedsByTarget = std::map<std::string, std::set<std::string>>;

// Seeds of a random file system in memory, whose subvolumes share blocks in many ways, and of the
// real one in `image` (a file that mkfs.btrfs made, with nodes of 4 KiB).
SeedsByTarget MakeEngineSeeds(const std::string& image);

}  // namespace ZorvTest

#endif  // TESTS_FUZZ_ENGINE_SEEDS_H_
