#include "cli/share_choice.h"

#include <stdio.h>

#include <algorithm>

#include "cli/failure.h"
#include "cli/interrupt.h"
#include "cli/standard_streams.h"

namespace ZorvSnapUsage {

std::vector<std::string> ChosenShares(const ShareChoice& choice,
                                      const std::function<std::vector<std::string>()>& everything) {
  if (choice.all) return everything();
  if (choice.names.empty())
    throw Failure(kWrongUsage, "no share is named", "name shares, or say --all");
  std::vector<std::string> shares;
  for (const std::string& name : choice.names)
    if (std::find(shares.begin(), shares.end(), name) == shares.end()) shares.push_back(name);
  return shares;
}

int ForEachShare(const ShareChoice& choice, const std::vector<std::string>& shares,
                 const std::function<void(const std::string& share)>& work) {
  int status = kOk;
  for (const std::string& share : shares) {
    try {
      work(share);
    } catch (const Failure& failure) {
      if (!choice.Several() || Interrupt::Asked()) throw;
      (void)fflush(stdout);
      Say(failure.what());
      if (status == kOk) status = failure.Status();
    }
  }
  return status;
}

}  // namespace ZorvSnapUsage
