# Sourced by ./run, ./test and ./bench: installs the Debian packages that are missing.

BUILD_TOOLS=(cmake ninja-build pkg-config)
LIBRARIES=(libdbus-1-dev libevent-dev libcurl4-openssl-dev libcjson-dev libcpp-httplib-dev libssl-dev)
# What builds the programs, what a private world needs, and what a test program needs.
BUILD_PACKAGES=(g++ "${BUILD_TOOLS[@]}" "${LIBRARIES[@]}")
WORLD_PACKAGES=(dbus-daemon dbus-bin mount)
TEST_PACKAGES=("${BUILD_PACKAGES[@]}" "${WORLD_PACKAGES[@]}" libgtest-dev)

# install_missing PACKAGE...
install_missing() {
  local missing=() package
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing ${missing[*]}"
  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "Install these packages first, as root: ${missing[*]}" >&2; return 1; }
    as_root=(sudo)
  fi
  "${as_root[@]}" apt-get update -qq &&
    DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
