// The parser of the command's output: which lines count, what they do, what is left at the end.
#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/random.h>

#include <chrono>
#include <stdexcept>

#include "tests/support/calc_world.h"
#include "tests/support/sanitizer.h"
#include "zorvbtrfssnapusage/btrfs_tool.h"
#include "zorvbtrfssnapusage/snap_usage_cal.h"
#include "zorvbtrfssnapusage/task_status.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

constexpr char kUnit[] = "snap_calculator/snap_usage_cal";
constexpr char kTask[] = "the-task";
using Words = std::vector<unsigned long long>;

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using Stream = std::unique_ptr<FILE, FileCloser>;

Stream StreamOf(const std::string& text) {
  FILE* const file = tmpfile();
  fwrite(text.data(), 1, text.size(), file);
  rewind(file);
  return Stream(file);
}

// What the callbacks below saw of the status file, "processed/estimated" at each call.
struct ProgressState {
  std::vector<std::string> seen;
  bool nullPointer = true;
  std::string taskID;
  _tag_progress_update_function_ret result = PROGRESS_UPDATE_OK;
  int stopAtCall = 0;
};
ProgressState progress;

_tag_progress_update_function_ret Progress(TaskStatus& status, void* data) {
  auto members = StatusOf(kTask);
  progress.seen.push_back(members["processed_in_bytes"] + "/" + members["estimated_in_bytes"]);
  progress.nullPointer = progress.nullPointer && data == nullptr;
  progress.taskID = status.TaskID();
  if (progress.stopAtCall == static_cast<int>(progress.seen.size())) BtrfsTool::gSignal = SIGTERM;
  return progress.result;
}

_tag_progress_update_function_ret ThrowingProgress(TaskStatus&, void*) {
  throw std::runtime_error("progress");
}

_tag_progress_update_function_ret NumberThrowingProgress(TaskStatus&, void*) { throw 7; }

class ParseWorld : public CalcWorld {
 protected:
  ParseWorld() {
    progress = {};
    SnapUsageCalculator calc;
    calc.Init(kTask);
    log_.Clear();
  }

  _tag_fp_parse_function_ret Parse(FILE* stream,
                                   PROGRESS_UPDATE_FUNCTION fpProgressUpdate = nullptr) {
    return SnapUsageCalculator::ParseCmdFp(kTask, stream, errMsg_, fpProgressUpdate);
  }
  _tag_fp_parse_function_ret Parse(const std::string& text,
                                   PROGRESS_UPDATE_FUNCTION fpProgressUpdate = nullptr) {
    return Parse(StreamOf(text).get(), fpProgressUpdate);
  }

  void ExpectResult(const Words& subvolIDs, const Words& exclusiveBytes) {
    Words ids = {subvolIDs.size()};
    ids.insert(ids.end(), subvolIDs.begin(), subvolIDs.end());
    Words bytes = {exclusiveBytes.size()};
    bytes.insert(bytes.end(), exclusiveBytes.begin(), exclusiveBytes.end());
    ASSERT_TRUE(Exists(kSubvolIDs) && Exists(kExclusiveBytes));
    EXPECT_EQ(ids, WordsOf(kSubvolIDs));
    EXPECT_EQ(bytes, WordsOf(kExclusiveBytes));
  }

  void ExpectNoResult() {
    EXPECT_FALSE(Exists(kSubvolIDs));
    EXPECT_FALSE(Exists(kExclusiveBytes));
  }

  void ExpectConversionFailure(const std::string& line, int converted) {
    EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "ParseCmdFp", getpid(), kTask,
                                "Failed to parse the output from BTRFS command, output:[" + line +
                                    "], sscanf_ret: " + std::to_string(converted) + ", errno: 0"))
        << log_.Dump();
  }

  const std::string kSubvolIDs = std::string(kResultDir) + kTask + ".subvol_id";
  const std::string kExclusiveBytes = std::string(kResultDir) + kTask + ".result";
  std::string errMsg_ = "message";
};

}  // namespace

class SnapUsageCalculatorParseCmdFp : public ParseWorld {};

// ---- Arguments ----------------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorParseCmdFp, NullStreamFailsSilently) {
  EXPECT_EQ(FP_PARSE_FAIL, Parse(nullptr));
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_STREQ(kUnit, PLATCErrorGetFile());
  EXPECT_TRUE(log_.Lines().empty()) << log_.Dump();
}

TEST_F(SnapUsageCalculatorParseCmdFp, EmptyTaskIDCannotBeOpened) {
  PLATCErrSetEx(0x1234, "tests/unit", 7);
  EXPECT_EQ(FP_PARSE_FAIL,
            SnapUsageCalculator::ParseCmdFp("", StreamOf("x\n").get(), errMsg_, nullptr));
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit,
                               "Failed to initialize object, taskID:()[0x1234 tests/unit:7]"))
      << log_.Dump();
}

TEST_F(SnapUsageCalculatorParseCmdFp, TaskThatCannotBeOpenedFails) {
  SpoilTheDirectories();
  PLATCErrSetEx(0x1234, "tests/unit", 7);
  EXPECT_EQ(FP_PARSE_FAIL, Parse("subvol(257) 1 bytes\n"));
  EXPECT_EQ(1, log_.CountExact(
                   LOG_ERR, kUnit,
                   std::string("Failed to initialize object, taskID:(") + kTask + ")" + Tail()))
      << log_.Dump();
  ExpectNoResult();
}

TEST_F(SnapUsageCalculatorParseCmdFp, StatusFileIsNotCreated) {
  SnapUsageCalculator(kTask).CleanAll();
  EXPECT_EQ(FP_PARSE_OK, Parse("subvol(257) 1 bytes\n"));
  EXPECT_FALSE(Exists(std::string(kStatusDir) + kTask));
}

TEST_F(SnapUsageCalculatorParseCmdFp, MessageIsLeftAlone) {
  EXPECT_EQ(FP_PARSE_OK, Parse("subvol(257) 1 bytes\n"));
  EXPECT_EQ(FP_PARSE_FAIL, Parse("subvol\n"));
  EXPECT_EQ("message", errMsg_);
}

TEST_F(SnapUsageCalculatorParseCmdFp, StreamStaysOpen) {
  const Stream stream = StreamOf("subvol(257) 1 bytes\n");
  EXPECT_EQ(FP_PARSE_OK, Parse(stream.get()));
  EXPECT_EQ(0, fseek(stream.get(), 0, SEEK_SET));
}

// ---- Sizes --------------------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorParseCmdFp, VectorsByteForByte) {
  EXPECT_EQ(FP_PARSE_OK, Parse("subvol(257) 5 bytes\nsubvol(1099511627776) 258 bytes\n"));
  const std::string two("\x02\0\0\0\0\0\0\0", 8);
  EXPECT_EQ(two + std::string("\x01\x01\0\0\0\0\0\0\0\0\0\0\0\x01\0\0", 16), ReadFile(kSubvolIDs));
  EXPECT_EQ(two + std::string("\x05\0\0\0\0\0\0\0\x02\x01\0\0\0\0\0\0", 16),
            ReadFile(kExclusiveBytes));
}

TEST_F(SnapUsageCalculatorParseCmdFp, NoSubvolLinesGiveEmptyVectors) {
  EXPECT_EQ(FP_PARSE_OK, Parse("processed 1 bytes\n"));
  EXPECT_EQ(std::string(8, '\0'), ReadFile(kSubvolIDs));
  EXPECT_EQ(std::string(8, '\0'), ReadFile(kExclusiveBytes));
}

TEST_F(SnapUsageCalculatorParseCmdFp, EmptyOutputGivesEmptyVectors) {
  EXPECT_EQ(FP_PARSE_OK, Parse(""));
  ExpectResult({}, {});
}

TEST_F(SnapUsageCalculatorParseCmdFp, LaterLineForASubvolumeOverrides) {
  EXPECT_EQ(FP_PARSE_OK, Parse("subvol(257) 1 bytes\nsubvol(256) 2 bytes\nsubvol(257) 3 bytes\n"));
  ExpectResult({257, 256}, {3, 2});
}

TEST_F(SnapUsageCalculatorParseCmdFp, OrderIsThatOfFirstAppearance) {
  EXPECT_EQ(FP_PARSE_OK, Parse("subvol(300) 1 bytes\nsubvol(256) 2 bytes\nsubvol(299) 3 bytes\n"));
  ExpectResult({300, 256, 299}, {1, 2, 3});
}

TEST_F(SnapUsageCalculatorParseCmdFp, LargestNumbersAreKept) {
  EXPECT_EQ(FP_PARSE_OK, Parse("subvol(18446744073709551615) 18446744073709551614 bytes\n"));
  ExpectResult({ULLONG_MAX}, {ULLONG_MAX - 1});
}

TEST_F(SnapUsageCalculatorParseCmdFp, LineWithoutBytesTakesThoseOfThePreviousConversion) {
  EXPECT_EQ(FP_PARSE_OK, Parse("subvol(256) 77 bytes\nsubvol(257) unknown\n"));
  ExpectResult({256, 257}, {77, 77});
}

TEST_F(SnapUsageCalculatorParseCmdFp, BytesOfAProgressLineCountAsPreviousConversion) {
  EXPECT_EQ(FP_PARSE_OK, Parse("subvol(256) 77 bytes\nexclusive 88 bytes\nsubvol(257)\n"
                               "processed 99 bytes\nsubvol(258) ? bytes\n"));
  ExpectResult({256, 257, 258}, {77, 88, 99});
}

TEST_F(SnapUsageCalculatorParseCmdFp, BytesBeforeAnyConversionAreZero) {
  EXPECT_EQ(FP_PARSE_OK, Parse("subvol(257) none\n"));
  ExpectResult({257}, {0});
}

TEST_F(SnapUsageCalculatorParseCmdFp, BytesNeedNotBeFollowedByTheWord) {
  EXPECT_EQ(FP_PARSE_OK, Parse("subvol(257) 12\nsubvol(258)34\n"));
  ExpectResult({257, 258}, {12, 34});
}

TEST_F(SnapUsageCalculatorParseCmdFp, EveryFormOfALineIsReadAsSscanfDoes) {
  for (const char* line :
       {"subvol(257) 12 bytes", "subvol(257)  12 bytes", "subvol(257)\t12 bytes", "subvol( 257) 12",
        "subvol(+257) +12 bytes", "subvol(-1) -1 bytes", "subvol(00257) 0012 bytes",
        "subvol(257 ) 12 bytes", "subvol(257", "subvol(257)", "subvol(257) ", "subvol(257) x12",
        "subvol(257) 12x", "subvol(257)x 12", "subvol(18446744073709551616) 12 bytes",
        "subvol(257) 18446744073709551616 bytes", "subvol(257) 99999999999999999999999 bytes",
        "subvol(257) 0x10 bytes", "subvol(257) 1.5 bytes"}) {
    SCOPED_TRACE(line);
    unsigned long long id = 0;
    unsigned long long bytes = 77;  // of the conversion before
    ASSERT_LE(1, sscanf(line, "subvol(%llu) %llu bytes", &id, &bytes));
    EXPECT_EQ(FP_PARSE_OK, Parse(std::string("subvol(1) 77 bytes\n") + line + "\n"));
    ExpectResult({1, id}, {77, bytes});
  }
  for (const char* line : {"subvol", "subvol 257", "subvol()", "subvol() 12 bytes",
                           "subvolume(257) 12 bytes", "subvol(x257) 12 bytes"}) {
    SCOPED_TRACE(line);
    EXPECT_EQ(FP_PARSE_FAIL, Parse(std::string(line) + "\n"));
  }
}

TEST_F(SnapUsageCalculatorParseCmdFp, LastLineNeedsNoLineEnd) {
  EXPECT_EQ(FP_PARSE_OK, Parse("subvol(257) 12 bytes"));
  ExpectResult({257}, {12});
}

// IDs that fall together in a table of the standard library's sizes took 2 ms each, and more the
// longer it went on.
TEST_F(SnapUsageCalculatorParseCmdFp, SubvolumesThatFallTogetherTakeLinearTime) {
  std::string lines;
  for (unsigned long long i = 1; i <= 300'000; ++i)  // multiples of two sizes that it will have
    lines += "subvol(" + std::to_string(i * 172'933 * 351'061) + ") 1 bytes\n";
  const double begin = Seconds();
  EXPECT_EQ(FP_PARSE_OK, Parse(lines));
  EXPECT_LT(Seconds() - begin, 60);
}

// The number that spreads them was 0 where the kernel had no random one. These IDs are those whose
// places in the table are then all the same.
TEST_F(SnapUsageCalculatorParseCmdFp, SubvolumesFallTogetherForNobodyWithoutRandomNumbers) {
  constexpr unsigned long long kGolden = 0x9E3779B97F4A7C15;
  unsigned long long inverse = kGolden;  // right in the last three bits, and in twice as many then
  for (int i = 0; i < 5; ++i) inverse *= 2 - kGolden * inverse;
  ASSERT_EQ(1u, kGolden * inverse);
  std::string lines;
  for (unsigned long long place = 1; place <= 5; ++place)
    for (unsigned long long cut = 0; cut < 1 << 16; ++cut) {
      const unsigned long long mixed = (place * 172'933 * 351'061 << 16 | cut) * inverse;
      lines += "subvol(" + std::to_string((mixed ^ mixed >> 32) * inverse) + ") 1 bytes\n";
    }
  PlatformHook<ssize_t(void*, size_t, unsigned)> random("getrandom");
  random.AlwaysFails(0, EAGAIN);
  const double begin = Seconds();
  EXPECT_EQ(FP_PARSE_OK, Parse(lines));
  EXPECT_LT(Seconds() - begin, 60);
  EXPECT_EQ(1, random.Calls());
}

// As many IDs as memory had room for were collected, whoever printed them.
TEST_F(SnapUsageCalculatorParseCmdFp, MoreSubvolumesThanACommandCanBeAskedAboutFail) {
  constexpr unsigned kMost = 1 << 20;
  std::string lines;
  for (unsigned id = 1; id <= kMost; ++id) lines += "subvol(" + std::to_string(id) + ") 1 bytes\n";
  EXPECT_EQ(FP_PARSE_OK, Parse(lines + "subvol(1) 2 bytes\n"));
  EXPECT_EQ(8u * (1 + kMost),
            std::filesystem::file_size(std::string(kResultDir) + kTask + ".result"));
  EXPECT_EQ(FP_PARSE_FAIL, Parse(lines + "subvol(0) 1 bytes\n"));
  EXPECT_EQ(0x2A00u, PLATCErrGet());
}

TEST_F(SnapUsageCalculatorParseCmdFp, ManySubvolumesTakeLinearTime) {
  constexpr unsigned long long kCount = 300000;
  std::string text;
  Words ids;
  Words bytes;
  for (unsigned long long i = 0; i < kCount; ++i) {
    ids.push_back(256 + i);
    bytes.push_back(i);
    text += "subvol(" + std::to_string(256 + i) + ") " + std::to_string(i) + " bytes\n";
  }
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(FP_PARSE_OK, Parse(text));
  // A search from the front would make some 45,000,000,000 comparisons: minutes.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  ExpectResult(ids, bytes);
}

// ---- Progress -----------------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorParseCmdFp, ProgressGoesToTheStatusFile) {
  EXPECT_EQ(FP_PARSE_OK,
            Parse("processed 1 bytes\nexclusive 2 bytes\nprocessed 18446744073709551615 bytes\n"));
  auto status = StatusOf(kTask);
  EXPECT_EQ(3u, status.size());
  EXPECT_EQ("ready", status["status"]);
  EXPECT_EQ("2", status["estimated_in_bytes"]);
  EXPECT_EQ("18446744073709551615", status["processed_in_bytes"]);
}

TEST_F(SnapUsageCalculatorParseCmdFp, CallbackFollowsEachWriteInOrder) {
  EXPECT_EQ(FP_PARSE_OK, Parse("processed 1 bytes\nsubvol(257) 9 bytes\nexclusive 2 bytes\nother\n"
                               "processed 3 bytes\nprocessed 3 bytes\nexclusive 4 bytes\n",
                               &Progress));
  EXPECT_EQ((std::vector<std::string>{"1/", "1/2", "3/2", "3/2", "3/4"}), progress.seen);
  EXPECT_EQ(kTask, progress.taskID);
  EXPECT_TRUE(progress.nullPointer);
}

TEST_F(SnapUsageCalculatorParseCmdFp, EveryProgressLineIsWritten) {
  PlatformHook<int(const char*, const char*)> move("rename");
  EXPECT_EQ(FP_PARSE_OK, Parse("processed 1 bytes\nprocessed 1 bytes\nexclusive 1 bytes\n"));
  EXPECT_EQ(3, move.Calls());
}

TEST_F(SnapUsageCalculatorParseCmdFp, FailedCallbackIsLoggedAndIgnored) {
  progress.result = PROGRESS_UPDATE_FAIL;
  EXPECT_EQ(FP_PARSE_OK,
            Parse("processed 1 bytes\nexclusive 2 bytes\nsubvol(257) 3 bytes\n", &Progress));
  EXPECT_EQ(
      2, log_.CountExact(LOG_ERR, kUnit, "Failed to execute progress updating call-back function"))
      << log_.Dump();
  ExpectResult({257}, {3});
}

TEST_F(SnapUsageCalculatorParseCmdFp, CallbackThatThrowsHasFailed) {
  for (const auto callback : {&ThrowingProgress, &NumberThrowingProgress}) {
    SCOPED_TRACE(callback == &ThrowingProgress ? "an exception" : "a number");
    log_.Clear();
    EXPECT_EQ(FP_PARSE_OK, Parse("processed 1 bytes\n", callback));
    EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit,
                                 "Failed to execute progress updating call-back function"))
        << log_.Dump();
  }
}

TEST_F(SnapUsageCalculatorParseCmdFp, FailedStatusWriteEndsTheRunSilently) {
  for (const char* line : {"processed 2 bytes\n", "exclusive 2 bytes\n"}) {
    SCOPED_TRACE(line);
    PlatformHook<int(const char*, const char*)> move("rename");
    move.FailsOnCall(2, 0, EIO);
    EXPECT_EQ(
        FP_PARSE_FAIL,
        Parse("processed 1 bytes\n" + std::string(line) + "subvol(257) 3 bytes\n", &Progress));
    EXPECT_EQ(0, log_.Count(kUnit)) << log_.Dump();
    ExpectNoResult();
  }
  EXPECT_EQ(2u, progress.seen.size());  // the line before, twice
  EXPECT_EQ("1", StatusOf(kTask)["processed_in_bytes"]);
}

// ---- Which lines count --------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorParseCmdFp, OtherLinesAreSkipped) {
  EXPECT_EQ(FP_PARSE_OK,
            Parse("\n \ngeneration 17\ntotal 5 bytes\nSubvol(1) 2 bytes\n subvol(1) 2 bytes\n"
                  "subvo\nexclusiv 3 bytes\nprocesse 3 bytes\nEXCLUSIVE 1 bytes\n",
                  &Progress));
  ExpectResult({}, {});
  EXPECT_TRUE(progress.seen.empty());
}

TEST_F(SnapUsageCalculatorParseCmdFp, PrefixAloneDecides) {
  const struct {
    const char* name;
    const char* line;
    int converted;
  } kCases[] = {
      {"exclusive with more letters", "exclusivex 5 bytes\n", 0},
      {"exclusive without number", "exclusive bytes\n", 0},
      {"exclusive alone", "exclusive\n", -1},
      {"a failure line", "exclusive sizes unavailable: no memory\n", 0},
      {"processed with more letters", "processedx 5 bytes\n", 0},
      {"processed without number", "processed many bytes\n", 0},
      {"processed alone", "processed\n", -1},
      {"subvol alone", "subvol\n", 0},
      {"subvolume", "subvolume 257\n", 0},
      {"subvol without ID", "subvol() 3 bytes\n", 0},
      {"subvol cut off", "subvol(", -1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    log_.Clear();
    EXPECT_EQ(FP_PARSE_FAIL, Parse(std::string("subvol(256) 1 bytes\n") + c.line));
    ExpectConversionFailure(c.line, c.converted);
    ExpectNoResult();
  }
}

TEST_F(SnapUsageCalculatorParseCmdFp, NumberRightAfterThePrefixIsTaken) {
  EXPECT_EQ(FP_PARSE_OK, Parse("exclusive5 bytes\nprocessed \t 6bytes\n"));
  EXPECT_EQ("5", StatusOf(kTask)["estimated_in_bytes"]);
  EXPECT_EQ("6", StatusOf(kTask)["processed_in_bytes"]);
}

TEST_F(SnapUsageCalculatorParseCmdFp, LongLineComesInPieces) {
  const std::string piece(1023, 'x');
  EXPECT_EQ(FP_PARSE_OK, Parse(piece + "subvol(257) 1 bytes\n" + piece + piece + "\n" +
                               piece.substr(1) + "subvol(258) 2 bytes\n"));
  ExpectResult({257}, {1});
}

TEST_F(SnapUsageCalculatorParseCmdFp, NulByteEndsALine) {
  EXPECT_EQ(FP_PARSE_OK, Parse(std::string("subvol(257) 1\0 bytes\nprocessed 3 bytes\n", 40)));
  ExpectResult({257}, {1});
}

TEST_F(SnapUsageCalculatorParseCmdFp, WhatWasWrittenBeforeAFailureStays) {
  EXPECT_EQ(FP_PARSE_FAIL, Parse("processed 5 bytes\nexclusive 6 bytes\nsubvol\n"));
  EXPECT_EQ("5", StatusOf(kTask)["processed_in_bytes"]);
  EXPECT_EQ("6", StatusOf(kTask)["estimated_in_bytes"]);
  ExpectNoResult();
}

TEST_F(SnapUsageCalculatorParseCmdFp, ReadErrorIsTheEndOfTheOutput) {
  const auto read = [](void* state, char* buffer, size_t) -> ssize_t {
    if ((*static_cast<int*>(state))++ > 0) {
      errno = EIO;
      return -1;
    }
    strcpy(buffer, "subvol(257) 1 bytes\n");
    return 20;
  };
  int reads = 0;
  const Stream stream(fopencookie(&reads, "r", {read, nullptr, nullptr, nullptr}));
  EXPECT_EQ(FP_PARSE_OK, Parse(stream.get()));
  EXPECT_EQ(2, reads);
  ExpectResult({257}, {1});
}

// ---- The end ------------------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorParseCmdFp, FirstVectorThatCannotBeWrittenFails) {
  std::filesystem::create_directories(kExclusiveBytes);
  EXPECT_EQ(FP_PARSE_FAIL, Parse("subvol(257) 1 bytes\n"));
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "ParseCmdFp", getpid(), kTask,
                              "Failed to wirte result vector to file"))
      << log_.Dump();
  EXPECT_FALSE(Exists(kSubvolIDs));
}

TEST_F(SnapUsageCalculatorParseCmdFp, SecondVectorThatCannotBeWrittenLeavesTheFirst) {
  std::filesystem::create_directories(kSubvolIDs);
  EXPECT_EQ(FP_PARSE_FAIL, Parse("subvol(257) 1 bytes\n"));
  EXPECT_EQ(1, log_.CountTask(LOG_ERR, kUnit, "ParseCmdFp", getpid(), kTask,
                              "Failed to wirte subvol ID vector to file"))
      << log_.Dump();
  EXPECT_EQ((Words{1, 1}), WordsOf(kExclusiveBytes));
}

// ---- Stops --------------------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorParseCmdFp, StopBeforeALineEndsWithoutResult) {
  for (const int sig : {15, 9}) {
    SCOPED_TRACE(sig);
    BtrfsTool::gSignal = sig;
    EXPECT_EQ(FP_PARSE_SIGNALED, Parse("processed 1 bytes\nsubvol(257) 1 bytes\n", &Progress));
    ExpectNoResult();
  }
  EXPECT_TRUE(progress.seen.empty());
  EXPECT_EQ(0u, StatusOf(kTask).count("processed_in_bytes"));
  EXPECT_EQ(0, log_.Count(kUnit)) << log_.Dump();
}

TEST_F(SnapUsageCalculatorParseCmdFp, AnotherNumberInTheFlagIsNoStop) {
  BtrfsTool::gSignal = 1;
  EXPECT_EQ(FP_PARSE_OK, Parse("subvol(257) 1 bytes\n"));
}

TEST_F(SnapUsageCalculatorParseCmdFp, StopIsLookedForBeforeTheLineIs) {
  BtrfsTool::gSignal = 15;
  EXPECT_EQ(FP_PARSE_SIGNALED, Parse("subvol\n"));
  EXPECT_EQ(FP_PARSE_SIGNALED, Parse("any other line\n"));
}

TEST_F(SnapUsageCalculatorParseCmdFp, StopInTheMiddleKeepsWhatWasPublished) {
  progress.stopAtCall = 2;
  EXPECT_EQ(FP_PARSE_SIGNALED,
            Parse("processed 1 bytes\nprocessed 2 bytes\nprocessed 3 bytes\n", &Progress));
  EXPECT_EQ("2", StatusOf(kTask)["processed_in_bytes"]);
  ExpectNoResult();
}

TEST_F(SnapUsageCalculatorParseCmdFp, StopAfterTheLastLineIsASuccess) {
  progress.stopAtCall = 1;
  EXPECT_EQ(FP_PARSE_OK, Parse("subvol(257) 1 bytes\nprocessed 1 bytes\n", &Progress));
  ExpectResult({257}, {1});
}

TEST_F(SnapUsageCalculatorParseCmdFp, WaitingSignalWithoutOurHandlerIsLeftWaiting) {
  EXPECT_EQ(0, InChild([&] {
              sigset_t stop;
              sigemptyset(&stop);
              sigaddset(&stop, SIGTERM);
              pthread_sigmask(SIG_BLOCK, &stop, nullptr);
              raise(SIGTERM);
              return Parse("subvol(257) 1 bytes\n") == FP_PARSE_OK ? 0 : 1;
            }));
}

// ---- Memory -------------------------------------------------------------------------------------

TEST_F(SnapUsageCalculatorParseCmdFp, NoMemoryIsAFailure) {
  NEEDS_MEMORY_LIMITS();
  EXPECT_EQ(0, InChild([&] {
              WriteScript("/tmp/endless", "seq -f 'subvol(%.0f) 1 bytes' 1 100000000\n");
              const Stream stream(popen("/tmp/endless", "r"));
              const rlimit limit = {rlim_t{256} << 20, rlim_t{256} << 20};
              setrlimit(RLIMIT_AS, &limit);
              return Parse(stream.get()) == FP_PARSE_FAIL && PLATCErrGet() == 0x2A00 ? 0 : 1;
            }));
  ExpectNoResult();
}
