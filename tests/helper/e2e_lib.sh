# shellcheck shell=bash
# Shared pieces of the helper's end-to-end scripts (sourced, never run on its own).
# Needs L_BUILD_DIR and L_SOURCE_DIR; sets HELPER_EXE and VADCTL. A script that cannot run
# here (no root, no mount namespace, a system tool missing) says why and exits with 77, which
# ctest reports as a skip; anything else that goes wrong is a failure.

HELPER_EXE=${HELPER_EXE:-$L_BUILD_DIR/helper/com.tessalysoftware.KavelPL.VadHelper}
VADCTL=${VADCTL:-$L_BUILD_DIR/tools/kavelpl-vadctl}
SERVICE_NAME=com.tessalysoftware.KavelPL.VadHelper

fail() { echo "FAIL: $*" >&2; exit 1; }
skip() { echo "SKIP: $*"; exit 77; }

need_built() {
    [ -x "$HELPER_EXE" ] || fail "service executable missing: $HELPER_EXE"
    [ -x "$VADCTL" ] || fail "client tool missing: $VADCTL"
}

# need_tool NAME [PACKAGE]: skips when a system tool the script relies on is not installed.
need_tool() {
    command -v "$1" >/dev/null || skip "$1 is not installed (Debian package ${2:-systemd})"
}

# wait_for_socket DIR: waits up to 10 s for the service socket in DIR.
wait_for_socket() {
    local i
    for ((i = 0; i < 200; i++)); do
        [ -S "$1/$SERVICE_NAME.sock" ] && return 0
        sleep 0.05
    done
    fail "no service socket at $1/$SERVICE_NAME.sock"
}

# stop_pid PID: ends a process this script started and reaps it.
stop_pid() { kill -TERM "$1" 2>/dev/null || true; wait "$1" 2>/dev/null || true; }

# make_work STEM: a scratch folder in $work, removed on exit after the process in
# $service_pid (when set) is stopped.
service_pid=
make_work() {
    work=$(mktemp -d "/tmp/$1.XXXXXX")
    trap '[ -z "$service_pid" ] || stop_pid "$service_pid"; rm -rf "$work"' EXIT
}
