#!/usr/bin/env bash
# The Debian package as administrators get it: scripts/package builds it (a Release tree of
# its own under the build folder, kept between runs), and then its files must be exactly
# the service, the client tool, the units, the sysusers.d entry, the manual pages and the
# documents, each with its mode and owned by root; the maintainer scripts must be there and
# parse; the service unit must start the packaged executable; the declared dependencies must
# be the packages of the libraries the executables load, nothing more; the client tool must
# run from the unpacked tree; and lintian must report no error.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/e2e_lib.sh"
need_tool dpkg-deb dpkg
need_tool dpkg-shlibdeps dpkg-dev
need_tool cpack cmake
need_tool lintian lintian
# The package is a Release build of its own whatever the suite's build is: one pass checks it.
if grep -qE '^L_(SANITIZE|TSAN):BOOL=ON' "$L_BUILD_DIR/CMakeCache.txt" 2>/dev/null; then
    skip "the package is checked by the plain build's pass"
fi

make_work vadhelper_package
deb=$("$L_SOURCE_DIR/scripts/package" "${L_PACKAGE_BUILD_DIR:-$L_BUILD_DIR/package}" 2>"$work/build.log") ||
    fail "scripts/package failed: $(tail -20 "$work/build.log")"
[ -f "$deb" ] || fail "scripts/package printed no package: $deb"

# Every regular file with its mode; directories are plain 0755 and everything is root's.
unit_dir=./lib/systemd/system
doc_dir=./usr/share/doc/kavelpl-vadhelper
expected=$(sort <<EOF2
-rwxr-xr-x ./usr/libexec/$SERVICE_NAME
-rwxr-xr-x ./usr/bin/kavelpl-vadctl
-rw-r--r-- $unit_dir/$SERVICE_NAME.socket
-rw-r--r-- $unit_dir/$SERVICE_NAME.service
-rw-r--r-- ./usr/lib/sysusers.d/kavelpl.conf
-rw-r--r-- ./usr/share/man/man1/kavelpl-vadctl.1.gz
-rw-r--r-- ./usr/share/man/man8/$SERVICE_NAME.8.gz
-rw-r--r-- $doc_dir/PROTOCOL.md
-rw-r--r-- $doc_dir/copyright
-rw-r--r-- $doc_dir/changelog.gz
EOF2
)
listing=$(dpkg-deb -c "$deb")
actual=$(awk '$1 !~ /^d/ { print $1, $6 }' <<<"$listing" | sort)
[ "$actual" = "$expected" ] || fail "package files differ:
$(diff <(echo "$expected") <(echo "$actual"))"
awk '$1 ~ /^d/ && $1 != "drwxr-xr-x" { print; bad = 1 } $2 != "root/root" { print; bad = 1 }
     END { exit bad }' <<<"$listing" || fail "directory modes or owners above"

# Maintainer scripts: executable shell scripts that parse.
mkdir "$work/control" "$work/root"
dpkg-deb -e "$deb" "$work/control"
for script in postinst prerm postrm; do
    [ -x "$work/control/$script" ] || fail "no executable $script"
    sh -n "$work/control/$script" || fail "$script does not parse"
done

dpkg-deb -x "$deb" "$work/root"
exec_start=$(sed -n 's/^ExecStart=//p' "$work/root/$unit_dir/$SERVICE_NAME.service")
[ "$exec_start" = "/usr/libexec/$SERVICE_NAME" ] || fail "ExecStart is $exec_start"
help=$("$work/root/usr/bin/kavelpl-vadctl" --help) && [[ $help == *load-driver* ]] ||
    fail "the packaged client tool does not run"

# Depends names exactly the packages that hold the libraries the executables load.
# dpkg knows a library by the path its package ships, with or without the /usr prefix.
owner() {
    local lib=$1
    dpkg -S "$lib" 2>/dev/null || dpkg -S "${lib#/usr}" 2>/dev/null || dpkg -S "/usr$lib" 2>/dev/null ||
        fail "no package holds $lib"
}
# Only the libraries an executable names itself: ldd also lists what those load in turn.
# The service also opens a library of its own when it needs it, named in it by soname.
needed=$({
    for exe in "$work/root/usr/bin/kavelpl-vadctl" "$work/root$exec_start"; do
        ldd "$exe" | awk -v names="$(objdump -p "$exe" | awk '$1 == "NEEDED" { print $2 }')" \
            'BEGIN { split(names, n, "\n"); for (i in n) want[n[i]] = 1 }
             $1 in want && $3 ~ /^\// { print $3 }'
    done
    strings "$work/root$exec_start" | grep -xE 'lib[[:alnum:]_.+-]+\.so\.[0-9]+' |
        while read -r so; do ldconfig -p | awk -v so="$so" '$1 == so { print $NF; exit }'; done
} | sort -u | while read -r lib; do owner "$lib"; done | cut -d: -f1 | sort -u)
declared=$(dpkg-deb -f "$deb" Depends | tr ',' '\n' | sed 's/^ *//; s/[ (].*//' | sort -u)
[ -n "$declared" ] || fail "no dependencies declared"
[ "$declared" = "$needed" ] || fail "Depends differs from the loaded libraries' packages:
$(diff <(echo "$needed") <(echo "$declared"))"

lintian --fail-on error "$deb" >"$work/lintian.log" 2>&1 ||
    fail "lintian reports errors: $(cat "$work/lintian.log")"
echo PASS
