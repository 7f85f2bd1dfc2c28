// What the files of the library must hold, told by the renames and removals that were made.
#ifndef TESTS_TORTURE_RECORD_LEDGER_H_
#define TESTS_TORTURE_RECORD_LEDGER_H_

#include <map>
#include <string>
#include <vector>

#include "tests/support/syscall_stepper.h"

namespace ZorvTest {

// Files of the library in these kinds, by their places.
//   record: a JSON file that is replaced by rename, or a copy of a result
//   temporary file: beside a record, not yet, or never, renamed
bool IsTemporary(const std::string& path);

// All records, or all temporary files, that there are now.
std::vector<std::string> Records();
std::vector<std::string> TemporaryFiles();

// Follows the processes of a calculation: a record holds what was renamed to it last, whole, and is
// gone when it was removed.
class RecordLedger {
 public:
  // The records as they are now are the first entries.
  RecordLedger();

  // Takes note of a step that is being made.
  void Take(const Step& step);

  // What is wrong with the records as they are now; empty when nothing is.
  std::string Differences() const;

  // How many objects it has seen put in place.
  size_t Renames() const { return renames_; }

 private:
  std::map<std::string, std::string> contents_;
  std::string unreadable_;
  size_t renames_ = 0;
};

}  // namespace ZorvTest

#endif  // TESTS_TORTURE_RECORD_LEDGER_H_
