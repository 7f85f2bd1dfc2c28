// Which shares a command line asks about.
#ifndef CLI_SHARE_CHOICE_H_
#define CLI_SHARE_CHOICE_H_

#include <functional>
#include <string>
#include <vector>

namespace ZorvSnapUsage {

// SHARE... | --all
struct ShareChoice {
  std::vector<std::string> names;
  bool all = false;

  // Whether the answer is one of several, however many shares there are.
  bool Several() const { return all || names.size() > 1; }
};

// The named shares, each once, in the order of their first naming; with --all those of
// `everything`. Gives up when the command line says neither.
std::vector<std::string> ChosenShares(const ShareChoice& choice,
                                      const std::function<std::vector<std::string>()>& everything);

// Does `work` for one share after the other. Of several, a failure is said and the next share is
// gone on with; then the exit status is that of the first failure. A failure of a single one, and
// the end that the user has asked for, are thrown as they are.
int ForEachShare(const ShareChoice& choice, const std::vector<std::string>& shares,
                 const std::function<void(const std::string& share)>& work);

}  // namespace ZorvSnapUsage

#endif  // CLI_SHARE_CHOICE_H_
