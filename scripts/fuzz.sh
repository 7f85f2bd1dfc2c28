#!/usr/bin/env bash
# Gives the readers of the product any bytes, for hours; keeps what was new to them and what they
# failed on.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

minutes=60 targets=()

# The names of all targets.
known() {
  cd "$PROJECT/tests/fuzz" && ls -- *_fuzz.cc | sed 's/_fuzz\.cc$//'
}

while [ $# -gt 0 ]; do
  case $1 in
    --minutes)
      [[ ${2:-} =~ ^[1-9][0-9]{0,4}$ ]] || die "--minutes needs a number from 1 on"
      minutes=$2
      shift 2
      ;;
    --help)
      echo "usage: sudo scripts/fuzz.sh [--minutes N] [TARGET...]"
      echo "Runs the fuzz targets of tests/fuzz, all of them or those named, for about N minutes together"
      echo "(60), in private worlds.  build/fuzz/corpus keeps what was new, build/fuzz/found what failed;"
      echo "docs/testing.md tells what to do with it.  Needs clang, which it installs."
      exit 0
      ;;
    -*) die "unknown argument $1; try --help" ;;
    *)
      [ -f "$PROJECT/tests/fuzz/$1_fuzz.cc" ] || die "no such target: $1; they are $(echo $(known))"
      targets+=("$1")
      shift
      ;;
  esac
done

need_machine
build_fuzzers
[ ${#targets[@]} -gt 0 ] || targets=($(known))

built=$PROJECT/build/fuzz
image=$built/seeds.img
rm -rf "$built/seeds" "$image"
truncate -s 128M "$image"
mkfs.btrfs -q -n 4096 --rootdir "$PROJECT/docs" "$image" >"$built/mkfs.log" 2>&1 || die "mkfs.btrfs: $(cat "$built/mkfs.log")"
"$built/bin/fuzz_seeds" "$image" "$built/seeds"
rm -f "$image"

# Prints one line: how many inputs, and what was found. Fails when something was.
run_target() { # target seconds
  local target=$1 log=$built/$1.log status=0 folder folders=()
  mkdir -p "$built/corpus/$target" "$built/found"
  for folder in "$built/corpus/$target" "$PROJECT/tests/fuzz/corpus/$target" "$built/seeds/$target"; do
    [ ! -d "$folder" ] || folders+=("$folder")
  done
  "$built/bin/fuzz_$target" -max_total_time="$2" -timeout=60 -print_final_stats=1 \
    -dict="$PROJECT/tests/fuzz/words.dict" -artifact_prefix="$built/found/$target-" \
    "${folders[@]}" >"$log" 2>&1 || status=1
  echo "$target: $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") inputs," \
    "$(ls -- "$built/corpus/$target" | wc -l) kept"
  [ $status = 0 ] && return
  tail -n 30 "$log"
  echo "again: sudo build/fuzz/bin/fuzz_$target $(sed -n 's/.*Test unit written to //p' "$log")"
  return 1
}
export PROJECT built
export -f run_target

jobs=$(nproc)
[ "$jobs" -le ${#targets[@]} ] || jobs=${#targets[@]}
seconds=$((minutes * 60 * jobs / ${#targets[@]}))
printf '%s\n' "${targets[@]}" | xargs -P "$jobs" -I{} bash -c 'run_target {} '"$((seconds > 0 ? seconds : 1))"
