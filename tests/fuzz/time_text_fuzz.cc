// Time texts of status files, in several zones: the first byte chooses one.
#include "tests/fuzz/target.h"
#include "tests/fuzz/time_zones.h"
#include "zorvbtrfssnapusage/utils.h"

using namespace ZorvTest;
using ZorvBtrfsUsage::Utils;

FUZZ_TARGET(time_text) {
  FuzzInput bytes(input);
  SetZone(bytes.Number(1));
  time_t time = 77;
  if (!Utils::TimeStringToTime_T(std::string(bytes.Rest()), time)) {
    FUZZ_LAW(time == 77);
    return;
  }
  // The text of a time means a time of the same text.
  std::string text;
  FUZZ_LAW(Utils::Time_tToTimeString(time, text));
  time_t again = 0;
  FUZZ_LAW(Utils::TimeStringToTime_T(text, again));
  std::string textAgain;
  FUZZ_LAW(Utils::Time_tToTimeString(again, textAgain) && textAgain == text);
}
