// System calls fail, one after the other, in each process of a calculation.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zorvbtrfssnapusage/share_snap_usage_cal.h>
#include <zorvbtrfssnapusage/utils.h>

#include <algorithm>
#include <map>

#include "base/paths.h"
#include "base/sz_list.h"
#include "tests/support/command.h"
#include "tests/support/torture.h"
#include "tests/torture/fault_plan.h"
#include "tests/torture/scarcity_world.h"

using namespace ZorvTest;
using namespace ZorvBtrfsUsage;

namespace {

// Counts by the name of the call.
class Counts {
 public:
  void Add(const std::string& name) { ++counts_[name]; }
  void Leave() const {
    for (const auto& [name, count] : counts_) Figure(name, count);
  }

 private:
  std::map<std::string, unsigned long long> counts_;
};

// ---- The library --------------------------------------------------------------------------------

class FailingCallsOfTheLibrary : public testing::Test {
 protected:
  // Tries the faults while there is time, and those that are always tried.
  void Try(const std::vector<Fault>& faults, const Budget& budget) {
    Counts counts;
    for (const Fault& fault : faults) {
      if (fault.always || budget.IsLeft()) TryOne(fault, &counts);
    }
    EXPECT_GT(tried_, 0u);
    Figure("faults", tried_);
    Figure("of faults", faults.size());
    counts.Leave();
    Figure("states cleaned as documented", cleaned_);
    Figure("unreadable files that lost other members", lostMembers_);
    Figure("results without some numbers", short_);
    Figure("results that were not copied", noResult_);
    Figure("wrong numbers", wrongNumbers_);
    Figure("lost", lost_);
  }

  static bool IsOfTheEngine(const Step& step) {
    const bool isMute = step.call == SYS_mmap && step.ofCall == 1;  // its loader has no words yet
    return (step.role == Role::kFront && !isMute) || step.role == Role::kWorker;
  }

  static bool IsOfTheLibrary(const Step& step) {
    return step.role == Role::kCaller || step.role == Role::kCalculator;
  }

  ScarcityWorld world_;

 private:
  void TryOne(const Fault& fault, Counts* counts) {
    SCOPED_TRACE(fault.Name());
    world_.log.Clear();
    FaultyRun run;
    try {
      run = RunWithFault([this] { return world_.Calculate(); }, fault);
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
      ++tried_;
      ++lost_;
      return world_.Restore();
    }
    if (run.hit.empty()) return world_.Restore();
    ++tried_;
    counts->Add(NameOfCall(fault.step) + " " + fault.What());
    Aftermath aftermath;
    JudgeCodes(run, &aftermath);
    const std::string log = world_.log.Dump();
    JudgeWords(fault, run, log, &aftermath);
    const Aftermath judged = world_.Judge(run.status, ToleratedOf(fault, run));
    aftermath.wrong.insert(aftermath.wrong.end(), judged.wrong.begin(), judged.wrong.end());
    if (fault.action.kind == Action::kShorten && (run.status != 0 || judged.state != "done"))
      aftermath.wrong.push_back("something short was taken for a failure");
    cleaned_ += judged.cleaned;
    lostMembers_ += judged.lostMembers;
    short_ += judged.shortResult;
    noResult_ += judged.noResult;
    lost_ += !aftermath.wrong.empty();
    for (const std::string& wrong : aftermath.wrong) {
      wrongNumbers_ += Has(wrong, "wrong numbers");
      ADD_FAILURE() << wrong << "\n" << log;
    }
  }

  static void JudgeCodes(const FaultyRun& run, Aftermath* aftermath) {
    // A writer whose reader has gone ends so; the reader has said that it failed.
    const bool readerFailed = Has(run.hit.front().text, "read(pipe:") || run.hit.size() > 1;
    // The front kills a worker that it needs no more.
    const bool mayCrash =
        (readerFailed && Has(run.crashed, "by Broken pipe")) || run.crashed == "worker by Killed; ";
    ScarcityWorld::JudgeEnds({run.status, run.calculators, mayCrash ? "" : run.crashed}, aftermath);
  }

  // The log says what went wrong, in the text that belongs to it.
  static void JudgeWords(const Fault& fault, const FaultyRun& run, const std::string& log,
                         Aftermath* aftermath) {
    const std::string text = IsOfTheEngine(fault.step) ? "" : TextFor(run.hit.front(), fault);
    if (!text.empty() && !Has(log, text))
      aftermath->wrong.push_back("the log does not say: " + text);
  }

  // Empty: nothing is to be said of it, for it is tried again, or does not matter.
  static std::string TextFor(const Step& step, const Fault& fault) {
    if (fault.action.kind != Action::kFail) return "";
    const std::string& text = step.text;
    const std::string why = strerror(static_cast<int>(fault.action.value));
    const bool ofLock = Has(text, kLockDir) && (step.arguments[2] & O_CREAT) != 0;
    const bool temporary = Has(text, ".zorvcopy.");
    switch (step.call) {
      case SYS_openat:
        return ofLock ? ", errm" : "";
      case SYS_mkdir:
        return "Faild to mkdir " + text.substr(6, text.size() - 7) + ", err:(" + why + ").[0x";
      case SYS_rename:
        return temporary ? "Failed to copy from (" : "Failed to write Json data to file, path: ";
      case SYS_write:
        if (fault.action.value == EINTR) return "";
        if (Has(text, "zorvcopy")) return "Failed to copy from (";
        if (Has(text, kTaskResultDir)) return "Some errors occur on output stream, file: ";
        if (Has(text, "task_status") || Has(text, kShareMap))
          return "Failed to write Json data to file, path: ";
        return "";
      default:
        return "";
    }
  }

  static Tolerated ToleratedOf(const Fault& fault, const FaultyRun& run) {
    Tolerated tolerated;
    // Which file the library wanted memory for cannot be told.
    const bool ofMemory = fault.step.call == SYS_mmap || fault.action.value == ENOMEM;
    tolerated.unfinished = fault.lasting || ofMemory;
    for (const Step& step : run.hit) {
      const bool reads = step.call == SYS_openat || step.call == SYS_read ||
                         step.call == SYS_readv || step.call == SYS_close;
      for (const std::string& path : {std::string(kShareMap), ShareStatusPath("photos")})
        if (reads && (Has(step.text, "(" + path + ")") || Has(step.text, "(" + path + ",")))
          tolerated.unreadable.insert(path);
      if (step.call == SYS_unlink) tolerated.notRemoved = step.text.substr(7, step.text.size() - 8);
      for (const char* road : {"task_status", "share_snap_cal_map"})
        tolerated.unfinished |= Has(step.text, road);
      // Whoever loads the engine cannot say that it failed.
      tolerated.shortOutput |= step.role == Role::kFront;
      // Any failure to read the command's output is its end, but a signal is none.
      tolerated.shortOutput |=
          step.call == SYS_read && Has(step.text, "pipe:") && fault.action.value != EINTR;
      // opendir(3) of it, which opens and then looks at what it has opened.
      tolerated.unlisted |= step.text == "openat(" + std::string(kTaskResultDir) + ")" ||
                            step.text == "newfstatat(, " + std::string(kTaskResultDir) + ")";
    }
    return tolerated;
  }

  unsigned long long tried_ = 0, cleaned_ = 0, lostMembers_ = 0, short_ = 0, noResult_ = 0;
  unsigned long long wrongNumbers_ = 0, lost_ = 0;
};

TEST_F(FailingCallsOfTheLibrary, OneCall) {
  const Budget budget(0.55);
  const std::vector<Fault> faults =
      PlanFaults([this] { return world_.Calculate(); }, IsOfTheLibrary, AllActions);
  world_.Restore();
  Try(faults, budget);
}

// What fails in the engine is a failure of the calculation, or nothing.
TEST_F(FailingCallsOfTheLibrary, OneCallOfTheEngine) {
  const Budget budget(0.15);
  world_.UseRealEngine();
  const std::vector<Fault> faults =
      PlanFaults([this] { return world_.Calculate(); }, IsOfTheEngine, AllActions);
  world_.Restore();
  Try(faults, budget);
}

TEST_F(FailingCallsOfTheLibrary, FromOneCallOn) {
  const Budget budget(0.2);
  const std::vector<Fault> faults = PlanFaults([this] { return world_.Calculate(); },
                                               IsOfTheLibrary, LastingActions, /*lasting=*/true);
  world_.Restore();
  Try(faults, budget);
}

// ---- Who reads ----------------------------------------------------------------------------------

class FailingCallsOfAReader : public testing::Test {
 protected:
  // All that is read of a share that is done, and the reminder is set once more. 0; 1: something
  // was refused; 2: something else was given.
  int Read() const {
    std::vector<unsigned long long> ids, bytes, sums;
    SzList names = MakeSzList();
    bool refused = false, wrong = false, reminder = false;
    const auto take = [&](bool given, const auto& isRight) {
      refused |= !given;
      wrong |= given && !isRight();
    };
    using Cal = ShareSnapUsageCal;
    take(Cal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, kShare, ids) == RESULT_OK,
         [&] { return ids == Of([](const auto& size) { return size.first; }); });
    take(Cal::GetResultVtr(TASK_RESULT_OPT_RESULT, kShare, bytes) == RESULT_OK,
         [&] { return bytes == Of([](const auto& size) { return size.second; }); });
    unsigned long long sum = 0;
    take(Cal::GetShareSnapAccumUsageVtr(kShare, sums) == RESULT_OK,
         [&] { return sums == Of([&](const auto& size) { return sum += size.second; }); });
    const int found = Cal::FindSnapNameBySubvolID(kShare, ids, SzListRef(names));
    take(found == RESULT_OK, [&] { return names->count == static_cast<int>(ids.size()); });
    take(Utils::ReminderStatusGet(reminder), [&] { return reminder; });
    take(Utils::ReminderStatusSet(true), [] { return true; });
    return wrong ? 2 : refused ? 1 : 0;
  }

  template <typename Choose>
  std::vector<unsigned long long> Of(const Choose& choose) const {
    std::vector<unsigned long long> values;
    for (const auto& size : world_.Expected()) values.push_back(choose(size));
    return values;
  }

  static constexpr char kShare[] = "photos";

  ScarcityWorld world_;
};

TEST_F(FailingCallsOfAReader, OneCall) {
  const Budget budget(0.1);
  const auto body = [this] { return world_.Noting([this] { return Read(); }); };
  const std::vector<Fault> faults = PlanFaults(
      body, [](const Step& step) { return step.role == Role::kCaller; }, AllActions);
  unsigned long long tried = 0, refused = 0, lost = 0;
  for (const Fault& fault : faults) {
    if (!fault.always && !budget.IsLeft()) continue;
    SCOPED_TRACE(fault.Name());
    const FaultyRun run = RunWithFault(body, fault);
    ++tried;
    refused += run.status == 1;
    Aftermath aftermath;
    Tolerated tolerated;
    if (fault.step.call == SYS_unlink && !run.hit.empty())
      tolerated.notRemoved = run.hit[0].text.substr(7, run.hit[0].text.size() - 8);
    if (Has(fault.step.text, std::string("(") + kReminderRecord))
      tolerated.unreadable.insert(kReminderRecord);
    world_.JudgeLeftBehind(&aftermath);
    world_.JudgeFiles(tolerated, &aftermath);
    world_.JudgeTemporaryFiles(tolerated, &aftermath);
    if (!run.crashed.empty()) aftermath.wrong.push_back("ended by a signal: " + run.crashed);
    if (run.status > 1) aftermath.wrong.push_back("it was given something wrong");
    if (fault.action.kind == Action::kShorten && run.status != 0)
      aftermath.wrong.push_back("something short was taken for a failure");
    lost += !aftermath.wrong.empty();
    for (const std::string& wrong : aftermath.wrong) ADD_FAILURE() << wrong;
    world_.Restore();
  }
  EXPECT_GT(tried, 0u);
  Figure("faults", tried);
  Figure("of faults", faults.size());
  Figure("refused", refused);
  Figure("lost", lost);
}

}  // namespace
