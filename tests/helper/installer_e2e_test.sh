#!/usr/bin/env bash
# The driver installer end to end: the real service executable, inside a private mount
# namespace whose /Library is an empty tmpfs, receives "LOAD_DRIVER" offers from the client
# tool. Driver bundles are made here. A recording launchctl stands first on the service's
# PATH, and rm/cp/mkdir wrappers there record their command lines before running the real
# tools, so the log holds every command text the service ran, in order.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/e2e_lib.sh"

# private_root: run first in a new mount namespace where "/" is not a mount point (a chroot into
# a plain folder), which unshare cannot make private. It steps to the namespace's own root
# (setns into the namespace it is in), makes every mount there private, steps back into the
# chroot and runs the rest. A bind of "/" onto itself would not do: made on a shared mount, it
# and everything later mounted on it would appear in the machine's own namespace.
private_root='require "syscall.ph";
opendir(my $chroot, "/") or die "/: $!\n";
open(my $ns, "<", "/proc/self/ns/mnt") or die "/proc/self/ns/mnt: $!\n";
syscall(&SYS_setns, fileno($ns), 0) == 0 or die "setns: $!\n";
my ($source, $target, $rec, $private) = ("none", "/", 0x4000, 0x40000);
syscall(&SYS_mount, $source, $target, 0, $rec | $private, 0) == 0 or die "private /: $!\n";
chdir($chroot) && chroot(".") or die "back into the chroot: $!\n";
exec {$ARGV[0]} @ARGV or die "$ARGV[0]: $!\n";'

if [ "${1:-}" != --inside ]; then
    need_built
    for tool in unshare:util-linux flock:util-linux mount:mount perl:perl; do
        need_tool "${tool%:*}" "${tool#*:}"
    done
    [ "$(id -u)" -eq 0 ] || skip "needs root to mount a tmpfs over /Library"
    # Every mount of the test's namespace is private before anything is mounted in it, so
    # nothing the test mounts reaches the machine's own namespace; never shared propagation.
    if unshare --mount --propagation private true 2>/dev/null; then
        isolate=(unshare --mount --propagation private)
    else
        isolate=(unshare --mount --propagation unchanged perl -e "$private_root" --)
    fi
    # Root alone is not enough in some containers: a tmpfs in a private mount namespace must work.
    probe=$(mktemp -d /tmp/vadhelper_e2e_probe.XXXXXX)
    probe_ok=0
    "${isolate[@]}" mount -t tmpfs tmpfs "$probe" 2>/dev/null && probe_ok=1
    rmdir "$probe"
    [ "$probe_ok" -eq 1 ] || skip "a tmpfs in a private mount namespace is not permitted here"
    # /Library must exist as a mount point. When it does not, it is made here and removed
    # afterwards; the lock keeps concurrent runs from removing it under each other.
    exec 9>/tmp/.kavelpl-vadhelper-e2e.lock
    flock 9
    made_library=0
    if [ ! -e /Library ]; then
        mkdir /Library
        made_library=1
    fi
    rc=0
    "${isolate[@]}" bash "$0" --inside || rc=$?
    if [ "$made_library" -eq 1 ]; then
        rmdir /Library
    fi
    [ "$rc" -eq 0 ] || fail "the private mount namespace failed or a check failed inside it (status $rc)"
    echo "PASS"
    exit 0
fi

mount -t tmpfs -o mode=0755 tmpfs /Library || fail "cannot mount a tmpfs over /Library"
make_work vadhelper_e2e

log=$work/commands.log
bin=$work/bin
mkdir -p "$bin" "$work/run"
: >"$log"
# launchctl only records; rm, cp and mkdir record, then run the real tool.
for tool in launchctl rm cp mkdir; do
    run="exec /bin/$tool \"\$@\""
    [ "$tool" = launchctl ] && run=
    printf '#!/bin/sh\necho "%s $*" >>"%s"\n%s\n' "$tool" "$log" "$run" >"$bin/$tool"
done
chmod +x "$bin"/*

HAL=/Library/Audio/Plug-Ins/HAL
DRIVER=$HAL/KavelPLVirtualAudioDevice.driver
RESTART=$'launchctl stop com.apple.audio.coreaudiod\nlaunchctl start com.apple.audio.coreaudiod'

# make_bundle FOLDER VERSION: a driver bundle whose Info.plist carries VERSION and whose
# binary names it, so an installed copy can be told apart.
make_bundle() {
    mkdir -p "$1/Contents/MacOS"
    printf '%s\n' '<?xml version="1.0" encoding="UTF-8"?>' '<plist version="1.0"><dict>' \
        '<key>CFBundleIdentifier</key><string>com.tessalysoftware.KavelPLVirtualAudioDevice</string>' \
        "<key>CFBundleVersion</key><string>$2</string>" '</dict></plist>' >"$1/Contents/Info.plist"
    echo "driver $2" >"$1/Contents/MacOS/KavelPLVirtualAudioDevice"
}

start_helper() {
    # Working folder / as under systemd: the older helper's relative path resolves there.
    (cd / && PATH="$bin:$PATH" LXPC_SERVICE_DIR="$work/run" exec "$HELPER_EXE") &
    service_pid=$!
    wait_for_socket "$work/run"
}

stop_helper() {
    stop_pid "$service_pid"
    service_pid=
    rm -f "$work/run/$SERVICE_NAME.sock"
}

# next_scenario FOLDER...: the service stopped, /Library emptied, $HAL and each FOLDER made.
next_scenario() { stop_helper; rm -rf /Library/*; mkdir -p "$HAL" "$@"; }

# offer PATH EXPECTED_COMMANDS: offers PATH and checks the reply and the exact command texts.
offer() {
    local path=$1 expected=$2 reply
    : >"$log"
    reply=$(LXPC_SERVICE_DIR="$work/run" "$VADCTL" load-driver "$path") ||
        fail "load-driver $path: tool failed"
    [ "${reply##*$'\n'}" = "LOAD_DRIVER_REPLY: true" ] || fail "load-driver $path: reply '$reply'"
    [ "$(cat "$log")" = "$expected" ] ||
        fail "commands for offer $path differ; expected:"$'\n'"$expected"$'\n'"ran:"$'\n'"$(cat "$log")"
}

installed_is() {
    grep -qx "driver $1" "$DRIVER/Contents/MacOS/KavelPLVirtualAudioDevice" &&
        grep -q "<string>$1</string>" "$DRIVER/Contents/Info.plist" || fail "installed driver is not $1"
}

# bundle V: the offered bundle of version V; installing V: the commands that install it.
bundle() { echo "$work/v$1/KavelPLVirtualAudioDevice.driver"; }
installing() { printf 'rm -fr %s\ncp -fr %s %s\n%s' "$DRIVER" "$(bundle "$1")" "$DRIVER" "$RESTART"; }

for v in 1.1 1.2 1.9 1.10 9.9; do
    make_bundle "$work/v$v/KavelPLVirtualAudioDevice.driver" "$v"
done

# 1. No HAL folder yet: the first offer makes it, installs, restarts the audio daemon. An
#    upgrade leaves the first-request flag set, so the next up-to-date offer restarts once
#    more; after that up-to-date and older offers run nothing.
mkdir -p /Library/Audio/Plug-Ins
start_helper
offer "$(bundle 1.9)" "mkdir $HAL
$(installing 1.9)"
installed_is 1.9
offer "$(bundle 1.10)" "$(installing 1.10)"
installed_is 1.10
offer "$(bundle 1.10)" "$RESTART"
for v in 1.10 1.9; do offer "$(bundle $v)" ""; done

# Offered paths that would change a shell command never reach one, although each is an
#    existing folder holding a newer bundle; the reply is still true.
for evil in "$work/x;touch $work/pwned1" "$work/semi;id" \
    "$work/with blank/KavelPLVirtualAudioDevice.driver" "$work/a\$(touch $work/pwned2)"; do
    make_bundle "$evil" 9.9
    offer "$evil" ""
done
[ ! -e "$work/pwned1" ] && [ ! -e "$work/pwned2" ] || fail "an offered path reached a shell"
offer "KavelPLVirtualAudioDevice.driver" ""
installed_is 1.10

# 2. A fresh process with 1.1 installed and the older edition present: offering 1.1 again
#    reinstalls nothing but restarts the audio daemon exactly once; the older edition stays.
next_scenario /Library/PrivilegedHelperTools /Library/LaunchDaemons
cp -r "$(bundle 1.1)" "$DRIVER"
OLD=("$HAL/TessalyVirtualAudioDevice.driver" /Library/PrivilegedHelperTools/com.tessalysoftware.vadhelper
    /Library/LaunchDaemons/com.tessalysoftware.vadhelper.plist)
make_bundle "${OLD[0]}" 3.0
echo helper >"${OLD[1]}"
echo plist >"${OLD[2]}"
start_helper
offer "$(bundle 1.1)" "$RESTART"
offer "$(bundle 1.1)" ""
installed_is 1.1
[ -e "${OLD[0]}" ] || fail "older driver removed without an upgrade"

# An upgrade removes the older edition's driver, helper and launchd list and stops it.
offer "$(bundle 1.2)" "rm -fr ${OLD[0]}
rm -fr ${OLD[1]#/}
rm -fr ${OLD[2]}
launchctl stop com.tessalysoftware.vadhelper
$(installing 1.2)"
installed_is 1.2
for gone in "${OLD[@]}"; do
    [ ! -e "$gone" ] || fail "$gone was not removed"
done
offer "$(bundle 1.2)" ""

# 3. An empty HAL folder: installed without making the folder; a bundle whose version
#    cannot be read is never installed.
next_scenario "$work/noversion/KavelPLVirtualAudioDevice.driver"
start_helper
offer "$work/noversion/KavelPLVirtualAudioDevice.driver" "$RESTART"
[ ! -e "$DRIVER" ] || fail "a bundle without a version was installed"
offer "$(bundle 1.1)" "$(installing 1.1)"
installed_is 1.1

# 4. Offers root must not copy run nothing, not even the first restart: a bundle that is a
#    link into the user's folder, and one whose Info.plist is a FIFO (which must not hold
#    the installer). A good offer is served right after them.
next_scenario "$work/fifo.driver/Contents"
ln -s "$(bundle 1.9)" "$work/link.driver"
mkfifo "$work/fifo.driver/Contents/Info.plist"
start_helper
offer "$work/link.driver" ""
offer "$work/fifo.driver" ""
offer "$(bundle 1.1)" "$(installing 1.1)"

# 5. The installed socket's permissions: group-owned, 0660. Another user is refused at
#    connect (and the tool names the socket); a member of the group is served.
need_tool setpriv util-linux
sock=$work/run/$SERVICE_NAME.sock
chmod 0711 "$work" "$work/run"
chgrp 4242 "$sock"
chmod 0660 "$sock"
: >"$log"
as_user() { LXPC_SERVICE_DIR="$work/run" setpriv --reuid=65534 --regid=65534 "$@"; }
rc=0
out=$(as_user --clear-groups "$VADCTL" load-driver "$(bundle 1.2)" 2>&1) || rc=$?
[ "$rc" -eq 3 ] || fail "another user was not refused at connect (status $rc): $out"
[[ $out == *"$sock"* ]] || fail "the refusal does not name the socket: $out"
[ ! -s "$log" ] || fail "another user's offer ran commands"
reply=$(as_user --groups=4242 "$VADCTL" request --wait 0) || fail "a member of the group was not served"
[ "$reply" = "SEND_ENDPOINT: none" ] || fail "a member of the group got '$reply'"
stop_helper
