#!/usr/bin/env bash
# The demonstration: real volumes, shares and snapshots in a private world; one calculation per share
# through the library; every number held against the kernel's own accounting.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case "${1:-}" in
  "") ;;
  --help)
    echo "usage: sudo scripts/demo.sh"
    echo "Ends with \"all N numbers match\" or a failure status; leaves nothing behind but build/."
    exit 0
    ;;
  *) die "takes no argument; try --help" ;;
esac

# What the demonstration could leave on the machine: mounts, and loop devices of its images.
left_overs() {
  awk '{print $2}' /proc/self/mounts | sort
  losetup --list --noheadings --output NAME,BACK-FILE 2>/dev/null | grep 'zorv-demo' || true
}

need_machine
install_packages
preset=release
[ "${CI:-}" = true ] && preset=ci
build "$preset"

before=$(left_overs)
status=0
bin=$PROJECT/build/$preset/bin
"$bin/sandbox" --bind "$PROJECT" -- bash "$PROJECT/scripts/demo_world.sh" "$bin" || status=$?
for _ in $(seq 50); do # a loop device is let go a moment after the last user of its mount
  [ "$(left_overs)" = "$before" ] && break
  sleep 0.1
done
[ "$(left_overs)" = "$before" ] || die "something was left behind: $(diff <(echo "$before") <(left_overs) || true)"
[ $status = 0 ] || die "the demonstration failed (status $status); what it said stands above"
