// The commands of the program: each function declares one, with its options, help and example.
#ifndef CLI_COMMANDS_H_
#define CLI_COMMANDS_H_

#include <functional>
#include <string>

namespace CLI {
class App;
}

namespace ZorvSnapUsage {

// What the chosen command does; set while the command line is read, run afterwards. Returns the
// exit status, or throws Failure.
using Action = std::function<int()>;

void AddRun(CLI::App& program, Action& action);
void AddStart(CLI::App& program, Action& action);
void AddStatus(CLI::App& program, Action& action);
void AddShow(CLI::App& program, Action& action);
void AddPlan(CLI::App& program, Action& action);
void AddExplain(CLI::App& program, Action& action);
void AddWhyheld(CLI::App& program, Action& action);
void AddStop(CLI::App& program, Action& action);
void AddClean(CLI::App& program, Action& action);
void AddNames(CLI::App& program, Action& action);
void AddReminder(CLI::App& program, Action& action);
void AddShares(CLI::App& program, Action& action);
void AddWait(CLI::App& program, Action& action);

}  // namespace ZorvSnapUsage

#endif  // CLI_COMMANDS_H_
