#!/usr/bin/env bash
# The client tool in both roles against a running service, as the demo drives it: the
# application asking before anything is published, then waiting while the audio device
# publishes, receiving the endpoint and recording frames from the device directly; and the
# tool's exit status for each way a command can end.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/e2e_lib.sh"
need_built
make_work vadhelper_vadctl
export LXPC_SERVICE_DIR=$work

# expect STATUS ARGS...: runs the tool (stdout and stderr in $out) and fails unless it ends
# with STATUS.
expect() {
    local want=$1 status=0
    shift
    out=$("$VADCTL" "$@" 2>&1) || status=$?
    [ "$status" -eq "$want" ] || fail "kavelpl-vadctl $* ended with $status, not $want: $out"
}

for usage in "" "request --frames -1" "request --timeout 0" "publish --wait 5" "load-driver" \
    "record"; do
    # shellcheck disable=SC2086
    expect 64 $usage
done
expect 0 --help
[[ $out == usage:* ]] || fail "--help printed: $out"
expect 3 request --wait 0

"$HELPER_EXE" &
service_pid=$!
wait_for_socket "$work"
expect 0 request --wait 0
[ "$out" = "SEND_ENDPOINT: none" ] || fail "asked before any publication: $out"
expect 1 request --wait 100
# Every offer is answered with true, whatever became of it.
expect 0 load-driver not/a/bundle
[[ $out == *"offered as $PWD/not/a/bundle"*"LOAD_DRIVER_REPLY: true" ]] || fail "$out"

"$VADCTL" request --wait 10000 --frames 3 >"$work/application" 2>&1 &
application=$!
"$VADCTL" publish --sessions 1 >"$work/device" 2>&1 &
device=$!
wait "$application" || fail "application: $(cat "$work/application")"
wait "$device" || fail "audio device: $(cat "$work/device")"
grep -Eq '^SEND_ENDPOINT: (pushed|received)$' "$work/application" &&
    grep -qx 'START_RECORDING: true' "$work/application" &&
    grep -Eqx 'AUDIO_DATA: 3 frames, 2880 bytes, peak 1[0-9]{4}' "$work/application" &&
    grep -qx 'STOP_RECORDING: true' "$work/application" ||
    fail "application: $(cat "$work/application")"
grep -qx 'NEW_ENDPOINT_REPLY: true' "$work/device" &&
    grep -qx 'DIRECT_CONNECTION: application' "$work/device" &&
    grep -qx 'VOLUME_CHANGED: 0.50' "$work/device" &&
    grep -Eqx 'STOP_RECORDING: ([3-9]|[1-9][0-9]+) frames sent' "$work/device" ||
    fail "audio device: $(cat "$work/device")"
echo PASS
