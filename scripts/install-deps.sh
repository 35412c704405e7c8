#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, only those that are missing.
# Runs as root or through sudo; a second run with everything present does nothing.
set -euo pipefail

packages=(
  cmake
  g++-mingw-w64-x86-64-posix
  binutils-mingw-w64-x86-64
  wine64
  libboost-dev
  googletest
  python3
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "install-deps: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  sudo_cmd=(sudo)
fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -q
"${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
