#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and demonstrates with. Idempotent and
# quiet when everything is already there. Needs root (or sudo) only when something is missing.
set -euo pipefail

packages=(
  cmake ninja-build g++ make pkg-config dpkg-dev file
  clang libclang-rt-14-dev libdbus-1-dev
  qt6-base-dev qt6-base-dev-tools libgl-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  libsystemd-dev
  dbus-daemon dbus-bin python3-dbus python3-gi procps
  xvfb xauth
  qt6-wayland qt6-base-private-dev libwayland-dev wayland-protocols weston sway
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
