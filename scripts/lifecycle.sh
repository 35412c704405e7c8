#!/usr/bin/env bash
# The one owner of the project's lifecycle: Debian packages, configure and build, and the Wine prefix
# that the tests, the demo and the benchmarks run in.
#
#   lifecycle.sh build [<target>...]        install what is missing, configure and build (preset windows;
#                                           without targets also windows-clang and host: qowatchctl)
#   lifecycle.sh tidy                       clang-tidy (.clang-tidy) over src/, on the windows-clang build
#   lifecycle.sh up <prefix> <helper.exe>   a fresh prefix prepared like a workstation with the client
#   lifecycle.sh down <prefix>              end every process of the prefix; fails if one is left
#   lifecycle.sh wine <prefix> <exe> [arg...]            run one Windows program in the prefix
#   lifecycle.sh session <prefix> <helper.exe> <exe> [arg...]   up, run the program, down (also on failure)
#
# A prepared prefix holds: HKLM\Software\Corvane\Brevant\0\Install (no SetStartEvent), Keld's
# InstallDir, the platform directory with Session_Agent.ini and the helper as the session agent, the
# helper registered as the Keld service (stopped), and Wine's explorer.exe kept alive by the helper.
# Wine processes started here have their streams on /dev/null or the prefix's log, never on a pipe
# of the caller: one that outlives this script would keep ctest waiting.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
WINE64=${QO_WINE64:-/usr/lib/wine/wine64}
WINESERVER=${QO_WINESERVER:-/usr/lib/wine/wineserver}
PACKAGES=(cmake make g++ g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 clang clang-tidy wine64 libboost-dev
          googletest python3 prometheus)

die() { echo "lifecycle.sh: $*" >&2; [ -z "${log:-}" ] || tail -n 20 "$log" >&2 2>/dev/null || true; exit 1; }

install_missing() {
    local p missing=()
    for p in "${PACKAGES[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$' || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || die "need root or sudo to install: ${missing[*]}"
        sudo=(sudo)
    fi
    echo "lifecycle.sh: installing ${missing[*]}"
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
}

build() {
    install_missing
    cd "$root"
    cmake --preset windows >/dev/null
    local targets=()
    [ $# -eq 0 ] || targets=(--target "$@")
    cmake --build --preset windows "${targets[@]}"
    if [ $# -eq 0 ]; then
        local preset
        for preset in windows-clang host; do
            cmake --preset "$preset" >/dev/null
            cmake --build --preset "$preset"
        done
    fi
}

tidy() {
    cd "$root"
    local sources
    sources=$(git ls-files 'src/*.cpp' | grep -v '^src/ctl/host_main.cpp$')  # the host build's own
    # clang-tidy counts the warnings it suppressed in system headers on stderr; only findings show.
    # shellcheck disable=SC2086
    clang-tidy -p build/windows-clang --quiet $sources 2> >(grep -v '^[0-9]* warnings\? generated\.$' >&2)
    echo "clang-tidy: no finding in src/"
}

use_prefix() {
    # The wineserver keeps several descriptors for every Wine process; the many-sessions scenario
    # runs some 500 of them, past the usual soft limit of 1024 of a non-root user.
    ulimit -n "$(ulimit -Hn)" 2>/dev/null || true
    prefix=$(realpath -m -- "$1")
    log=$prefix.log
    export WINEPREFIX=$prefix WINEARCH=win64 WINEDEBUG=-all
    unset DISPLAY WAYLAND_DISPLAY
}

# Runs the command with none of our descriptors: its streams go to the prefix's log.
without_fds() {
    local fd
    for fd in /proc/$BASHPID/fd/*; do
        fd=${fd##*/}
        [ "$fd" -le 2 ] || eval "exec $fd>&-"
    done
    exec "$@" </dev/null >>"$log" 2>&1
}
quiet() { (without_fds "$@"); }
# The subshell itself becomes the command, so nothing of ours waits on it holding a stream.
detached() { (without_fds setsid "$@") & }

prefix_pids() {
    local environ exe
    for environ in $(grep -lzxF "WINEPREFIX=$prefix" /proc/[0-9]*/environ 2>/dev/null); do
        exe=$(readlink "${environ%/environ}/exe" 2>/dev/null) || continue
        case ${exe##*/} in wine*) environ=${environ%/environ}; echo "${environ#/proc/}" ;; esac
    done
}

stop_prefix() {
    [ -d "$prefix" ] && timeout 10 "$WINESERVER" -k </dev/null >/dev/null 2>&1 || true
    local deadline=$((SECONDS + 10)) pids
    while pids=$(prefix_pids) && [ -n "$pids" ]; do
        if [ $SECONDS -ge $deadline ]; then
            # shellcheck disable=SC2086
            kill -KILL $pids 2>/dev/null || true
            sleep 1
            return 0
        fi
        sleep 0.1
    done
}

explorer_running() {
    local pid
    for pid in $(prefix_pids); do
        tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null | grep -qi 'explorer\.exe' && return 0
    done
    return 1
}

# wineserver -p returns once its socket is ready and stays, so later wine commands share it.
start_server() { quiet setsid "$WINESERVER" -p || die "wineserver -p failed"; }

up() {
    use_prefix "$1"
    local helper=$2
    [ -f "$helper" ] || die "missing $helper (build first)"
    stop_prefix
    if [ -e "$prefix" ]; then mv -- "$prefix" "$prefix.old.$$"; fi
    local old
    for old in "$prefix".old.*; do [ -e "$old" ] && { rm -rf -- "$old" & }; done
    mkdir -p -- "$prefix"
    : >"$log"
    start_server
    WINEDLLOVERRIDES="winemenubuilder.exe=d;mscoree=d;mshtml=d" quiet "$WINE64" wineboot -i || die "wineboot -i failed"

    local c=$prefix/drive_c platform="$prefix/drive_c/Program Files/Corvane/Brevant/Platform"
    mkdir -p -- "$platform/agent" "$c/Program Files/Corvane/Keld" "$c/windows/temp"
    printf '[Session_Agent]\r\nPath=agent\r\nName=QoSessionAgent.exe\r\n' >"$platform/Session_Agent.ini"
    cp -- "$helper" "$platform/agent/QoSessionAgent.exe"
    local win_helper="Z:${helper//\//\\}"
    printf '%s\r\n' 'REGEDIT4' '' '[HKEY_LOCAL_MACHINE\Software\Corvane\Brevant\0\Install]' '' \
        '[HKEY_LOCAL_MACHINE\SOFTWARE\Corvane\Keld]' '"InstallDir"="C:\\Program Files\\Corvane\\Keld"' '' \
        '[HKEY_CURRENT_USER\Software\Wine\DllOverrides]' '"winemenubuilder.exe"="d"' '' \
        '[HKEY_CURRENT_USER\Software\Wine\Drivers]' '"Graphics"="null"' '' >"$c/windows/temp/qo-prefix.reg"
    quiet "$WINE64" reg import 'C:\windows\temp\qo-prefix.reg' || die "reg import failed"
    quiet "$WINE64" sc create Keld binPath= "\"$win_helper\" service" || die "sc create Keld failed"
    # The service manager learns of a service created while it runs only after a restart.
    timeout 10 "$WINESERVER" -k </dev/null >/dev/null 2>&1 || true
    stop_prefix
    start_server
    quiet "$WINE64" wineboot || die "wineboot failed"
    # Wine's explorer.exe serves the desktop while a process is attached to it.
    detached "$WINE64" "$helper" keeper
    local deadline=$((SECONDS + 15))
    until explorer_running; do
        [ $SECONDS -lt $deadline ] || die "explorer.exe did not start"
        sleep 0.1
    done
    "$WINE64" sc query Keld </dev/null 2>&1 | grep -q STOPPED || die "Keld is not installed and stopped"
    echo "wine prefix ready in $SECONDS s: $prefix"
}

down() {
    use_prefix "$1"
    stop_prefix
    local left
    left=$(prefix_pids)
    [ -z "$left" ] || die "wine processes still running:" $left
    echo "wine prefix stopped, no wine process left: $prefix"
}

run_wine() {
    use_prefix "$1"
    shift
    exec "$WINE64" "$@"
}

session() {
    session_prefix=$1
    local helper=$2
    shift 2
    trap '"$0" down "$session_prefix" >/dev/null || echo "lifecycle.sh: the prefix teardown failed" >&2' EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    "$0" up "$session_prefix" "$helper"
    # Through a pipe: on a terminal, Wine's console host would redraw the output character by character.
    local status=0
    "$0" wine "$session_prefix" "$@" | cat || status=$?
    return "$status"
}

[ $# -ge 1 ] || die "usage: see the head of $0"
command=$1
shift
case $command in
    build) build "$@" ;;
    tidy) tidy ;;
    up) [ $# -eq 2 ] || die "usage: up <prefix> <helper.exe>"; up "$@" ;;
    down) [ $# -eq 1 ] || die "usage: down <prefix>"; down "$@" ;;
    wine) [ $# -ge 2 ] || die "usage: wine <prefix> <exe> [arg...]"; run_wine "$@" ;;
    session) [ $# -ge 3 ] || die "usage: session <prefix> <helper.exe> <exe> [arg...]"; session "$@" ;;
    *) die "unknown command $command" ;;
esac
