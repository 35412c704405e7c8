#!/usr/bin/env bash
# Installs what is missing, builds QoWatchDog.exe and every test for Windows, and runs the tests
# under Wine in a prefix of the run's own. Extra arguments go to ctest (e.g. -R Logging).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

scripts/install-deps.sh
cmake --preset windows
cmake --build --preset windows
ctest --preset windows "$@"
