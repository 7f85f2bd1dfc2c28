// main of a fuzz program: one target under libFuzzer, in a private world of its own.
//
//   fuzz_NAME [--here] [libFuzzer's arguments]     --here: in the world that stands, for callers
//                                                  that are in a private one already
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/fuzz/target.h"
#include "tests/support/sandbox.h"

extern "C" int LLVMFuzzerRunDriver(int* argc, char*** argv,
                                   int (*take)(const uint8_t* data, size_t size));

namespace {

int Take(const uint8_t* data, size_t size) {
  static const ZorvTest::FuzzFunction take = ZorvTest::FuzzTargets().begin()->second;
  take(std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (ZorvTest::FuzzTargets().size() != 1) {
    fprintf(stderr, "fuzz: the program has not one target\n");
    return 2;
  }
  std::vector<char*> arguments(argv, argv + argc);
  const auto here = std::find_if(arguments.begin(), arguments.end(),
                                 [](const char* word) { return strcmp(word, "--here") == 0; });
  const bool worldStands = here != arguments.end();
  if (worldStands) arguments.erase(here);
  int count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  char** words = arguments.data();
  const auto run = [&] { return LLVMFuzzerRunDriver(&count, &words, &Take); };
  return worldStands ? run() : ZorvTest::RunInSandbox({ZORV_BINARY_DIR}, run);
}
