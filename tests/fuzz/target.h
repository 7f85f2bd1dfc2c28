// What the fuzz targets share: each is one function that takes any bytes, gives them to a reader of
// the product, and ends the program when a law is broken that the reader must keep.
//
// The same functions are run by libFuzzer (fuzz_main.cc, one program a target) and, over the seeds
// and changes of them, by an ordinary test (corpus_test.cc).
#ifndef TESTS_FUZZ_TARGET_H_
#define TESTS_FUZZ_TARGET_H_

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <string>
#include <string_view>

namespace ZorvTest {

// Takes one input. It may be called any number of times in one process.
using FuzzFunction = void (*)(std::string_view input);

// The targets that are linked into the program, by name.
std::map<std::string, FuzzFunction>& FuzzTargets();

struct FuzzRegistration {
  FuzzRegistration(const char* name, FuzzFunction take) { FuzzTargets()[name] = take; }
};

// Ends the program with a line that names the broken law.
[[noreturn]] void FuzzFailure(const char* file, int line, const char* law);

// Takes an input apart from its front. What is beyond its end reads as zeros.
class FuzzInput {
 public:
  explicit FuzzInput(std::string_view bytes) : rest_(bytes) {}

  bool AtEnd() const { return rest_.empty(); }

  // A little-endian number of `size` bytes, 8 at most.
  uint64_t Number(size_t size);

  // The next bytes, as many as there are, at most `size`.
  std::string_view Bytes(size_t size);

  // Everything up to a line end, which is taken off too; all of it when there is none.
  std::string_view Line();

  std::string_view Rest() const { return rest_; }

 private:
  std::string_view rest_;
};

// Replaces the content of a file. Its directory must be there.
void PutFile(const std::string& path, std::string_view content);

// The content of a file; empty when there is none.
std::string FileContent(const std::string& path);

}  // namespace ZorvTest

// Declares a target: FUZZ_TARGET(tree_block) { ... `input` ... }
#define FUZZ_TARGET(name)                                                          \
  static void Take_##name(std::string_view input);                                 \
  static const ZorvTest::FuzzRegistration kRegistered_##name(#name, &Take_##name); \
  static void Take_##name(std::string_view input)

#define FUZZ_LAW(condition) \
  if (!(condition)) ZorvTest::FuzzFailure(__FILE__, __LINE__, #condition)

#endif  // TESTS_FUZZ_TARGET_H_
