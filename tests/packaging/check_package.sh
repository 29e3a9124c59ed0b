#!/usr/bin/env bash
# Builds the Debian package from a scratch build of the source tree (prefix /usr, no tests)
# and checks what a machine would get: files, units and their hardening, maintainer scripts,
# lintian's verdict, and dependencies that cover every shared library the programs load.
set -euo pipefail
src=$1
work=$2
build=$work/build
. "$(dirname "$0")/../security/checks.sh"

cmake -S "$src" -B "$build" -DCMAKE_INSTALL_PREFIX=/usr -DCALLHOME_TESTS=OFF \
    -DCALLHOME_SANITIZE=OFF >/dev/null
cmake --build "$build" -j 2 >/dev/null
rm -f "$build"/callhome_*.deb
(cd "$build" && cpack -G DEB >/dev/null)
debs=("$build"/callhome_*.deb)
deb=${debs[0]}
[[ -f $deb ]] || { echo "FAIL no package built"; exit 1; }
echo "package: $deb"

contents=$(dpkg-deb -c "$deb" | awk '{print $6}')
for f in ./usr/sbin/callhomed ./usr/bin/callhomectl ./usr/sbin/callhome-agentx \
    ./usr/lib/callhome/libcallhomemib.so ./usr/lib/callhome/libcallhome_platform.so \
    ./usr/share/snmp/mibs/CALLHOME-MIB.txt \
    ./usr/lib/systemd/system/callhomed.service ./usr/lib/systemd/system/callhome-agentx.service \
    ./etc/snmp/snmpd.conf.d/callhome.conf ./etc/callhome/callhomed.conf ./usr/share/doc/callhome/copyright \
    ./usr/share/doc/callhome/changelog.Debian.gz ./usr/share/man/man8/callhomed.8.gz \
    ./usr/share/man/man8/callhomectl.8.gz ./usr/share/man/man8/callhome-agentx.8.gz; do
    check "contains $f" grep -qxF "$f" <<<"$contents"
done
check "nothing under /usr/local or the build tree" \
    bash -c '! grep -E "^\./usr/local|'"$src"'" <<<"$1"' _ "$contents"

depends=$(dpkg-deb -f "$deb" Depends)
for p in libsnmp40 libsqlite3-0 libsystemd0 snmpd adduser; do
    check "Depends on $p" grep -qE "(^|, )$p( |,|$)" <<<"$depends"
done

control=$work/control
root=$work/root
rm -rf "$control" "$root"
dpkg-deb -e "$deb" "$control"
dpkg-deb -x "$deb" "$root"
check "conffiles lists the snmpd snippet" grep -qx /etc/snmp/snmpd.conf.d/callhome.conf "$control/conffiles"
check "conffiles lists callhomed's configuration" grep -qx /etc/callhome/callhomed.conf "$control/conffiles"
for s in postinst prerm postrm; do
    check "$s is a valid shell script" sh -n "$control/$s"
done
# Units are started only where systemd runs the machine, through Debian's helpers.
check "postinst starts units only under systemd" \
    grep -q '\[ -d /run/systemd/system \]' "$control/postinst"
check "postinst enables both units with deb-systemd-helper" \
    grep -q 'for unit in callhomed.service callhome-agentx.service' "$control/postinst"
check "postinst creates the callhome user and puts Debian-snmp in its group" \
    grep -q 'adduser --quiet Debian-snmp callhome' "$control/postinst"
check "maintainer scripts call systemctl only for daemon-reload" \
    bash -c '! grep -h systemctl "$@" | grep -v "systemctl --system daemon-reload"' _ \
    "$control/postinst" "$control/prerm" "$control/postrm"
units=$root/usr/lib/systemd/system
for unit in callhomed callhome-agentx; do
    # The units name programs the package installs.
    exe=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$units/$unit.service")
    check "$unit.service runs $exe, which is in the package" test -x "$root$exe"
    check "$unit.service is Type=notify and runs unprivileged" \
        bash -c 'grep -qx Type=notify "$1" && grep -qE "^User=(callhome|Debian-snmp)$" "$1"' _ \
        "$units/$unit.service"
done
check "the service's socket directory is 0750" grep -qx RuntimeDirectoryMode=0750 "$units/callhomed.service"
check "the subagent may use the service's socket" grep -qx SupplementaryGroups=callhome \
    "$units/callhome-agentx.service"
check "snmpd waits longer for the subagent than the module for the service (10 s)" \
    bash -c '(( $(sed -n "s/^agentXTimeout //p" "$1") > 10 ))' _ "$root/etc/snmp/snmpd.conf.d/callhome.conf"
# Exposure as systemd rates it: 2.5 at most ("OK").
for unit in callhomed callhome-agentx; do
    rating=$(cd "$units" && systemd-analyze security --offline=true "$unit.service" 2>&1 |
        sed -n 's/^→ Overall exposure level for .*: \([0-9.]*\).*/\1/p')
    check "$unit.service exposure ${rating:-?} is at most 2.5" \
        awk -v r="$rating" 'BEGIN { exit !(r != "" && r <= 2.5) }'
done
# lintian: no errors, and none of the warnings a careless package gets (unstripped or
# unversioned libraries, missing manual pages, systemctl in maintainer scripts, a bad
# description).
if command -v lintian >/dev/null; then
    lintian --tag-display-limit 0 "$deb" >"$work/lintian.txt" 2>&1 || true
    sed 's/^/     lintian: /' "$work/lintian.txt"
    check "lintian reports no errors" bash -c '! grep -q "^E: " "$1"' _ "$work/lintian.txt"
    check "lintian reports none of the listed warnings" bash -c '! grep -E "^W: [^:]+: (unstripped|no-copyright|debian-changelog|[a-z-]*ldconfig|shared-library|sharedobject|[a-z-]*soname|no-manual-page|maintainer-script-calls-systemctl|[a-z-]*description|custom-library-search-path|[a-z-]*rpath)" "$1"' _ "$work/lintian.txt"
else
    check "lintian is installed" false
fi

# Every shared library the programs link comes from the package itself or from a package it
# depends on. (What those libraries need in turn is their packages' business.)
package_names=$(sed 's/ *([^)]*)//g; s/, */\n/g' <<<"$depends")
for exe in usr/sbin/callhomed usr/bin/callhomectl usr/sbin/callhome-agentx \
    usr/lib/callhome/libcallhomemib.so; do
    resolved=$(ldd "$root/$exe")
    for lib in $(objdump -p "$root/$exe" | awk '$1 == "NEEDED" {print $2}'); do
        path=$(awk -v l="$lib" '$1 == l && $2 == "=>" {print $3}' <<<"$resolved")
        if [[ -z $path || $path == not ]]; then
            check "$exe finds $lib" false
            continue
        fi
        [[ $path == "$root"/* ]] && continue
        owner=$(dpkg -S "$(readlink -f "$path")" 2>/dev/null | head -1 | cut -d: -f1 || true)
        [[ -n $owner ]] || owner=$(dpkg -S "$path" 2>/dev/null | head -1 | cut -d: -f1 || true)
        check "Depends covers $lib of $exe ($owner)" grep -qxF "$owner" <<<"$package_names"
    done
done
check "callhome-agentx from the package runs" "$root/usr/sbin/callhome-agentx" -h >/dev/null

exit $fail
