#!/usr/bin/env bash
# Which branches of the library no test takes; each has to be explained in tests/uncovered.tsv.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

PACKAGES="$PACKAGES gcovr"
case "${1:-}" in
  '') ;;
  --help)
    echo "usage: sudo scripts/coverage.sh"
    echo "Runs the tests on a build that counts, and prints the branches of the library that none took and"
    echo "that tests/uncovered.tsv does not explain.  The whole report: build/coverage/branches.txt."
    exit 0
    ;;
  *) die "unknown argument $1; try --help" ;;
esac

need_machine
install_packages
build coverage
built=$PROJECT/build/coverage
find "$built" -name '*.gcda' -delete
# The engine is a program of its own; its tests do not run the library.
ctest --test-dir "$built" -j "$(nproc)" --label-exclude torture --exclude-regex '^(engine_|coverage_table)' \
  --output-on-failure >"$built/tests.log" 2>&1 || die "tests failed; see build/coverage/tests.log"

# Branches that only an exception takes are the compiler's, not the source's.
gcovr --root "$PROJECT" --object-directory "$built" --exclude-throw-branches --exclude-unreachable-branches \
  --filter 'base/' --filter 'intl_utils/' --filter 'utils/' --filter 'snap_calculator/' \
  --filter 'share_snap_calculator/' --filter 'include/' --filter 'platform/linux/' \
  --json "$built/branches.json" --branches --txt "$built/branches.txt" --gcov-ignore-parse-errors
tail -n 3 "$built/branches.txt"
python3 "$PROJECT/tests/tools/check_branches.py" "$built/branches.json" "$PROJECT/tests/uncovered.tsv"
