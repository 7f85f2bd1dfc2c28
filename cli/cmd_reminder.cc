// zorv-snapusage reminder: the flag that other programs remind their users by.
#include <zorvbtrfssnapusage/utils.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/begin_work.h"
#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/leftovers.h"
#include "cli/nearest.h"
#include "cli/standard_streams.h"
#include "cli/text.h"

namespace ZorvSnapUsage {
namespace {

using ZorvBtrfsUsage::Utils;

bool RequireOnOrOff(const std::string& word) {
  if (word == "on" || word == "off") return word == "on";
  throw Failure(kWrongUsage, Quoted(word) + " is no setting of the reminder",
                DidYouMean(word, {"on", "off"}, "say on or off"));
}

int Reminder(const std::string& word) {
  const bool asked = word.empty() || RequireOnOrOff(word);
  BeginWork();
  if (!word.empty()) {
    RemoveLeftovers();
    if (!Utils::ReminderStatusSet(asked)) throw SystemFailure("the reminder could not be set");
  }
  bool on = false;  // what was never set is off
  (void)Utils::ReminderStatusGet(on);
  ToStandardOutput(on ? "on\n" : "off\n");
  return kOk;
}

}  // namespace

void AddReminder(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("reminder", "Show or set the reminder of the whole system");
  const auto word = std::make_shared<std::string>();
  command->add_option("SETTING", *word, "on or off (default: only show it)")->type_name("");
  command->footer(
      "A flag for programs that remind users of space; it changes no calculation.\n"
      "Example: zorv-snapusage reminder on");
  command->callback([word, &action] { action = [word] { return Reminder(*word); }; });
}

}  // namespace ZorvSnapUsage
