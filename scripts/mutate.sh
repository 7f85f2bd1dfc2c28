#!/usr/bin/env bash
# Breaks kept behaviours one at a time, in a copy of the tree; each must turn a test red.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

runner=$PROJECT/tests/tools/mutate.py
case "${1:-}" in
  --help | --list | --check) exec python3 "$runner" "$@" ;;
  -*) die "unknown argument $1; try --help" ;;
esac
need_machine
install_packages
exec python3 "$runner" "$@"
