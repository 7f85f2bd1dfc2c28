#!/usr/bin/env bash
# Builds the Debian packages from this checkout and has lintian look at them.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

for argument in "$@"; do
  case $argument in
    --help)
      echo "usage: sudo scripts/package.sh"
      echo "Builds the Debian packages into build/packages/, with the version of CMakeLists.txt, and"
      echo "checks them with lintian. What the build needs is installed first."
      exit 0
      ;;
    *) die "unknown argument $argument; try --help" ;;
  esac
done

OUTPUT=$PROJECT/build/packages
SOURCE=$OUTPUT/zorvbtrfssnapusage

# The changelog is the version's second home; it may not say another.
check_version() {
  local ours theirs
  ours=$(sed -n 's/^project(zorvbtrfssnapusage VERSION \([0-9.]*\) .*/\1/p' "$PROJECT/CMakeLists.txt")
  theirs=$(dpkg-parsechangelog -l "$PROJECT/packaging/debian/changelog" -S Version)
  [ "$ours" = "$theirs" ] ||
    die "packaging/debian/changelog is at $theirs, CMakeLists.txt at $ours; add an entry for $ours"
}

# A copy of the checkout, without what was built, laid out as the Debian tools want it.
lay_out() {
  rm -rf "$OUTPUT"
  mkdir -p "$SOURCE"
  tar -C "$PROJECT" --exclude=./build --exclude=./.git --no-same-owner -cf - . | tar -C "$SOURCE" -xf -
  mv "$SOURCE/packaging/debian" "$SOURCE/debian"
}

install_build_needs() {
  (cd "$SOURCE" && dpkg-checkbuilddeps) 2>/dev/null && return
  echo "installing what the packages need to be built"
  { apt-get -qq update &&
    DEBIAN_FRONTEND=noninteractive apt-get -qq build-dep -y --no-install-recommends "$SOURCE"; } \
    >"$OUTPUT/build-dep.log" 2>&1 || { tail -n 20 "$OUTPUT/build-dep.log" >&2; die "apt-get could not install them"; }
}

# Quiet unless it fails. debhelper hides the home directory: the compiler's cache is named.
build_packages() {
  echo "building the packages"
  (cd "$SOURCE" && export CCACHE_DIR="${CCACHE_DIR:-$HOME/.cache/ccache}" &&
    DEB_BUILD_OPTIONS=noautodbgsym dpkg-buildpackage --build=binary --no-sign --unsigned-changes) >"$OUTPUT/build.log" 2>&1 ||
    { grep -E -A5 'error|FAILED' "$OUTPUT/build.log" | head -n 40 >&2; die "the build failed; all of it is in build/packages/build.log"; }
}

PACKAGES="build-essential dpkg-dev lintian"
need_debian "packages that the build needs"
install_packages
check_version
lay_out
install_build_needs
build_packages
rm -rf "$SOURCE"
lintian --fail-on error,warning,info --tag-display-limit 0 "$OUTPUT"/*.changes
cd "$OUTPUT"
for package in *.deb; do
  printf '%s  %s\n' "$(dpkg-deb -f "$package" Package Version Architecture | cut -d' ' -f2 | paste -sd' ')" "build/packages/$package"
done
