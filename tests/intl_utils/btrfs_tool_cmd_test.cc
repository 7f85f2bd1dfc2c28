// One run of the btrfs command: what is started, who reads it, what comes back, when a stop counts.
#include <errno.h>
#include <limits.h>
#include <string.h>

#include <stdexcept>

#include "tests/support/calc_world.h"
#include "tests/support/sanitizer.h"
#include "zorvbtrfssnapusage/btrfs_tool.h"
#include "zorvbtrfssnapusage/signal_handler.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

constexpr char kUnit[] = "intl_utils/btrfs_tool";
constexpr char kArgsFile[] = "/tmp/args";
constexpr char kTask[] = "the-task";

// What the parsers below saw and shall do.
struct ParserState {
  int calls = 0;
  std::string taskID;
  std::string errMsg;
  std::string output;
  PROGRESS_UPDATE_FUNCTION fpProgressUpdate = nullptr;
  int verdict = FP_PARSE_OK;
  int flagAfterRaise = -1;
};
ParserState parser;

_tag_fp_parse_function_ret ReadAll(std::string taskID, FILE* fp, std::string& errMsg,
                                   PROGRESS_UPDATE_FUNCTION fpProgressUpdate) {
  ++parser.calls;
  parser.taskID = taskID;
  parser.errMsg = errMsg;
  parser.fpProgressUpdate = fpProgressUpdate;
  for (int c; (c = fgetc(fp)) != EOF;) parser.output.push_back(static_cast<char>(c));
  return static_cast<_tag_fp_parse_function_ret>(parser.verdict);
}

_tag_fp_parse_function_ret ReadOneByte(std::string, FILE* fp, std::string&,
                                       PROGRESS_UPDATE_FUNCTION) {
  return fgetc(fp) == EOF ? FP_PARSE_FAIL : FP_PARSE_OK;
}

_tag_fp_parse_function_ret SendStops(std::string, FILE*, std::string&, PROGRESS_UPDATE_FUNCTION) {
  for (int i = 0; i < 5; ++i) raise(SIGTERM);
  parser.flagAfterRaise = BtrfsTool::gSignal;
  return FP_PARSE_OK;
}

_tag_fp_parse_function_ret Throw(std::string, FILE*, std::string&, PROGRESS_UPDATE_FUNCTION) {
  throw std::runtime_error("parser");
}

_tag_fp_parse_function_ret ThrowNumber(std::string, FILE*, std::string&, PROGRESS_UPDATE_FUNCTION) {
  throw 7;
}

_tag_progress_update_function_ret Progress(TaskStatus&, void*) { return PROGRESS_UPDATE_OK; }

class CmdWorld : public CalcWorld {
 protected:
  CmdWorld() {
    parser = {};
    std::filesystem::remove(kArgsFile);
  }

  // A command that leaves its arguments, one a line, and prints "out".
  static void RecordArguments() {
    FakeBtrfs("printf '%s\\n' \"$0\" \"$@\" > " + std::string(kArgsFile) + "; echo out\n");
  }

  int Exec(PLATSZLIST** params, FP_PARSE_FUNCTION function = &ReadAll) {
    return BtrfsTool::CmdExc(task_, kTask, params, function, errMsg_, btrfsCmd_, nullptr);
  }
  int Exec(const std::vector<std::string>& params, FP_PARSE_FUNCTION function = &ReadAll) {
    SzList list = ListOf(params);
    return Exec(SzListRef(list), function);
  }

  _tag_ZORV_BTRFS_USAGE_CAL_TASK task_ = {CAL_OPT_BY_SUBVOLID, nullptr, nullptr, 1};
  std::string errMsg_ = "message";
  std::string btrfsCmd_ = "untouched";
};

}  // namespace

class BtrfsToolCmdExc : public CmdWorld {};

// ---- Arguments ----------------------------------------------------------------------------------

TEST_F(BtrfsToolCmdExc, NullListPointerIsAnInvalidArgument) {
  RecordArguments();
  EXPECT_EQ(3, Exec(static_cast<PLATSZLIST**>(nullptr)));
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Invaild Argument (__null != ppListParam)=[0]\n"))
      << log_.Dump();
  EXPECT_FALSE(Exists(kArgsFile));
}

TEST_F(BtrfsToolCmdExc, NullParserIsAnInvalidArgument) {
  RecordArguments();
  EXPECT_EQ(3, Exec({"256"}, nullptr));
  EXPECT_EQ(0x0D00u, PLATCErrGet());
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "Invaild Argument (NULL != pCmdFpParser)=[0]\n"))
      << log_.Dump();
  EXPECT_FALSE(Exists(kArgsFile));
}

TEST_F(BtrfsToolCmdExc, NullListIsRefusedSilently) {
  RecordArguments();
  PLATSZLIST* none = nullptr;
  EXPECT_EQ(3, Exec(&none));
  EXPECT_TRUE(log_.Lines().empty()) << log_.Dump();
  EXPECT_FALSE(Exists(kArgsFile));
}

TEST_F(BtrfsToolCmdExc, MissingCommandIsSix) {
  EXPECT_EQ(6, Exec({"256"}));
  EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit, "/sbin/btrfs is not found.")) << log_.Dump();
  EXPECT_EQ("untouched", btrfsCmd_);
}

TEST_F(BtrfsToolCmdExc, UnknownOptionIsThree) {
  RecordArguments();
  for (const int option : {0, 3, -1, INT_MAX}) {
    SCOPED_TRACE(option);
    task_.calOption = option;
    EXPECT_EQ(3, Exec({"256"}));
    EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit,
                                 "Invalid option of calculator: " + std::to_string(option)))
        << log_.Dump();
  }
  EXPECT_FALSE(Exists(kArgsFile));
  EXPECT_EQ("untouched", btrfsCmd_);
}

// ---- The command line ---------------------------------------------------------------------------

TEST_F(BtrfsToolCmdExc, PathsFollowTheSwitches) {
  RecordArguments();
  task_.calOption = CAL_OPT_BY_PATH;
  EXPECT_EQ(0, Exec({"/volume1/share/.snapshots/a b", "/volume1/x"}));
  EXPECT_EQ("/sbin/btrfs\nsubvolume\nsize\n-vpm\n/volume1/share/.snapshots/a b\n/volume1/x\n",
            ReadFile(kArgsFile));
}

TEST_F(BtrfsToolCmdExc, SubvolumeIDsFollowTheVolume) {
  RecordArguments();
  EXPECT_EQ(0, Exec({"257", "256"}));
  EXPECT_EQ("/sbin/btrfs\nsubvolume\nsize\n-vpm\n-r\n/volume1\n257\n256\n", ReadFile(kArgsFile));
}

TEST_F(BtrfsToolCmdExc, VolumeNumberIsPrintedAsItIs) {
  RecordArguments();
  for (const int number : {0, 12, -1, INT_MAX}) {
    SCOPED_TRACE(number);
    task_.volumeNum = number;
    EXPECT_EQ(0, Exec({"257"}));
    EXPECT_EQ("/sbin/btrfs subvolume size -vpm -r /volume" + std::to_string(number) + " 257 ",
              btrfsCmd_);
  }
}

// A list that the caller has damaged: no word of it may be taken, none beside it be written.
TEST_F(BtrfsToolCmdExc, NegativeCountRunsWithoutParameters) {
  RecordArguments();
  for (const int count : {-1, -10, -1000000000}) {
    SCOPED_TRACE(count);
    SzList list = ListOf({"256"});
    list->count = count;
    EXPECT_EQ(0, Exec(SzListRef(list)));
    list->count = 1;
    EXPECT_EQ("/sbin/btrfs subvolume size -vpm -r /volume1 ", btrfsCmd_);
  }
}

TEST_F(BtrfsToolCmdExc, EmptyListRunsWithoutParameters) {
  RecordArguments();
  EXPECT_EQ(0, Exec(std::vector<std::string>{}));
  EXPECT_EQ("/sbin/btrfs\nsubvolume\nsize\n-vpm\n-r\n/volume1\n", ReadFile(kArgsFile));
}

TEST_F(BtrfsToolCmdExc, CommandLineEndsWithABlankInLogAndResult) {
  RecordArguments();
  EXPECT_EQ(0, Exec({"257", "256"}));
  const std::string line = "/sbin/btrfs subvolume size -vpm -r /volume1 257 256 ";
  EXPECT_EQ(line, btrfsCmd_);
  EXPECT_EQ(1, log_.CountExact(LOG_DEBUG, kUnit, "BTRFS CMD: " + line)) << log_.Dump();
}

TEST_F(BtrfsToolCmdExc, CountOfTheListIsReadAtEachPass) {
  RecordArguments();
  SzList list = ListOf({"256", "257", "258", "259"});
  PlatformHook<decltype(PLATCSzListGet)> get("PLATCSzListGet");
  get.Replace([&](const PLATSZLIST* from, int index) {
    if (index == 1) const_cast<PLATSZLIST*>(from)->count = 2;
    return get.Real(from, index);
  });
  EXPECT_EQ(0, Exec(SzListRef(list)));
  EXPECT_EQ(2, get.Calls());
  EXPECT_EQ("/sbin/btrfs subvolume size -vpm -r /volume1 256 257 ", btrfsCmd_);
  list->count = 4;
}

TEST_F(BtrfsToolCmdExc, ThousandsOfParametersAreHandedOver) {
  FakeBtrfs("echo $#\n");
  EXPECT_EQ(0, Exec(std::vector<std::string>(20000, "123456")));
  EXPECT_EQ("20005\n", parser.output);  // and subvolume size -vpm -r /volume1
}

// ---- The parser ---------------------------------------------------------------------------------

TEST_F(BtrfsToolCmdExc, ParserGetsTaskPipeMessageAndCallback) {
  RecordArguments();
  task_.fpProgressUpdate = &Progress;
  EXPECT_EQ(0, Exec({"256"}));
  EXPECT_EQ(1, parser.calls);
  EXPECT_EQ(kTask, parser.taskID);
  EXPECT_EQ("message", parser.errMsg);
  EXPECT_EQ("out\n", parser.output);
  EXPECT_EQ(&Progress, parser.fpProgressUpdate);
  EXPECT_EQ("message", errMsg_);
}

TEST_F(BtrfsToolCmdExc, ParserOkIsZero) {
  RecordArguments();
  EXPECT_EQ(0, Exec({"256"}));
  EXPECT_EQ(1u, log_.Lines().size()) << log_.Dump();  // the command line alone
}

TEST_F(BtrfsToolCmdExc, ParserSignaledIsTwelve) {
  RecordArguments();
  parser.verdict = FP_PARSE_SIGNALED;
  EXPECT_EQ(12, Exec({"256"}));
  EXPECT_EQ(1u, log_.Lines().size()) << log_.Dump();
  EXPECT_NE("untouched", btrfsCmd_);
}

TEST_F(BtrfsToolCmdExc, ParserFailIsOneWithAWarning) {
  RecordArguments();
  parser.verdict = FP_PARSE_FAIL;
  PLATCErrSetEx(0x1234, "tests/unit", 7);
  EXPECT_EQ(1, Exec({"256"}));
  EXPECT_EQ(1, log_.CountExact(LOG_WARNING, kUnit,
                               "Failed to read pipe, cmd(/sbin/btrfs subvolume size -vpm -r "
                               "/volume1 256 )[0x1234 tests/unit:7]"))
      << log_.Dump();
}

TEST_F(BtrfsToolCmdExc, UnknownVerdictOfTheParserIsOne) {
  RecordArguments();
  for (const int verdict : {3, -1, 99}) {
    SCOPED_TRACE(verdict);
    parser.verdict = verdict;
    EXPECT_EQ(1, Exec({"256"}));
    EXPECT_EQ(1, log_.CountExact(LOG_ERR, kUnit,
                                 "Unknown return code (" + std::to_string(verdict) +
                                     ") of parser function is found."))
        << log_.Dump();
  }
}

TEST_F(BtrfsToolCmdExc, ParserThatThrowsIsOneAndThePipeIsClosed) {
  RecordArguments();
  for (const auto parserThatThrows : {&Throw, &ThrowNumber}) {
    SCOPED_TRACE(parserThatThrows == &Throw ? "an exception" : "a number");
    PlatformHook<decltype(PLATCPclose)> close("PLATCPclose");
    PLATCErrSetEx(0, "", 0);
    EXPECT_EQ(1, Exec({"256"}, parserThatThrows));
    EXPECT_EQ(0x2A00u, PLATCErrGet());
    EXPECT_EQ(1, close.Calls());
  }
}

TEST_F(BtrfsToolCmdExc, CommandThatIsNotReadToItsEndIsNotWaitedForInVain) {
  FakeBtrfs("while echo line; do :; done 2>/dev/null\n");
  EXPECT_EQ(0, Exec({"256"}, &ReadOneByte));
}

// ---- Start and end of the command ---------------------------------------------------------------

TEST_F(BtrfsToolCmdExc, PipeThatCannotBeOpenedIsThirteenWithAWarning) {
  RecordArguments();
  PlatformHook<decltype(PLATCPopenv)> open("PLATCPopenv");
  open.AlwaysFails(0x0900, EMFILE);
  EXPECT_EQ(13, Exec({"256"}));
  EXPECT_EQ(1, log_.CountExact(
                   LOG_WARNING, kUnit,
                   "Faild to open pipe[0x0900 tests/hook:1] [" + std::to_string(EMFILE) + "]"))
      << log_.Dump();
  EXPECT_EQ("untouched", btrfsCmd_);
}

TEST_F(BtrfsToolCmdExc, OtherErrorAtTheStartIsThirteenInSilence) {
  RecordArguments();
  PlatformHook<decltype(PLATCPopenv)> open("PLATCPopenv");
  open.AlwaysFails(0x2A00, ENOMEM);
  EXPECT_EQ(13, Exec({"256"}));
  EXPECT_TRUE(log_.Lines().empty()) << log_.Dump();
  EXPECT_EQ("untouched", btrfsCmd_);
}

TEST_F(BtrfsToolCmdExc, WhatCannotBeExecutedIsThirteen) {
  const struct {
    const char* name;
    void (*make)();
    int error;
  } kCases[] = {
      {"a directory", [] { std::filesystem::create_directory(kBtrfs); }, EACCES},
      {"no execute bit", [] { WriteFile(kBtrfs, "#!/bin/bash\n"); }, EACCES},
      {"not a program",
       [] {
         WriteFile(kBtrfs, "text");
         std::filesystem::permissions(kBtrfs, std::filesystem::perms(0755));
       },
       ENOEXEC},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove_all(kBtrfs);
    log_.Clear();
    c.make();
    EXPECT_EQ(13, Exec({"256"}));
    EXPECT_EQ(0x0900u, PLATCErrGet());
    EXPECT_EQ(1,
              log_.CountExact(LOG_WARNING, kUnit,
                              "Faild to open pipe" + Tail() + " [" + std::to_string(c.error) + "]"))
        << log_.Dump();
  }
}

TEST_F(BtrfsToolCmdExc, TooLongAnArgumentListIsThirteen) {
  RecordArguments();
  EXPECT_EQ(13, Exec(std::vector<std::string>(400000, "1234567890123456789")));
  EXPECT_EQ(1, log_.CountExact(LOG_WARNING, kUnit,
                               "Faild to open pipe" + Tail() + " [" + std::to_string(E2BIG) + "]"))
      << log_.Dump();
}

TEST_F(BtrfsToolCmdExc, FailedCommandKeepsTheSuccessOfTheParser) {
  FakeBtrfs("echo out; exit 3\n");
  EXPECT_EQ(0, Exec({"256"}));
  EXPECT_EQ("out\n", parser.output);
  EXPECT_EQ(1,
            log_.CountExact(LOG_ERR, kUnit,
                            "Failed to run\"/sbin/btrfs subvolume size -vpm -r /volume1 256 \"."))
      << log_.Dump();
}

TEST_F(BtrfsToolCmdExc, FailedCommandSetsThePlatformError) {
  FakeBtrfs("exit 3\n");
  EXPECT_EQ(0, Exec({"256"}));
  EXPECT_EQ(0x2A00u, PLATCErrGet());
  EXPECT_STREQ(kUnit, PLATCErrorGetFile());
}

TEST_F(BtrfsToolCmdExc, SecondCloseLeavesThePlatformErrorAlone) {
  RecordArguments();
  PLATCErrSetEx(0x1234, "tests/unit", 7);
  EXPECT_EQ(0, Exec({"256"}));
  EXPECT_EQ("[0x1234 tests/unit:7]", Tail());
}

TEST_F(BtrfsToolCmdExc, FailedCommandKeepsTheFailureOfTheParser) {
  FakeBtrfs("exit 3\n");
  parser.verdict = FP_PARSE_FAIL;
  EXPECT_EQ(1, Exec({"256"}));
  parser.verdict = FP_PARSE_SIGNALED;
  EXPECT_EQ(12, Exec({"256"}));
}

TEST_F(BtrfsToolCmdExc, ThePipeIsClosedTwice) {
  RecordArguments();
  std::vector<FILE*> closed;
  std::vector<int> results;
  PlatformHook<decltype(PLATCPclose)> close("PLATCPclose");
  close.Replace([&](FILE* stream) {
    closed.push_back(stream);
    results.push_back(close.Real(stream));
    return results.back();
  });
  EXPECT_EQ(0, Exec({"256"}));
  ASSERT_EQ(2u, closed.size());
  EXPECT_EQ(closed[0], closed[1]);
  EXPECT_EQ((std::vector<int>{0, -1}), results);
  EXPECT_EQ(0, log_.Count("Failed to run")) << log_.Dump();
}

TEST_F(BtrfsToolCmdExc, NoMemoryForTheArgumentsIsOne) {
  NEEDS_MEMORY_LIMITS();
  RecordArguments();
  EXPECT_EQ(0, InChild([&] {
              SzList list = ListOf({});
              list->count = INT_MAX;  // 16 GiB of pointers
              const rlimit limit = {rlim_t{1} << 30, rlim_t{1} << 30};
              setrlimit(RLIMIT_AS, &limit);
              const int ret = Exec(SzListRef(list));
              list->count = 0;
              return ret == 1 && PLATCErrGet() == 0x2A00 && !Exists(kArgsFile) ? 0 : 1;
            }));
}

// ---- Stops --------------------------------------------------------------------------------------

TEST_F(BtrfsToolCmdExc, EarlierStopStartsNothing) {
  RecordArguments();
  for (const int sig : {15, 9}) {
    SCOPED_TRACE(sig);
    BtrfsTool::gSignal = sig;
    PlatformHook<decltype(PLATCPopenv)> open("PLATCPopenv");
    EXPECT_EQ(12, Exec({"256"}));
    EXPECT_EQ(0, open.Calls());
    EXPECT_EQ(sig, BtrfsTool::gSignal);
  }
  EXPECT_EQ(0, log_.Count("BTRFS CMD")) << log_.Dump();
  EXPECT_FALSE(Exists(kArgsFile));
  EXPECT_EQ("untouched", btrfsCmd_);
}

TEST_F(BtrfsToolCmdExc, AnotherNumberInTheFlagIsNoStop) {
  RecordArguments();
  BtrfsTool::gSignal = 2;
  EXPECT_EQ(0, Exec({"256"}));
}

TEST_F(BtrfsToolCmdExc, StopBeforeTheStartStartsNothing) {
  RecordArguments();
  PlatformHook<decltype(PLATCSzListGet)> get("PLATCSzListGet");
  get.Replace([&](const PLATSZLIST* list, int index) {
    raise(SIGTERM);
    return get.Real(list, index);
  });
  PlatformHook<decltype(PLATCPopenv)> open("PLATCPopenv");
  EXPECT_EQ(12, Exec({"256"}));
  EXPECT_EQ(0, open.Calls());
  EXPECT_EQ(15, BtrfsTool::gSignal);
}

TEST_F(BtrfsToolCmdExc, StopBetweenStartAndParserClosesThePipeOnce) {
  RecordArguments();
  PlatformHook<decltype(PLATCPopenv)> open("PLATCPopenv");
  open.Replace([&](const char* path, const char* mode, char* const argv[]) {
    FILE* const stream = open.Real(path, mode, argv);
    raise(SIGTERM);
    return stream;
  });
  PlatformHook<decltype(PLATCPclose)> close("PLATCPclose");
  EXPECT_EQ(12, Exec({"256"}));
  EXPECT_EQ(1, close.Calls());
  EXPECT_EQ(0, parser.calls);
  EXPECT_EQ("untouched", btrfsCmd_);
  EXPECT_EQ(1, log_.Count("BTRFS CMD")) << log_.Dump();
}

TEST_F(BtrfsToolCmdExc, StopIsNeverForgotten) {
  RecordArguments();
  EXPECT_EQ(0, Exec({"256"}));
  raise(SIGTERM);  // to the handler that the run has left
  EXPECT_EQ(12, Exec({"256"}));
  EXPECT_EQ(12, Exec({"256"}));
  EXPECT_EQ(15, BtrfsTool::gSignal);
}

TEST_F(BtrfsToolCmdExc, StopsAreLetInAtTheGatesOnly) {
  RecordArguments();
  EXPECT_EQ(0, Exec({"256"}, &SendStops));
  EXPECT_EQ(0, parser.flagAfterRaise);
  EXPECT_EQ(15, BtrfsTool::gSignal);  // came in when the mask was restored
}

TEST_F(BtrfsToolCmdExc, BurstOfStopsIsOneStop) {
  RecordArguments();
  EXPECT_EQ(0, Exec({"256"}, &SendStops));
  EXPECT_EQ(1, log_.Count("SnapUsageCalculator got signal 15")) << log_.Dump();
}

TEST_F(BtrfsToolCmdExc, HandlerIsInstalledBeforeTheOptionIsLookedAt) {
  RecordArguments();
  task_.calOption = 3;
  EXPECT_EQ(3, Exec({"256"}));
  struct sigaction current;
  ASSERT_EQ(0, sigaction(SIGTERM, nullptr, &current));
  EXPECT_EQ(&SignalHandler::handleSnapUsageCalulate, current.sa_handler);
}

TEST_F(BtrfsToolCmdExc, HandlerIsAskedForSigtermAndThenForSigkill) {
  RecordArguments();
  PlatformHook<__sighandler_t(int, __sighandler_t)> install("signal");
  std::vector<int> asked;
  install.Replace([&](int number, __sighandler_t handler) {
    if (handler == &SignalHandler::handleSnapUsageCalulate) asked.push_back(number);
    return install.Real(number, handler);
  });
  EXPECT_EQ(0, Exec({"256"}));
  EXPECT_EQ((std::vector<int>{SIGTERM, SIGKILL}), asked);
}

TEST_F(BtrfsToolCmdExc, HandlerIsNotInstalledWhenTheCommandIsMissing) {
  EXPECT_EQ(6, Exec({"256"}));
  struct sigaction current;
  ASSERT_EQ(0, sigaction(SIGTERM, nullptr, &current));
  EXPECT_EQ(SIG_DFL, current.sa_handler);
}

TEST_F(BtrfsToolCmdExc, SignalMaskIsRestored) {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  const struct {
    const char* name;
    int verdict;
    int option;
    int flag;
    int result;
  } kCases[] = {{"done", FP_PARSE_OK, CAL_OPT_BY_PATH, 0, 0},
                {"failed", FP_PARSE_FAIL, CAL_OPT_BY_PATH, 0, 1},
                {"unknown option", FP_PARSE_OK, 7, 0, 3},
                {"stopped", FP_PARSE_OK, CAL_OPT_BY_PATH, 15, 12}};
  RecordArguments();
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    parser.verdict = c.verdict;
    task_.calOption = c.option;
    BtrfsTool::gSignal = c.flag;
    EXPECT_EQ(c.result, Exec({"256"}));
    EXPECT_FALSE(Blocks(SIGTERM));

    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    EXPECT_EQ(c.result, Exec({"256"}));
    EXPECT_TRUE(Blocks(SIGTERM));
    pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
  }
}
