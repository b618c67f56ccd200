#!/usr/bin/env bash
# On-demand start: systemd's socket activator holds the service socket, and the service
# process comes into being only when the first client connects to it. Before that the
# activator's process is still the activator; after the first client has its reply the
# same process is the service and goes on serving further clients on the inherited socket.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/e2e_lib.sh"
need_built
need_tool systemd-socket-activate

make_work vadhelper_activation
dir=$work

sock=$dir/$SERVICE_NAME.sock
systemd-socket-activate --seqpacket -l "$sock" -E LXPC_SERVICE_DIR="$dir" "$HELPER_EXE" \
    2>"$dir/activator.log" &
service_pid=$!
wait_for_socket "$dir"

helper_real=$(readlink -f "$HELPER_EXE")
sleep 0.2
[ "$(readlink -f /proc/$service_pid/exe)" != "$helper_real" ] ||
    fail "the service started before any client connected"

reply=$(LXPC_SERVICE_DIR="$dir" "$VADCTL" request --wait 0) || fail "first request failed"
[ "$(readlink -f /proc/$service_pid/exe)" = "$helper_real" ] ||
    fail "the first connection did not start the service"
[ "$reply" = "SEND_ENDPOINT: none" ] || fail "first reply was '$reply'"

# The activated service keeps serving on the same socket.
reply=$(LXPC_SERVICE_DIR="$dir" "$VADCTL" request --wait 0) || fail "second request failed"
[ "$reply" = "SEND_ENDPOINT: none" ] || fail "second reply was '$reply'"
[ "$(grep -c 'Communication attempt' "$dir/activator.log")" -eq 1 ] ||
    fail "the activator saw more than one start"
echo PASS
