#!/usr/bin/env bash
# Holds the product's sources against clang-tidy and cppcheck; both have to be silent.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

PACKAGES="$PACKAGES clang-tidy cppcheck"
FOLDERS="base cli engine intl_utils platform/linux share_snap_calculator snap_calculator utils"
# cppcheck 2.10 does not know __VA_OPT__: left undefined, the log macros are calls like any other.
MACROS="-UZLOG -UZLOG_AT -UZLOG_TASK"

preset=debug
[ "${CI:-}" = true ] && preset=ci
case "${1:-}" in
  '') ;;
  --help)
    echo "usage: sudo scripts/lint.sh"
    echo "Checks the product (not the tests) with clang-tidy (.clang-tidy) and cppcheck (.cppcheck): which"
    echo "checks there are, and what is excepted, is argued in these two files."
    exit 0
    ;;
  *) die "unknown argument $1; try --help" ;;
esac

need_machine
install_packages
cd "$PROJECT"
cmake --preset "$preset" >/dev/null

status=0
cppcheck --quiet --error-exitcode=1 --std=c++20 --language=c++ --library=posix --inline-suppr \
  --enable=warning,performance,portability --suppressions-list=.cppcheck \
  $MACROS -D__linux__ -I. -Iinclude -Iplatform/include -j "$(nproc)" $FOLDERS || status=1

find $FOLDERS -name '*.cc' -print0 | sort -z |
  xargs -0 -P "$(nproc)" -n 1 clang-tidy -p "build/$preset" --quiet --warnings-as-errors='*' 2>/dev/null || status=1
[ $status = 0 ] && echo "clang-tidy and cppcheck: clean"
exit $status
