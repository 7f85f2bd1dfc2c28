#!/usr/bin/env bash
# All that proves something about this project, in one command: for a release, and for a night.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

minutes=60
case "${1:-}" in
  '') ;;
  --minutes)
    [[ ${2:-} =~ ^[1-9][0-9]{0,4}$ ]] || die "--minutes needs a number from 1 on"
    minutes=$2
    ;;
  --help)
    echo "usage: sudo scripts/everything.sh [--minutes N]"
    echo "Tests, sanitizers, lint, valgrind, coverage, generated file systems, torture for N minutes (60),"
    echo "faults put in on purpose, the demonstration.  Goes on after a failure; takes hours."
    echo "The last lines say what passed; the status is 0 when all did."
    exit 0
    ;;
  *) die "unknown argument $1; try --help" ;;
esac

need_machine
install_packages
cd "$PROJECT"
summary=() status=0
step() { # SCRIPT [ARGUMENT...]
  echo "== $*"
  local begin=$SECONDS word=passed
  bash "scripts/$1" "${@:2}" </dev/null || { word=FAILED status=1; }
  summary+=("$word after $(((SECONDS - begin) / 60)) minutes: $*")
}

step test.sh
step test.sh --asan
step lint.sh
step valgrind.sh
step coverage.sh
step generated.sh
step torture.sh --minutes "$minutes"
step mutate.sh
step demo.sh
printf '%s\n' "${summary[@]}"
exit $status
