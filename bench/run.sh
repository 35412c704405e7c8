#!/usr/bin/env bash
# The benchmark (bench/README.md): installs what is missing, builds, and runs QoBench.exe under Wine in
# a prefix of its own (build/windows/bench-prefix), shut down at the end. Arguments go to QoBench.exe.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/lifecycle.sh" build
. "$root/build/windows/programs.sh"
exec "$root/scripts/lifecycle.sh" session "$root/build/windows/bench-prefix" "$QO_HELPER_EXE" \
    "$root/build/windows/bench/QoBench.exe" "$@"
