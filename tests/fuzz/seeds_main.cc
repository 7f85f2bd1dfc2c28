// fuzz_seeds: writes the seeds of the engine's decoders, one file each, below DIR/<target>/.
#include <stdio.h>

#include <exception>
#include <filesystem>

#include "tests/fuzz/engine_seeds.h"
#include "tests/fuzz/target.h"

int main(int argc, char** argv) try {
  if (argc != 3) {
    fprintf(stderr, "usage: fuzz_seeds IMAGE DIR\n");
    return 2;
  }
  for (const auto& [target, seeds] : ZorvTest::MakeEngineSeeds(argv[1])) {
    const std::string directory = std::string(argv[2]) + "/" + target;
    std::filesystem::create_directories(directory);
    size_t number = 0;
    for (const std::string& seed : seeds)
      ZorvTest::PutFile(directory + "/made-" + std::to_string(++number), seed);
  }
  return 0;
} catch (const std::exception& e) {
  fprintf(stderr, "fuzz_seeds: %s\n", e.what());
  return 1;
}
