#!/usr/bin/env bash
# The demo: the real QoWatchDog.exe taken through a life under Wine and told as a timeline with its
# log beside it (demo/QoDemo.cpp tells what happens). Installs what is missing, builds for Windows
# with the 'windows' preset, prepares a Wine prefix of the demo's own (build/windows/demo-prefix,
# apart from the tests' prefix), runs the demo there and shuts the prefix down, also when the demo
# fails or is interrupted: no wine process outlives it. Exit code 0 when the life went as expected.
#
#   scripts/demo.sh                     install, configure and build with the preset, then run
#   scripts/demo.sh --build-dir <dir>   run with a build tree configured already (only the demo's
#                                       targets are built there); its prefix is <dir>/demo-prefix
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

usage() {
    echo "usage: $0 [--build-dir <configured build directory>]" >&2
    exit 2
}

build_dir=""
case $# in
    0) ;;
    2) [ "$1" = "--build-dir" ] || usage
       build_dir=$(realpath -m -- "$2") ;;
    *) usage ;;
esac

say() { echo "== $*"; }

if [ -z "$build_dir" ]; then
    say "installing the Debian packages that are missing"
    scripts/install-deps.sh
    say "configuring and building (cmake --preset windows; cmake --build --preset windows)"
    cmake --preset windows
    cmake --build --preset windows
    build_dir=$root/build/windows
else
    [ -f "$build_dir/CMakeCache.txt" ] || { echo "demo.sh: $build_dir is not a configured build tree" >&2; exit 2; }
    say "building the demo in $build_dir"
    cmake --build "$build_dir" --target QoDemo
fi

# The paths of this build's programs, and Wine's loader and server (written by demo/CMakeLists.txt).
env_file=$build_dir/demo/demo-env.sh
[ -f "$env_file" ] || { echo "demo.sh: $env_file is missing (a build for Windows, run under Wine?)" >&2; exit 1; }
# shellcheck source=/dev/null
. "$env_file"

prefix=$build_dir/demo-prefix
prefix_script=$root/tests/wine/prefix.sh

teardown() {
    bash "$prefix_script" teardown "$prefix" || echo "demo.sh: the prefix teardown failed" >&2
}
trap teardown EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

say "preparing the demo's Wine prefix $prefix"
bash "$prefix_script" setup "$prefix" "$QO_HELPER_DIR"

say "the demo"
# QoDemo.exe bounds each of its waits; the limit here only guards against a hung Wine. Its output
# goes through a pipe: on a terminal, Wine's console host would redraw it character by character.
status=0
timeout --foreground -k 10 180 bash "$root/tests/wine/run.sh" "$prefix" "$QO_DEMO_EXE" | cat || status=$?
[ "$status" -ne 124 ] || echo "demo.sh: the demo did not end within 180 s" >&2

say "shutting the prefix down"
exit "$status"
