// Hash functions against published vectors, and against another implementation at many lengths.
#include "engine/ondisk/hashes.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/engine/blocks.h"
#include "tests/support/command.h"

using namespace ZorvEngine;
using namespace ZorvTest;

namespace {

ByteView Text(const std::string& text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

std::string Hex(const Hash256& hash) {
  std::string text;
  char digits[3];
  for (const uint8_t byte : hash) {
    snprintf(digits, sizeof digits, "%02x", byte);
    text += digits;
  }
  return text;
}

// Lengths on both sides of every block and padding edge.
const size_t kLengths[] = {0,  1,  3,  4,   7,   8,   31,  32,  33,  55,   56,
                           63, 64, 65, 127, 128, 129, 255, 256, 257, 4064, 16352};

// Bytes that differ from place to place.
std::string Content(size_t length) {
  std::string content(length, '\0');
  for (size_t i = 0; i < length; ++i) content[i] = static_cast<char>(i * 131 + i / 7);
  return content;
}

// What a program of coreutils says of `content`.
std::string Coreutils(const std::vector<std::string>& command, const std::string& content) {
  WriteFile("/tmp/content", content);
  std::vector<std::string> argv = command;
  argv.push_back("/tmp/content");
  return MustRun(argv).substr(0, 64);
}

}  // namespace

TEST(HashesXxhash64, AgreesWithPublishedVectors) {
  EXPECT_EQ(0xEF46DB3751D8E999ull, Xxhash64(ByteView()));
  EXPECT_EQ(0xD24EC4F1A98C6E5Bull, Xxhash64(Text("a")));
  EXPECT_EQ(0x44BC2CF5AD770999ull, Xxhash64(Text("abc")));
  EXPECT_EQ(0x0B242D361FDA71BCull, Xxhash64(Text("The quick brown fox jumps over the lazy dog")));
}

TEST(HashesSha256, AgreesWithPublishedVectors) {
  EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
            Hex(Sha256(ByteView())));
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
            Hex(Sha256(Text("abc"))));
}

TEST(HashesSha256, AgreesWithCoreutilsAtEveryEdge) {
  for (const size_t length : kLengths) {
    SCOPED_TRACE(length);
    const std::string content = Content(length);
    EXPECT_EQ(Coreutils({"sha256sum"}, content), Hex(Sha256(Text(content))));
  }
}

TEST(HashesBlake2b256, AgreesWithCoreutilsAtEveryEdge) {
  for (const size_t length : kLengths) {
    SCOPED_TRACE(length);
    const std::string content = Content(length);
    EXPECT_EQ(Coreutils({"b2sum", "-l", "256"}, content), Hex(Blake2b256(Text(content))));
  }
}
