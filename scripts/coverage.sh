#!/usr/bin/env bash
# Which branches of the library no test takes; each has to be explained in tests/uncovered.tsv.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

PACKAGES="$PACKAGES gcovr"
# The library's own tests. Those of the engine and the tool, of scripts and of the tests' own helpers
# are about other programs.
TESTS='^(base|platform|utils|btrfs_tool|signal_handler|task|share|snap_usage_cal|contract|ten_shares)_'
# Not platform/linux: its table is to come (some 90 lines).
FOLDERS="base intl_utils utils snap_calculator share_snap_calculator include"
case "${1:-}" in
  '') ;;
  --help)
    echo "usage: sudo scripts/coverage.sh"
    echo "Runs the library's tests on a build that counts, and prints the branches of the library that none took"
    echo "and that tests/uncovered.tsv does not explain.  The whole report: build/coverage/branches.txt."
    exit 0
    ;;
  *) die "unknown argument $1; try --help" ;;
esac

need_machine
install_packages
cd "$PROJECT"
built=$PROJECT/build/coverage
cmake --preset coverage >/dev/null
# A test has the name of its program.
TARGET=$(ctest --test-dir "$built" --show-only=json-v1 --tests-regex "$TESTS" 2>/dev/null |
  python3 -c 'import json, sys; print(*(test["name"] for test in json.load(sys.stdin)["tests"]))')
build coverage
find "$built" -name '*.gcda' -delete
ctest --test-dir "$built" -j "$(nproc)" --tests-regex "$TESTS" --output-on-failure >"$built/tests.log" 2>&1 ||
  die "tests failed; see build/coverage/tests.log"

# For people; check_branches.py says why it does not judge by it.
filters=()
for folder in $FOLDERS; do filters+=(--filter "$PROJECT/$folder/"); done
gcovr --root "$PROJECT" --object-directory "$built" "${filters[@]}" \
  --exclude-throw-branches --exclude-unreachable-branches --branches --txt "$built/branches.txt" "$built" 2>/dev/null

find "$built" -name '*.gcda' -print0 |
  xargs -0 -n 1 gcov --json-format --branch-probabilities --stdout 2>/dev/null >"$built/branches.json"
python3 tests/tools/check_branches.py $FOLDERS tests/uncovered.tsv <"$built/branches.json"
