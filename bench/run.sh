#!/usr/bin/env bash
# Runs the benchmarks (see bench/README.md): builds them for Windows, prepares a Wine prefix of
# their own under the build directory, runs each program there, prints the report (also written to
# <build>/bench/report.txt) and shuts the prefix down, leaving no wine process behind.
#
#   bench/run.sh [--quick] [restart | supervisor-restart | supervisor-idle | registration]...
#
#   names                 run only these benchmarks (default: all four, in this order)
#   --quick               a short run that only checks that everything works (5 rounds, 5 s idle,
#                         N up to 620); its figures are not worth reporting
#   QO_BENCH_BUILD_DIR    the build directory (default: build/bench of the repository)
#   QO_BENCH_SECONDS      the time the whole run aims at (default 280); the largest registration
#                         pass gets what the other steps leave of it (about 800 reaches N = 3000 on
#                         a 2-core machine)
set -euo pipefail

usage() {
    echo "usage: $0 [--quick] [restart | supervisor-restart | supervisor-idle | registration]..." >&2
    exit 2
}

root=$(cd "$(dirname "$0")/.." && pwd)
build=${QO_BENCH_BUILD_DIR:-$root/build/bench}
target_seconds=${QO_BENCH_SECONDS:-280}
quick=false
selected=()
for arg in "$@"; do
    case $arg in
        --quick) quick=true ;;
        restart | supervisor-restart | supervisor-idle | registration) selected+=("$arg") ;;
        *) usage ;;
    esac
done
[ ${#selected[@]} -ne 0 ] || selected=(restart supervisor-restart supervisor-idle registration)
wanted() {
    local name
    for name in "${selected[@]}"; do
        [ "$name" = "$1" ] && return 0
    done
    return 1
}

SECONDS=0
say() { echo "$*" | tee -a "$report"; }

# --- Build -----------------------------------------------------------------------------------------

"$root/scripts/install-deps.sh"
mkdir -p "$build"
if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
        -DCMAKE_BUILD_TYPE=Release >"$build/bench-configure.log" 2>&1 ||
        { tail -n 40 "$build/bench-configure.log" >&2; exit 1; }
fi
echo "building the benchmarks in $build ..."
cmake --build "$build" --target benchmarks -j 2 >"$build/bench-build.log" 2>&1 ||
    { tail -n 40 "$build/bench-build.log" >&2; exit 1; }
# shellcheck source=/dev/null
. "$build/bench/bench-env.sh"
prefix=$QO_BENCH_WINE_PREFIX
out_dir=$build/bench/results
report=$build/bench/report.txt
mkdir -p "$out_dir"
: >"$report"

# --- The prefix ------------------------------------------------------------------------------------

finish() {
    local status=$?
    # teardown fails when a wine process of the prefix outlives it.
    bash "$root/tests/wine/prefix.sh" teardown "$prefix" || status=1
    exit $status
}
trap finish EXIT

echo "preparing the wine prefix ..."
bash "$root/tests/wine/prefix.sh" setup "$prefix" "$QO_HELPER_DIR" | sed -n 1p

# --- The benchmarks --------------------------------------------------------------------------------

cpu_model=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)
memory_gib=$(awk '/^MemTotal:/ { printf "%.0f", $2 / 1048576 }' /proc/meminfo)
commit=$(git -C "$root" rev-parse --short HEAD 2>/dev/null || echo unknown)
if [ -n "$(git -C "$root" status --porcelain 2>/dev/null)" ]; then
    commit="$commit (with uncommitted changes)"
fi
kind=""
$quick && kind=" (quick run: its figures are not meaningful)"
say "QoWatchDog benchmarks, $(date -u '+%Y-%m-%d %H:%M UTC')$kind"
say "  $("$QO_WINE64" --version 2>/dev/null), headless; $(nproc) cores ($cpu_model), $memory_gib GiB;" \
    "load average at start: $(cut -d ' ' -f 1-3 /proc/loadavg)"
say "  commit $commit"
say ""

failed=()
# run_bench <program> [arguments...]: runs it in the prefix, showing its output as it comes.
run_bench() {
    local name=$1
    shift
    local out=$out_dir/$name.txt
    local started=$SECONDS
    bash "$root/tests/wine/run.sh" "$prefix" "$QO_BENCH_DIR/$name.exe" "$@" </dev/null >"$out" 2>&1 &
    local pid=$!
    # A file and tail, not a pipe: no process of the prefix can hold the runner's output open.
    tail -n +1 -f --pid=$pid "$out"
    local status=0
    wait $pid || status=$?
    cat "$out" >>"$report"
    if [ $status -ne 0 ]; then
        failed+=("$name")
        say "  => $name FAILED (exit code $status)"
    fi
    say "  ($name: $((SECONDS - started)) s)"
    say ""
}

rounds=50 warmup=3 idle_seconds=60 max_sessions=3000 repeat=3
if $quick; then
    rounds=5 warmup=1 idle_seconds=5 max_sessions=620 repeat=1
fi
wanted restart && run_bench bench_restart --rounds $rounds --warmup $warmup
wanted supervisor-restart && run_bench bench_supervisor_restart --rounds $rounds --warmup $warmup
wanted supervisor-idle && run_bench bench_supervisor_idle --seconds $idle_seconds
if wanted registration; then
    # Last: its largest pass takes what is left of the run's time, less the teardown.
    budget=$((target_seconds - SECONDS - 10))
    [ $budget -ge 60 ] || budget=60
    run_bench bench_registration --max-sessions $max_sessions --budget-seconds $budget --repeat $repeat
fi

if [ ${#failed[@]} -ne 0 ]; then
    say "FAILED: ${failed[*]} ($SECONDS s in all; report: $report)"
    exit 1
fi
say "all benchmarks passed in $SECONDS s (report: $report)"
