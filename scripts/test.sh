#!/usr/bin/env bash
# Every test: installs what is missing, builds with GCC and with clang, runs clang-tidy over src/,
# runs each build's tests under Wine in a prefix of its own (shut down at the end), then the log
# reader's tests natively. Extra arguments go to every ctest run (e.g. -R Supervisor).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/lifecycle.sh" build
"$root/scripts/lifecycle.sh" tidy
cd "$root"
ctest --preset windows "$@"
ctest --preset windows-clang "$@"
ctest --preset host --no-tests=ignore "$@"
