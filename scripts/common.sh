# Shared by the scripts: what a machine must have, packages, builds. Sourced, not run.

PROJECT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
PACKAGES="g++ cmake ninja-build pkg-config libjsoncpp-dev libcli11-dev libfmt-dev liburing-dev
          libbtrfsutil-dev          libinih-dev libexpat1-dev samba-common-bin snapper
          libgtest-dev libgmock-dev btrfs-progs uuid-runtime python3 python3-jsonschema binutils mount
          util-linux procps e2fsprogs pandoc man-db mandoc jq dpkg-dev debhelper lintian pkgconf systemd
          bash-completion zsh"

die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# Root and a Debian-like system: one clear line for the first that is missing.
need_debian() { # what for
  [ "$(id -u)" = 0 ] || die "needs root ($1); run: sudo $0"
  command -v apt-get >/dev/null && command -v dpkg-query >/dev/null ||
    die "installs what it needs with apt-get, which this system has not; use Debian 12 or install by hand: $(echo $PACKAGES)"
}

# That, btrfs and loop devices.
need_machine() {
  need_debian "mounts, loop devices"
  grep -qw btrfs /proc/filesystems || modprobe btrfs 2>/dev/null || true
  grep -qw btrfs /proc/filesystems ||
    die "this kernel has no btrfs; install one with CONFIG_BTRFS_FS (Debian's has it)"
  [ -e /dev/loop-control ] || modprobe loop 2>/dev/null || true
  [ -e /dev/loop-control ] || die "this kernel has no loop devices; install one with CONFIG_BLK_DEV_LOOP"
}

# Installs the packages that are missing, quietly unless it fails.
install_packages() {
  local missing=() package
  for package in $PACKAGES; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
      missing+=("$package")
  done
  [ ${#missing[@]} = 0 ] && return
  echo "installing: ${missing[*]}"
  local log
  log=$(mktemp)
  { apt-get -qq update && DEBIAN_FRONTEND=noninteractive apt-get -qq install -y --no-install-recommends "${missing[@]}"; } \
    >"$log" 2>&1 || { tail -n 20 "$log" >&2; rm -f "$log"; die "apt-get could not install: ${missing[*]}"; }
  rm -f "$log"
}

TARGET=all # whatever the environment calls so

# Configures (with further settings, if given) and builds a preset, all of it or the targets TARGET,
# quietly unless it fails.
build() { # preset [-D...]
  local preset=$1 log=$PROJECT/build/$1.log
  shift
  mkdir -p "$PROJECT/build"
  echo "building ($preset)"
  { cd "$PROJECT" && cmake --preset "$preset" "$@" && cmake --build --preset "$preset" --target $TARGET; } >"$log" 2>&1 ||
    { grep -E -A5 'error|FAILED' "$log" | head -n 40 >&2; die "the build failed; all of it is in build/$preset.log"; }
}

# Builds the fuzz targets, with the packages that they alone need.
build_fuzzers() {
  PACKAGES="$PACKAGES clang libclang-rt-14-dev"
  install_packages
  build fuzz
}
