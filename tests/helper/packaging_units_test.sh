#!/usr/bin/env bash
# The systemd units as installed: `cmake --install` into a scratch root puts the service
# executable and both units in place, and `systemd-analyze verify` accepts them there (it
# also checks that the service's ExecStart names the installed executable). The socket unit
# must listen where clients look and let every local user connect.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/e2e_lib.sh"
need_built
need_tool systemd-analyze

make_work vadhelper_units
root=$work

DESTDIR=$root cmake --install "$L_BUILD_DIR" >/dev/null || fail "cmake --install failed"
socket=$(find "$root" -name "$SERVICE_NAME.socket" -path '*/systemd/system/*')
service=$(find "$root" -name "$SERVICE_NAME.service" -path '*/systemd/system/*')
[ -n "$socket" ] && [ -n "$service" ] || fail "units not installed"
exec_start=$(sed -n 's/^ExecStart=//p' "$service")
[ -x "$root$exec_start" ] || fail "ExecStart $exec_start is not the installed executable"
cmp -s "$root$exec_start" "$HELPER_EXE" || fail "installed executable differs from the build"
[ -n "$(find "$root" -name kavelpl-vadctl -type f)" ] || fail "client tool not installed"

grep -qx "ListenSequentialPacket=/run/$SERVICE_NAME.sock" "$socket" || fail "socket address"
grep -qx "SocketMode=0666" "$socket" || fail "socket mode"

# verify resolves dependencies such as sysinit.target inside the root: give it the
# distribution's units there.
mkdir -p "$root/lib/systemd"
cp -a /lib/systemd/system "$root/lib/systemd/"
systemd-analyze verify --man=no --root="$root" "$socket" "$service" ||
    fail "systemd-analyze verify rejected the units"
echo PASS
