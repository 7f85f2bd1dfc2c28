#!/usr/bin/env bash
# Measures the engine beside its peers, on file systems that it makes on a disk; see --help.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

PACKAGES="$PACKAGES liburing-dev libbenchmark-dev fio gnuplot-nox btrfs-compsize btrbk e2fsprogs"
bench=$PROJECT/bench/engine/bench.py
directory=$PROJECT/build/bench
whole=yes # only a run of everything may write the page of the documentation
arguments=()
while [ $# -gt 0 ]; do
  case $1 in
    --help | -h) exec python3 -B "$bench" --help ;;
    --dir=*) directory=${1#--dir=} ;;
    --dir)
      [ $# -ge 2 ] || die "--dir needs a folder; try --help"
      directory=$2
      shift
      ;;
    *)
      case $1 in --quick | --only* | --make | --rounds* | --limit* | --doc*) whole=no ;; esac
      arguments+=("$1")
      ;;
  esac
  shift
done
[ $whole = no ] || arguments+=(--doc "$PROJECT/docs/benchmarks.md")
arguments+=(--dir "$directory" --programs "$PROJECT/build/release/bin")

need_machine
# A bare machine has no python3 yet; it is told about its arguments a little later.
if command -v python3 >/dev/null; then python3 -B "$bench" --check "${arguments[@]}"; fi
install_packages
build release -DZORV_BUILD_BENCH=ON
mkdir -p "$directory"
# Mounts go with the namespace, and loop devices with their mounts, however the run ends.
exec unshare --mount --propagation private python3 -B "$bench" "${arguments[@]}"
