#!/usr/bin/env bash
# The Wine prefix of one test run.
#
#   prefix.sh setup    <prefix> <helper-bin-dir> [<log-file>]
#   prefix.sh teardown <prefix> [<helper-bin-dir>]
#
# setup makes a fresh prefix prepared like a workstation with the client installed (registry keys, the
# platform directory with Session_Agent.ini and the agent stand-in, the Keld service), leaves a
# persistent wineserver and a desktop keeper running, and checks the result. teardown ends every
# process of the prefix, fails if one is still there, and leaves the prefix on disk for inspection;
# the next setup removes it.
#
# Everything started here runs with its standard streams on /dev/null or on the log file and with no
# other inherited descriptor: a wine process that outlives this script must not hold the pipe ctest
# reads, or ctest would wait for it.
set -euo pipefail

usage() {
    echo "usage: $0 setup <prefix> <helper-bin-dir> [<log-file>] | teardown <prefix> [<helper-bin-dir>]" >&2
    exit 2
}
[ $# -ge 2 ] || usage
action=$1
prefix=$(realpath -m -- "$2")
helpers=${3:-}
log=${4:-${prefix}.log}

WINE64=${QO_WINE64:-/usr/lib/wine/wine64}
WINESERVER=${QO_WINESERVER:-/usr/lib/wine/wineserver}

export WINEPREFIX=$prefix
export WINEARCH=win64
export WINEDEBUG=-all
# Headless: the prefix uses Wine's null display driver, and no X or Wayland server is looked for.
unset DISPLAY WAYLAND_DISPLAY

now() { date +%s.%N; }
started=$(now)
elapsed() { awk -v a="$started" -v b="$(now)" 'BEGIN { printf "%.1f", b - a }'; }
# A line in the log marking where a step begins, with the seconds spent so far.
step() { echo "=== $(elapsed) s: $*" >>"$log"; }

fail() {
    echo "prefix.sh $action: $*" >&2
    if [ -f "$log" ]; then
        echo "--- last lines of $log:" >&2
        tail -n 20 "$log" >&2 || true
    fi
    exit 1
}

# Closes every descriptor above 2 of the calling (sub)shell.
close_inherited_fds() {
    local fd
    for fd in /proc/$BASHPID/fd/*; do
        fd=${fd##*/}
        if [ "$fd" -gt 2 ]; then
            eval "exec $fd>&-" 2>/dev/null || true
        fi
    done
}

# Runs a command to its end with its output appended to the log.
logged() {
    (
        close_inherited_fds
        exec "$@" </dev/null >>"$log" 2>&1
    )
}

# Starts a command that outlives this script: its own session, stdio on /dev/null.
detached() {
    (
        close_inherited_fds
        exec setsid "$@" </dev/null >/dev/null 2>&1
    ) &
}

# Process ids of the wine processes (loader, preloader, server) that belong to this prefix.
prefix_pids() {
    local environ dir exe
    for environ in $(grep -lzxF "WINEPREFIX=$prefix" /proc/[0-9]*/environ 2>/dev/null); do
        dir=${environ%/environ}
        exe=$(readlink "$dir/exe" 2>/dev/null) || continue
        case ${exe##*/} in
            wine*) echo "${dir#/proc/}" ;;
        esac
    done
}

# Waits (at most $1 seconds) until no process of the prefix is left; kills what remains after that
# and gives the kill two seconds to take.
wait_prefix_empty() {
    local deadline=$((SECONDS + $1)) pids killed=""
    while pids=$(prefix_pids) && [ -n "$pids" ]; do
        if [ $SECONDS -ge $deadline ]; then
            [ -z "$killed" ] || return 0
            echo "prefix.sh: killing what is left of $prefix:" $pids >&2
            # shellcheck disable=SC2086
            kill -KILL $pids 2>/dev/null || true
            killed=1
            deadline=$((SECONDS + 2))
        fi
        sleep 0.1
    done
}

stop_prefix() {
    if [ -d "$prefix" ]; then
        timeout 10 "$WINESERVER" -k </dev/null >/dev/null 2>&1 || true
    fi
    wait_prefix_empty 10
}

# Starts the persistent server of the prefix. wineserver returns once its socket is ready and keeps
# running in the background, so the wine commands that follow connect to it instead of starting a
# server of their own that would inherit their streams.
start_server() {
    (
        close_inherited_fds
        exec setsid "$WINESERVER" -p </dev/null >/dev/null 2>&1
    ) || fail "wineserver -p failed"
}

windows_path() {
    local unix
    unix=$(realpath -- "$1")
    echo "Z:${unix//\//\\}"
}

setup() {
    [ -n "$helpers" ] || usage
    local helper
    for helper in test_agent.exe keld_service.exe desktop_keeper.exe; do
        [ -f "$helpers/$helper" ] || fail "missing $helpers/$helper (build the helper targets first)"
    done

    stop_prefix
    # The old prefix (some 700 MB) is moved aside and removed in the background.
    if [ -e "$prefix" ]; then
        mv -- "$prefix" "$prefix.old.$$"
    fi
    local old
    for old in "$prefix".old.*; do
        [ -e "$old" ] && detached rm -rf -- "$old"
    done
    mkdir -p -- "$prefix" "$(dirname -- "$log")"
    : >"$log"

    step "wineboot -i"
    start_server
    # A bare prefix: no menu entries in $HOME, no Mono or Gecko installers.
    WINEDLLOVERRIDES="winemenubuilder.exe=d;mscoree=d;mshtml=d" logged "$WINE64" wineboot -i ||
        fail "wineboot -i failed"

    # The installed client: the platform directory, the agent, the Keld install directory (its debug
    # subdirectory is the watchdog's to create).
    local drive_c=$prefix/drive_c
    local platform="$drive_c/Program Files/Corvane/Brevant/Platform"
    mkdir -p -- "$platform/agent" "$drive_c/Program Files/Corvane/Keld"
    printf '[Session_Agent]\r\nPath=agent\r\nName=QoSessionAgent.exe\r\n' >"$platform/Session_Agent.ini"
    cp -- "$helpers/test_agent.exe" "$platform/agent/QoSessionAgent.exe"

    mkdir -p -- "$drive_c/windows/temp"
    printf '%s\r\n' \
        'REGEDIT4' \
        '' \
        '[HKEY_LOCAL_MACHINE\Software\Corvane\Brevant\0\Install]' \
        '' \
        '[HKEY_LOCAL_MACHINE\SOFTWARE\Corvane\Keld]' \
        '"InstallDir"="C:\\Program Files\\Corvane\\Keld"' \
        '' \
        '[HKEY_CURRENT_USER\Software\Wine\DllOverrides]' \
        '"winedbg.exe"="d"' \
        '"winemenubuilder.exe"="d"' \
        '' \
        '[HKEY_CURRENT_USER\Software\Wine\Drivers]' \
        '"Graphics"="null"' \
        '' >"$drive_c/windows/temp/qo-prefix.reg"
    step "reg import"
    logged "$WINE64" reg import 'C:\windows\temp\qo-prefix.reg' || fail "reg import failed"

    local service_exe
    service_exe=$(windows_path "$helpers/keld_service.exe")
    step "sc create Keld"
    logged "$WINE64" sc create Keld binPath= "\"$service_exe\"" || fail "sc create Keld failed"

    # The service manager only learns of a service created while it runs after a restart of the server.
    step "server restart"
    timeout 10 "$WINESERVER" -k </dev/null >/dev/null 2>&1 || true
    wait_prefix_empty 10
    start_server
    logged "$WINE64" wineboot || fail "wineboot (restart) failed"

    # Wine's explorer.exe serves the desktop while some process is attached to it.
    step "desktop keeper"
    detached "$WINE64" "$helpers/desktop_keeper.exe"

    local deadline=$((SECONDS + 15)) explorer=""
    while [ -z "$explorer" ]; do
        local pid
        for pid in $(prefix_pids); do
            if tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null | grep -qi 'explorer\.exe'; then
                explorer=$pid
                break
            fi
        done
        [ -n "$explorer" ] && break
        [ $SECONDS -lt $deadline ] || fail "explorer.exe did not start"
        sleep 0.1
    done

    step "checks"
    local query
    query=$("$WINE64" sc query Keld </dev/null 2>&1) || fail "sc query Keld failed: $query"
    echo "$query" | grep -q 'STOPPED' || fail "Keld is not known and stopped: $query"

    echo "wine prefix ready in $(elapsed) s: $prefix (log: $log)"
    echo "  Keld service stopped ($service_exe), explorer.exe pid $explorer," \
        "C:\\Program Files\\Corvane\\Brevant\\Platform\\agent\\QoSessionAgent.exe"
}

teardown() {
    stop_prefix
    local left
    left=$(prefix_pids)
    [ -z "$left" ] || fail "wine processes still running after the kill:" $left
    echo "wine prefix stopped in $(elapsed) s, no wine process left: $prefix (left on disk)"
}

case $action in
    setup) setup ;;
    teardown) teardown ;;
    *) usage ;;
esac
