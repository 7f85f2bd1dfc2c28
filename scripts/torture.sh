#!/usr/bin/env bash
# Kills, cuts, fills, races and misleads the product for a given time, and counts what was lost.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

minutes=60 preset=debug only=
[ "${CI:-}" = true ] && preset=ci

while [ $# -gt 0 ]; do
  case $1 in
    --short) minutes=6; shift ;;
    --minutes)
      [[ ${2:-} =~ ^[1-9][0-9]{0,4}$ ]] || die "--minutes needs a number from 1 on"
      minutes=$2
      shift 2
      ;;
    --help)
      echo "usage: sudo scripts/torture.sh [--short | --minutes N] [HARNESS...]"
      echo "Runs the harnesses of tests/torture in private worlds, all of them or those named, for about"
      echo "N minutes together (60).  Prints what each did and lost; docs/testing.md tells how to read it."
      echo "  --short   6 minutes: every harness, with steps from all parts of its road"
      exit 0
      ;;
    -*) die "unknown argument $1; try --help" ;;
    *)
      [ -f "$PROJECT/tests/torture/$1_test.cc" ] || die "no such harness: $1; they are $(echo $(
        cd "$PROJECT/tests/torture" && ls -- *_test.cc | sed 's/_test\.cc$//'))"
      only=${only:+$only|}$1
      shift
      ;;
  esac
done

need_machine
grep -qw fuse /proc/filesystems || modprobe fuse 2>/dev/null || true
grep -qw fuse /proc/filesystems || die "this kernel has no FUSE; install one with CONFIG_FUSE_FS"
install_packages
build "$preset"
[[ "${only:-fuzz}" =~ (^|\|)fuzz(\||$) ]] && build_fuzzers

built=$PROJECT/build/$preset
selection=(--test-dir "$built" -L torture -R "^(${only:-.*})_test\$")
count=$(ctest "${selection[@]}" --show-only | sed -n 's/^Total Tests: //p')
[ "$count" -gt 0 ] || die "there is no harness to run"
jobs=$(nproc)
[ "$jobs" -le "$count" ] || jobs=$count

rm -rf "$built/torture-results"
status=0
seed=${ZORV_TORTURE_SEED:-$RANDOM}
echo "what there is no time for is chosen by ZORV_TORTURE_SEED=$seed"
ZORV_TORTURE_SEED=$seed ZORV_TORTURE_SECONDS=$((minutes * 60 * jobs / count)) \
  ctest "${selection[@]}" -j "$jobs" --output-on-failure || status=1
python3 "$PROJECT/tests/tools/torture_report.py" "$built/torture-results" || status=1
exit $status
