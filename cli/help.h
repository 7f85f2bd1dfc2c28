// How help texts look.
#ifndef CLI_HELP_H_
#define CLI_HELP_H_

namespace CLI {
class App;
}

namespace ZorvSnapUsage {

// For the program and all commands that are added to it from then on. A help text is to fit a
// screen of 24 lines of 80 columns; descriptions of options have 56 columns, and go on below where
// they are longer.
void SetHelpStyle(CLI::App& program);

}  // namespace ZorvSnapUsage

#endif  // CLI_HELP_H_
