#!/usr/bin/env bash
# Installs what is missing, builds, runs every test, prints the counts.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

preset=debug selection=(--label-exclude torture)
[ "${CI:-}" = true ] && preset=ci
for argument in "$@"; do
  case $argument in
    # Memory limits cannot be tried under it: these tests are named as skipped, and run without it.
    --asan) preset=asan CI= ;;
    --units) TARGET=unit_tests selection=(--label-regex '^unit$') ;;
    --help)
      echo "usage: sudo scripts/test.sh [--asan] [--units]"
      echo "Runs every test in a private world; nothing of this machine is touched but build/."
      echo "  --asan   under AddressSanitizer and UndefinedBehaviorSanitizer"
      echo "  --units  only the tests of single units and of contracts"
      exit 0
      ;;
    *) die "unknown argument $argument; try --help" ;;
  esac
done

need_machine
install_packages
build "$preset"

results=$PROJECT/build/$preset/test-results
rm -rf "$results"
status=0
ctest --test-dir "$PROJECT/build/$preset" -j "$(nproc)" "${selection[@]}" \
  --output-on-failure || status=1
python3 "$PROJECT/tests/tools/count_results.py" "$results" || status=1
exit $status
