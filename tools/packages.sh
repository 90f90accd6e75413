# Sourced by ./run and ./test: installs the Debian packages that are missing.

BUILD_PACKAGES="g++ cmake ninja-build pkg-config libdbus-1-dev libevent-dev libcurl4-openssl-dev libcjson-dev
  libcpp-httplib-dev libssl-dev"
WORLD_PACKAGES="dbus-daemon dbus-bin ca-certificates mount"
# The libraries for 32-bit ARM, which ./test armhf puts into a folder of their own.
ARMHF_PACKAGES="libc6-dev libstdc++6 libdbus-1-dev libevent-dev libcurl4-openssl-dev libcjson-dev libcpp-httplib-dev
  libssl-dev libgtest-dev"

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
