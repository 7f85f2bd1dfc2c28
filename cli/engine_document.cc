#include "cli/engine_document.h"

#include "cli/deletions.h"
#include "cli/engine.h"
#include "cli/engine_failure.h"
#include "cli/patience.h"
#include "cli/program_run.h"
#include "cli/standard_streams.h"

namespace ZorvSnapUsage {
namespace {

constexpr char kErrorMark[] = "ERROR: ";
constexpr char kNoteMark[] = "NOTE: ";
constexpr char kDeletionMark[] = "NOTE: a subvolume is being deleted";
constexpr char kFailureMark[] = "exclusive sizes unavailable: ";

bool BeginsWith(const std::string& text, const char* beginning) {
  return text.rfind(beginning, 0) == 0;
}

// Everything but the reason of a failure, which becomes one of this program, as its notes do.
void PassOn(const std::string& line) {
  if (BeginsWith(line, kErrorMark)) return;
  if (BeginsWith(line, kDeletionMark) && DeletionsAreTold()) return;
  if (BeginsWith(line, kNoteMark))
    Say("note: " + Escaped(line.substr(sizeof kNoteMark - 1)));
  else
    ToStandardError(Escaped(line) + "\n");
}

// The engine's own words about its failure; they stand in the output as well, without numbers.
std::string ReasonOf(const ProgramEnd& end) {
  if (BeginsWith(end.lastError, kErrorMark)) return end.lastError.substr(sizeof kErrorMark - 1);
  if (BeginsWith(end.output, kFailureMark))
    return end.output.substr(sizeof kFailureMark - 1,
                             end.output.find('\n') - (sizeof kFailureMark - 1));
  return "it ended without a result";
}

}  // namespace

std::string AskEngine(const DocumentQuestion& question) {
  const char* engine = FindEngine();
  std::vector<std::string> argv = {engine, "subvolume", "size"};
  argv.insert(argv.end(), question.options.begin(), question.options.end());
  for (const char* word : {"--format", "json", "-r"}) argv.emplace_back(word);
  argv.push_back(question.directory);
  for (const unsigned long long id : question.subvolumeIDs) argv.push_back(std::to_string(id));
  Patience patience("reading the file system", question.quiet);
  ProgramEnd end = RunProgram(argv, {question.mostOutput, PassOn, [&] { patience.Tick(); }});
  if (end.waitStatus != 0 || BeginsWith(end.output, kFailureMark))
    throw EngineFailure("reading the file system", ReasonOf(end), engine, question.directory);
  return std::move(end.output);
}

}  // namespace ZorvSnapUsage
