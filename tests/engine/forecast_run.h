// Asks the engine for a plan of deletion and takes its lines apart.
#ifndef TESTS_ENGINE_FORECAST_RUN_H_
#define TESTS_ENGINE_FORECAST_RUN_H_

#include <gtest/gtest.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "tests/engine/engine_run.h"

namespace ZorvTest {

// The bytes of one step of a plan.
struct ForecastStep {
  unsigned long long id = 0, data = 0, metadata = 0, soFarData = 0, soFarMetadata = 0;
};

// The IDs with commas between them, as --forecast takes them.
inline std::string Joined(const std::vector<unsigned long long>& ids) {
  std::string text;
  for (const unsigned long long id : ids) text += (text.empty() ? "" : ",") + std::to_string(id);
  return text;
}

// The steps that a run printed, whose numbers must be 1, 2, 3, ...
inline std::vector<ForecastStep> StepsOf(const EngineRun& run) {
  std::vector<ForecastStep> steps;
  for (const std::string& line : run.lines) {
    ForecastStep step;
    unsigned number = 0;
    if (sscanf(line.c_str(),
               "forecast %u %llu data %llu metadata %llu so far data %llu metadata %llu", &number,
               &step.id, &step.data, &step.metadata, &step.soFarData, &step.soFarMetadata) != 6)
      continue;
    steps.push_back(step);
    EXPECT_EQ(steps.size(), number);
  }
  return steps;
}

}  // namespace ZorvTest

#endif  // TESTS_ENGINE_FORECAST_RUN_H_
