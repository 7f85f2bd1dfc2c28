// The bytes of result vectors: what is written, and what is read back from files of any kind.
#include <string.h>

#include <vector>

#include "tests/utils/task_files.h"
#include "zorvbtrfssnapusage/task_result.h"

using namespace ZorvBtrfsUsage;
using namespace ZorvTest;

namespace {

using Values = std::vector<unsigned long long>;

constexpr char kUnit[] = "utils/task_result";
const std::string kFile = "/tmp/vector";

class Vectors : public TaskFiles {
 protected:
  Vectors() { std::filesystem::remove_all(kFile); }

  void ExpectInvalidPath() {
    EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit, "Invaild Argument (!filePath.empty())=[0]\n"))
        << log.Dump();
    EXPECT_EQ(0x0D00u, PLATCErrGet());
    EXPECT_STREQ(kUnit, PLATCErrorGetFile());
  }

  // Reading fails with the message of a broken stream.
  void ExpectReadFailure() {
    Values values = {77};
    EXPECT_EQ(1, TaskResult::ReadVtr(kFile, values));
    EXPECT_EQ(1,
              log.CountExact(LOG_ERR, kUnit, "Some errors occur on input stream, file: " + kFile))
        << log.Dump();
  }
};
using TaskResultWriteVtr = Vectors;
using TaskResultReadVtr = Vectors;

// The eight bytes of a number, lowest first.
std::string Le64(unsigned long long number) {
  std::string bytes;
  for (int i = 0; i < 8; ++i) bytes += static_cast<char>(number >> (8 * i));
  return bytes;
}

}  // namespace

TEST_F(TaskResultWriteVtr, EmptyVectorIsEightZeroBytes) {
  EXPECT_EQ(0, TaskResult::WriteVtr(kFile, Values()));
  EXPECT_EQ(std::string(8, '\0'), ReadFile(kFile));
  Values values = {1, 2};
  EXPECT_EQ(0, TaskResult::ReadVtr(kFile, values));
  EXPECT_TRUE(values.empty());
}

TEST_F(TaskResultWriteVtr, FiveAndTwoToTheFortieth) {
  EXPECT_EQ(0, TaskResult::WriteVtr(kFile, Values{5, 1ull << 40}));
  const unsigned char expected[24] = {2, 0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0,
                                      0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0};
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(expected), sizeof expected), ReadFile(kFile));
}

TEST_F(TaskResultWriteVtr, EveryValueComesBackInOrder) {
  const Values written = {0, 1, 255, 256, 1ull << 32, 1ull << 63, ~0ull, 1, 0};
  EXPECT_EQ(0, TaskResult::WriteVtr(kFile, written));
  EXPECT_EQ(8 + 8 * written.size(), std::filesystem::file_size(kFile));
  Values read;
  EXPECT_EQ(0, TaskResult::ReadVtr(kFile, read));
  EXPECT_EQ(written, read);
}

TEST_F(TaskResultWriteVtr, MillionValues) {
  Values written(1000000);
  for (size_t i = 0; i < written.size(); ++i) written[i] = i * 0x9E3779B97F4A7C15ull;
  EXPECT_EQ(0, TaskResult::WriteVtr(kFile, written));
  Values read;
  EXPECT_EQ(0, TaskResult::ReadVtr(kFile, read));
  EXPECT_TRUE(written == read);
}

TEST_F(TaskResultWriteVtr, LongerFileIsCutInPlace) {
  WriteFile(kFile, std::string(1000, 'x'));
  std::filesystem::permissions(kFile, std::filesystem::perms(0640));
  std::filesystem::create_hard_link(kFile, "/tmp/vector_link");
  EXPECT_EQ(0, TaskResult::WriteVtr(kFile, Values{1}));
  EXPECT_EQ(Le64(1) + Le64(1), ReadFile(kFile));
  EXPECT_EQ(Le64(1) + Le64(1), ReadFile("/tmp/vector_link"));
  EXPECT_EQ(0640, ModeOf(kFile));
  std::filesystem::remove("/tmp/vector_link");
}

TEST_F(TaskResultWriteVtr, NewFileIs0666UnderTheUmask) {
  const ScopedUmask mask(027);
  EXPECT_EQ(0, TaskResult::WriteVtr(kFile, Values{1}));
  EXPECT_EQ(0640, ModeOf(kFile));
}

TEST_F(TaskResultWriteVtr, EmptyPathIsAnInvalidArgument) {
  EXPECT_EQ(3, TaskResult::WriteVtr("", Values{1}));
  ExpectInvalidPath();
}

TEST_F(TaskResultWriteVtr, FileThatCannotBeCreatedFails) {
  const std::string inNoDirectory = "/tmp/no/such/vector";
  EXPECT_EQ(1, TaskResult::WriteVtr(inNoDirectory, Values{1}));
  EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit, "File [/tmp/no/such/vector] cannot be created."))
      << log.Dump();

  std::filesystem::create_directory(kFile);
  EXPECT_EQ(1, TaskResult::WriteVtr(kFile, Values{1}));
  EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit, "File [/tmp/vector] cannot be created."))
      << log.Dump();
}

TEST_F(TaskResultWriteVtr, FullDiskFails) {
  const std::string dir = "/tmp/full";
  const std::string file = dir + "/vector";
  std::filesystem::create_directory(dir);
  ASSERT_EQ(0, mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=4k,nr_inodes=10"));
  WriteFile(dir + "/filler", std::string(4096, 'x'));
  for (const size_t count : {0u, 1u, 100000u}) {  // also what fits into the stream's own buffer
    SCOPED_TRACE(count);
    log.Clear();
    EXPECT_EQ(1, TaskResult::WriteVtr(file, Values(count, 7)));
    EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit,
                                "Some errors occur on output stream, file: /tmp/full/vector"))
        << log.Dump();
  }
  ASSERT_EQ(0, umount2(dir.c_str(), MNT_DETACH));
}

TEST_F(TaskResultReadVtr, EmptyPathIsAnInvalidArgument) {
  Values values = {77};
  EXPECT_EQ(3, TaskResult::ReadVtr("", values));
  EXPECT_EQ(Values{77}, values);
  ExpectInvalidPath();
}

TEST_F(TaskResultReadVtr, MissingFileFailsAndLeavesTheVector) {
  Values values = {77};
  EXPECT_EQ(1, TaskResult::ReadVtr(kFile, values));
  EXPECT_EQ(Values{77}, values);
  EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit, "File [/tmp/vector] cannot be opened."))
      << log.Dump();
}

TEST_F(TaskResultReadVtr, FileThatMayNotBeOpenedFails) {
  ASSERT_EQ(0, symlink(kFile.c_str(), kFile.c_str()));  // leads to itself
  Values values = {77};
  EXPECT_EQ(1, TaskResult::ReadVtr(kFile, values));
  EXPECT_EQ(Values{77}, values);
  EXPECT_EQ(1, log.CountExact(LOG_ERR, kUnit, "File [/tmp/vector] cannot be opened."))
      << log.Dump();
}

TEST_F(TaskResultReadVtr, DirectoryIsABrokenStream) {
  std::filesystem::create_directory(kFile);
  ExpectReadFailure();
}

TEST_F(TaskResultReadVtr, FileWithoutACountIsAnEmptyVector) {
  WriteFile(kFile, "");
  Values values = {77};
  EXPECT_EQ(0, TaskResult::ReadVtr(kFile, values));
  EXPECT_TRUE(values.empty());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(TaskResultReadVtr, OldContentOfTheVectorGoes) {
  WriteFile(kFile, Le64(2) + Le64(8) + Le64(9));
  Values values(100, 77);
  EXPECT_EQ(0, TaskResult::ReadVtr(kFile, values));
  EXPECT_EQ((Values{8, 9}), values);
}

TEST_F(TaskResultReadVtr, BytesBehindTheLastElementAreNotRead) {
  WriteFile(kFile, Le64(1) + Le64(8) + Le64(9) + "rest");
  Values values;
  EXPECT_EQ(0, TaskResult::ReadVtr(kFile, values));
  EXPECT_EQ(Values{8}, values);
}

TEST_F(TaskResultReadVtr, ShortFilesRepeatTheLastElement) {
  const struct {
    const char* name;
    std::string content;
    Values expected;
  } kCases[] = {
      {"last element missing", Le64(3) + Le64(8) + Le64(9), {8, 9, 9}},
      {"two missing", Le64(4) + Le64(8) + Le64(9), {8, 9, 9, 9}},
      {"none there", Le64(3), {0, 0, 0}},
      {"a part of an element overlays the one before",
       Le64(3) + Le64(0x1111111111111111) + std::string(2, '\x22'),
       {0x1111111111111111, 0x1111111111112222, 0x1111111111112222}},
      {"a part of the first element", Le64(2) + std::string(1, '\x05'), {5, 5}},
      {"a part of the count", std::string(1, '\x02'), {0, 0}},
      {"seven bytes of zero", std::string(7, '\0'), {}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    WriteFile(kFile, c.content);
    Values values = {77};
    EXPECT_EQ(0, TaskResult::ReadVtr(kFile, values));
    EXPECT_EQ(c.expected, values);
  }
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

// Long files are read in pieces of 65,536 elements: their ends within, at and behind a piece's end.
TEST_F(TaskResultReadVtr, LongShortFilesRepeatTheLastElement) {
  for (const size_t whole : {65535u, 65536u, 65537u, 131072u}) {
    for (const size_t rest : {0u, 3u}) {
      SCOPED_TRACE(whole);
      SCOPED_TRACE(rest);
      Values expected;
      std::string content = Le64(whole + 3);
      for (size_t i = 0; i < whole; ++i) {
        expected.push_back(0x0101010101010101 * (i % 251));
        content += Le64(expected.back());
      }
      content += std::string(rest, '\xEE');
      const unsigned long long cut =
          rest == 0 ? expected.back() : (expected.back() & ~0xFFFFFFull) | 0xEEEEEE;
      expected.resize(whole + 3, cut);
      WriteFile(kFile, content);
      Values values = {77};
      EXPECT_EQ(0, TaskResult::ReadVtr(kFile, values));
      EXPECT_TRUE(expected == values);
    }
  }
}

TEST_F(TaskResultReadVtr, FiveMillionBeyondTheEndRepeatToo) {
  WriteFile(kFile, Le64(5000000) + Le64(8));
  Values values;
  EXPECT_EQ(0, TaskResult::ReadVtr(kFile, values));
  EXPECT_EQ(5000000u, values.size());
  EXPECT_EQ(8u, values.back());
}

TEST_F(TaskResultReadVtr, CountsOfTwoToTheThirtySecondAndMoreFail) {
  for (const unsigned long long count :
       {1ull << 32, (1ull << 32) + 1, 1ull << 60, 1ull << 61, 1ull << 63, ~0ull}) {
    SCOPED_TRACE(count);
    log.Clear();
    WriteFile(kFile, Le64(count) + Le64(8));
    ExpectReadFailure();
  }
}
