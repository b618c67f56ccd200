#!/usr/bin/env bash
# The systemd units as installed: `cmake --install` into a scratch root puts the service
# executable and both units in place, and `systemd-analyze verify` accepts them there (it
# also checks that the service's ExecStart names the installed executable). The socket unit
# must listen where clients look and let only the group kavelpl connect, the sysusers.d
# entry must create that group, and the service's sandbox must rate an exposure of at most
# 3.0 in `systemd-analyze security`.
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
[ -n "$(find "$root" -name kavelpl-vadctl -type f)" ] || fail "client tool not installed"

grep -qx "ListenSequentialPacket=/run/$SERVICE_NAME.sock" "$socket" || fail "socket address"
for line in SocketUser=root SocketGroup=kavelpl SocketMode=0660; do
    grep -qx "$line" "$socket" || fail "socket unit lacks $line"
done
sysusers=$(find "$root" -path '*/sysusers.d/*' -name '*.conf')
[ -n "$sysusers" ] || fail "no sysusers.d entry installed"
need_tool systemd-sysusers
mkdir -p "$root/etc"
systemd-sysusers --root="$root" "$sysusers" || fail "systemd-sysusers rejected the entry"
grep -q '^kavelpl:' "$root/etc/group" || fail "the entry does not create the group kavelpl"

# verify resolves dependencies such as sysinit.target inside the root: give it the
# distribution's units there.
mkdir -p "$root/lib/systemd"
cp -a /lib/systemd/system "$root/lib/systemd/"
systemd-analyze verify --man=no --root="$root" "$socket" "$service" ||
    fail "systemd-analyze verify rejected the units"
report=$(systemd-analyze security --offline=yes --no-pager "$service" 2>&1) ||
    fail "systemd-analyze security failed: $report"
exposure=$(sed -n 's/.*Overall exposure level for .*: \([0-9.]*\).*/\1/p' <<<"$report")
[ -n "$exposure" ] || fail "no exposure figure in: $report"
awk -v e="$exposure" 'BEGIN { exit !(e <= 3.0) }' || fail "exposure $exposure is above 3.0"
echo "exposure: $exposure"
echo PASS
