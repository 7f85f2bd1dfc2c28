#!/usr/bin/env bash
# Makes file systems from seeds and holds the engine's numbers against the kernel's and deletion's.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

first=1001 count=200 preset=debug
[ "${CI:-}" = true ] && preset=ci

is_number() { [[ $1 =~ ^[1-9][0-9]{0,8}$ ]]; }

while [ $# -gt 0 ]; do
  case $1 in
    --first-seed | --count)
      is_number "${2:-}" || die "$1 needs a number from 1 on"
      if [ "$1" = --count ]; then count=$2; else first=$2; fi
      shift 2
      ;;
    --help)
      echo "usage: sudo scripts/generated.sh [--first-seed N] [--count N]"
      echo "Makes COUNT file systems (200), one from each seed from N (1001) on: format, devices, mount"
      echo "options and history.  Each number of the engine is held against a quota rescan on a copy,"
      echo "each forecast against what deletion frees.  Prints the seeds that failed, how to run one"
      echo "again, and where its images are kept (build/$preset/generated-failures)."
      exit 0
      ;;
    *) die "unknown argument $1; try --help" ;;
  esac
done

need_machine
install_packages
build "$preset"

logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT

# Runs the seeds FIRST to FIRST+COUNT-1 into a log of their own.
run_seeds() {
  [ "$2" -gt 0 ] || return 0
  ZORV_GENERATED_FIRST=$1 ZORV_GENERATED_COUNT=$2 \
    "$PROJECT/build/$preset/bin/engine_generated_btrfs_test" --gtest_filter='Seeds/*' >"$logs/$1" 2>&1
}

echo "running seeds $first to $((first + count - 1))"
half=$((count / 2)) status=0
run_seeds "$first" "$half" &
run_seeds $((first + half)) $((count - half)) || status=1
wait $! || status=1

agreed=$(cat "$logs"/* | grep -c ' agrees: ' || true)
deletions=$(cat "$logs"/* | awk '/ agrees: / { sum += $(NF - 1) } END { print sum + 0 }')
if [ "$agreed" != "$count" ] || [ $status != 0 ]; then
  grep -hvE ' agrees: |^\[ +(RUN|OK) +\]' "$logs"/* || true
  status=1
fi
echo "$agreed of $count file systems agree, $deletions deletions"
exit $status
