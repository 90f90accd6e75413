# Sourced by ./run, ./test, ./bench and the tools: what a machine must have, and Debian roots.

BUILD_TOOLS=(cmake ninja-build pkg-config)
LIBRARIES=(libdbus-1-dev libevent-dev libcurl4-openssl-dev libcjson-dev libcpp-httplib-dev libssl-dev)
# What builds the programs, what a private world needs, and what a test program needs.
BUILD_PACKAGES=(g++ "${BUILD_TOOLS[@]}" "${LIBRARIES[@]}")
WORLD_PACKAGES=(dbus-daemon dbus-bin mount)
TEST_PACKAGES=("${BUILD_PACKAGES[@]}" "${WORLD_PACKAGES[@]}" libgtest-dev)

# skip WHY...: ends the program on a machine that lacks what it needs: no success, and nobody's fault.
skip() {
  echo "skipped: $*"
  exit 77
}

# need_world: skips where nobody can make a private world.
need_world() {
  local why
  why=$(tests/world/enter true 2>&1) || skip "no private world: $why"
}

# need_machine: skips where nobody can make a Debian root and enter it.
need_machine() {
  [ "$(id -u)" -eq 0 ] || skip "making and entering a machine takes root"
  unshare --mount --uts --ipc --net --pid --fork mount -t tmpfs machine /mnt 2>/dev/null ||
    skip "this kernel refuses the namespaces that a machine needs"
}

# install_missing PACKAGE...: installs what is missing.
install_missing() {
  local missing=() package
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "Installing ${missing[*]}"
  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || skip "install these packages first, as root: ${missing[*]}"
    as_root=(sudo)
  fi
  "${as_root[@]}" apt-get update -qq &&
    DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# remove_root FOLDER: removes a root, unless something is mounted in it: what is mounted may be this machine's own.
remove_root() {
  if findmnt -lno TARGET | sed 's,$,/,' | grep -F "$(realpath -m "$1")/" >&2; then
    echo "Still mounted in $1: unmount it first" >&2
    return 1
  fi
  rm -rf --one-file-system "$1"
}

# own_sources FOLDER: copies this machine's package sources, without the architecture that they may be pinned to.
own_sources() {
  local file
  mkdir -p "$1"
  for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.{list,sources}; do
    [ -s "$file" ] || continue
    sed -E '/^Architectures:/Id; /^deb/ { s/\barch[+-]?=[^] ]*//; s/\[ *\]// }' "$file" >"$1/${file##*/}"
  done
}

# debian_root FOLDER ARGUMENT...: makes a Debian root with mmdebstrap and its ARGUMENTs, out of what this machine's own
# package sources have.
debian_root() {
  local root=$1 apt=$1.apt sources mode=root
  shift
  install_missing mmdebstrap
  if [ "$(id -u)" -ne 0 ]; then
    install_missing fakechroot fakeroot
    mode=fakechroot
  fi
  remove_root "$root"
  own_sources "$apt"
  sources=("$apt"/*)
  # Proxies and the like. A program that looks for a proxy would be missing in the root.
  apt-config dump | grep '^Acquire::' | grep -iv 'auto-\?detect' >"$root.acquire"
  # A source that does not serve the architecture says so and is passed over: packages that are missing then end this.
  # shellcheck disable=SC2016
  mmdebstrap --quiet --mode=$mode --aptopt="$root.acquire" --skip=update \
    --setup-hook='APT_CONFIG=$MMDEBSTRAP_APT_CONFIG apt-get update -qq || true' "$@" \
    "$(. /etc/os-release && echo "$VERSION_CODENAME")" "$root" "${sources[@]}"
}
