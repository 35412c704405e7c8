#!/usr/bin/env bash
# Every test: installs what is missing, builds, runs the tests under Wine in a prefix of the run's
# own (shut down at the end), then the log reader's tests natively. Extra arguments go to both ctest
# runs (e.g. -R Supervisor).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/lifecycle.sh" build
cd "$root"
ctest --preset windows "$@"
ctest --preset host --no-tests=ignore "$@"
