#!/usr/bin/env bash
# Every test: installs what is missing, builds for Windows and runs the tests under Wine in a prefix
# of the run's own, shut down at the end. Extra arguments go to ctest (e.g. -R Supervisor).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/lifecycle.sh" build
cd "$root"
ctest --preset windows "$@"
