// hold_worker: stops the next worker of the engine (SIGSTOP) and prints its pid; for the
// demonstration, which asks for a stop in the middle of a run.
#include <stdio.h>

#include "tests/support/engine_worker.h"

int main() {
  const int worker = ZorvTest::HoldEngineWorker();
  if (worker < 0) {
    fprintf(stderr, "hold_worker: no engine was started within 20 seconds\n");
    return 1;
  }
  printf("%d\n", worker);
  return 0;
}
