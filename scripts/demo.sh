#!/usr/bin/env bash
# The demo: installs what is missing, builds, and takes the real QoWatchDog.exe through one life under
# Wine in a prefix of its own (build/windows/demo-prefix), shut down at the end. Exit code 0 when the
# life went as told.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/lifecycle.sh" build
. "$root/build/windows/programs.sh"
exec "$root/scripts/lifecycle.sh" session "$root/build/windows/demo-prefix" "$QO_HELPER_EXE" \
    "$root/build/windows/demo/QoDemo.exe"
