#!/usr/bin/env bash
# CMake's cross-compiling emulator for the tests: runs a Windows program under Wine, in the test
# run's own prefix (prepared by prefix.sh setup), headless and with Wine's own messages off.
#   run.sh <prefix> <program.exe> [arguments...]
set -eu
if [ $# -lt 2 ]; then
    echo "usage: $0 <prefix> <program.exe> [arguments...]" >&2
    exit 2
fi
WINEPREFIX=$(realpath -m -- "$1")
export WINEPREFIX
shift
export WINEDEBUG=-all
unset DISPLAY WAYLAND_DISPLAY
exec "${QO_WINE64:-/usr/lib/wine/wine64}" "$@"
