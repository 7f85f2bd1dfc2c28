#include "cli/engine_table.h"

#include <fmt/format.h>

#include <chrono>

#include "base/paths.h"
#include "cli/engine.h"
#include "cli/engine_failure.h"
#include "cli/program_run.h"
#include "cli/standard_streams.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

using Ids = std::vector<unsigned long long>;

// MiB for sets: that many take one bit for each subvolume and 64 bytes, so that the document, with
// some digits for each member, has at most 48 times as much.
constexpr char kTableMemory[] = "4";
constexpr size_t kMostOutput = size_t{4 * 48} << 20;

constexpr char kErrorMark[] = "ERROR: ";
constexpr char kFailureMark[] = "exclusive sizes unavailable: ";

bool BeginsWith(const std::string& text, const char* beginning) {
  return text.rfind(beginning, 0) == 0;
}

// Says once that it takes a while, when it does.
class Patience {
 public:
  explicit Patience(Silence silence) : said_(silence == Silence::kQuiet) {}

  void Tick() {
    if (said_ || std::chrono::steady_clock::now() - begin_ < std::chrono::seconds(2)) return;
    ToStandardError("zorv-snapusage: reading the file system (Ctrl-C ends it)\n");
    said_ = true;
  }

 private:
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  bool said_;
};

// Everything but the reason of a failure, which becomes one of this program.
void PassOn(const std::string& line) {
  if (!BeginsWith(line, kErrorMark)) ToStandardError(Escaped(line) + "\n");
}

// The engine's own words about its failure; they stand in the output as well, without numbers.
std::string ReasonOf(const ProgramEnd& end) {
  if (BeginsWith(end.lastError, kErrorMark)) return end.lastError.substr(sizeof kErrorMark - 1);
  if (BeginsWith(end.output, kFailureMark))
    return end.output.substr(sizeof kFailureMark - 1,
                             end.output.find('\n') - (sizeof kFailureMark - 1));
  return "it ended without a result";
}

std::string DocumentOf(const std::vector<std::string>& options, const std::string& directory,
                       const Ids& arguments, Silence silence) {
  RequireEngine();
  std::vector<std::string> argv = {ZorvBtrfsUsage::kBtrfsProgram, "subvolume", "size"};
  argv.insert(argv.end(), options.begin(), options.end());
  for (const char* word : {"--format", "json", "-r"}) argv.emplace_back(word);
  argv.push_back(directory);
  for (const unsigned long long id : arguments) argv.push_back(std::to_string(id));
  Patience patience(silence);
  ProgramEnd end = RunProgram(argv, {kMostOutput, PassOn, [&] { patience.Tick(); }});
  if (end.waitStatus != 0 || BeginsWith(end.output, kFailureMark))
    throw EngineFailure("reading the file system", ReasonOf(end), directory);
  return std::move(end.output);
}

// Calls `read`, whose complaints become a failure.
template <typename Read>
auto Understood(const Read& read) {
  try {
    return read();
  } catch (const JsonError& error) {
    throw Failure(kNotAnEngine,
                  fmt::format("the answer of {} cannot be read ({})", ZorvBtrfsUsage::kBtrfsProgram,
                              Escaped(error.what())),
                  "install the engine that belongs to this program");
  }
}

std::string Joined(const Ids& ids) {
  std::string text;
  for (const unsigned long long id : ids) text += (text.empty() ? "" : ",") + std::to_string(id);
  return text;
}

}  // namespace

SizeTable AskForTable(const std::string& directory, const Ids& subvolumeIDs, Silence silence) {
  const std::string document =
      DocumentOf({"--table", "--table-memory", kTableMemory}, directory, subvolumeIDs, silence);
  return Understood([&] { return ReadTableDocument(document, subvolumeIDs); });
}

Forecast AskForForecast(const std::string& directory, const Ids& subvolumeIDs) {
  const std::string document =
      DocumentOf({"--forecast", Joined(subvolumeIDs)}, directory, {}, Silence::kSpeak);
  return Understood([&] { return ReadForecastDocument(document, subvolumeIDs); });
}

}  // namespace ZorvSnapUsage
