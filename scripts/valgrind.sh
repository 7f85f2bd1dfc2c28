#!/usr/bin/env bash
# Runs the tests that need one process alone under valgrind's memcheck.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

PACKAGES="$PACKAGES valgrind"
# Programs without a volume, an engine or a command: what valgrind does not follow proves nothing.
PROGRAMS="base_test platform_test utils_test signal_handler_test task_status_test share_task_status_test
          task_result_test snap_usage_cal_task_test snap_usage_cal_clean_test share_snap_usage_cal_map_test
          share_snap_usage_cal_results_test share_snap_usage_cal_cleanup_test
          share_snap_usage_cal_callbacks_test engine_units_test cli_text_test"
# Valgrind needs memory and descriptors for itself, does not see what the kernel writes through a
# ring, is not the program that a stepper expects, and stretches the times by which the last one
# judges a disk.
LEFT_OUT='*Memory*:*Limit*:*Descriptor*:*CannotBeOpened*:*CannotBeMade*:*/Ring*:ReadPipeline.*:UtilsSearchTaskFile.DirectoryThatCannotBeReadFails:BlockReaderSweep.ReadsNoGapsOnADiskThatIsOnlySaidToRotate'

preset=debug
[ "${CI:-}" = true ] && preset=ci
case "${1:-}" in
  '') ;;
  --help)
    echo "usage: sudo scripts/valgrind.sh"
    echo "Runs $(echo $PROGRAMS | wc -w) test programs under valgrind: reads of what was never written, and leaks."
    echo "An error ends with status 1; the reports are in build/<preset>/valgrind."
    exit 0
    ;;
  *) die "unknown argument $1; try --help" ;;
esac

need_machine
install_packages
build "$preset"
built=$PROJECT/build/$preset
rm -rf "$built/valgrind"
mkdir -p "$built/valgrind"

# Valgrind does not know the calls that make a private world, so it is started in one.
check() { # PROGRAM
  "$built/bin/sandbox" --bind "$built" -- valgrind --quiet --error-exitcode=99 --leak-check=full \
    --errors-for-leak-kinds=definite --child-silent-after-fork=yes --suppressions="$PROJECT/tests/tools/valgrind.supp" \
    "$built/bin/$1" --gtest_filter="-$LEFT_OUT" >"$built/valgrind/$1" 2>&1 && echo "clean: $1" && return
  echo "not clean: $1; see build/$preset/valgrind/$1"
  grep -E '^==|FAILED' "$built/valgrind/$1" | head -n 30
  return 1
}

status=0
export -f check
export built preset PROJECT LEFT_OUT
echo $PROGRAMS | tr ' ' '\n' | xargs -P "$(nproc)" -I{} bash -c 'check {}' || status=1
exit $status
