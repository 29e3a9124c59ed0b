#!/usr/bin/env bash
# Builds the Debian package from a scratch build of the source tree (prefix /usr, no tests)
# and checks what a machine would get: files, units, maintainer scripts and dependencies
# that cover every shared library the programs load.
set -euo pipefail
src=$1
work=$2
build=$work/build
fail=0
check() { # message, command...
    local what=$1
    shift
    if "$@"; then
        echo "ok   $what"
    else
        echo "FAIL $what"
        fail=1
    fi
}

cmake -S "$src" -B "$build" -DCMAKE_INSTALL_PREFIX=/usr -DCALLHOME_TESTS=OFF \
    -DCALLHOME_SANITIZE=OFF >/dev/null
cmake --build "$build" -j 2 >/dev/null
rm -f "$build"/callhome_*.deb
(cd "$build" && cpack -G DEB >/dev/null)
debs=("$build"/callhome_*.deb)
[[ -f ${debs[0]} ]] || {
    echo "FAIL no package built"
    exit 1
}
deb=${debs[0]}
echo "package: $deb"

contents=$(dpkg-deb -c "$deb" | awk '{print $6}')
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -print-multiarch)
for f in ./usr/sbin/callhomed ./usr/bin/callhomectl ./usr/sbin/callhome-agentx \
    "./usr/lib/$multiarch/libcallhomemib.so" "./usr/lib/$multiarch/libcallhome_platform.so" \
    ./usr/share/snmp/mibs/CALLHOME-MIB.txt \
    ./usr/lib/systemd/system/callhomed.service ./usr/lib/systemd/system/callhome-agentx.service \
    ./etc/snmp/snmpd.conf.d/callhome.conf; do
    check "contains $f" grep -qxF "$f" <<<"$contents"
done
check "nothing under /usr/local or the build tree" \
    bash -c '! grep -E "^\./usr/local|'"$src"'" <<<"$1"' _ "$contents"

info=$(dpkg-deb -I "$deb")
depends=$(dpkg-deb -f "$deb" Depends)
for p in libsnmp40 libsqlite3-0 snmpd; do
    check "Depends on $p" grep -qE "(^|, )$p( |,|$)" <<<"$depends"
done
for s in postinst prerm postrm conffiles; do
    check "control has $s" grep -qE "^ +[0-9]+ bytes, +[0-9]+ lines +\*? *$s" <<<"$info"
done

control=$work/control
root=$work/root
rm -rf "$control" "$root"
dpkg-deb -e "$deb" "$control"
dpkg-deb -x "$deb" "$root"
check "conffiles lists the snmpd snippet" grep -qx /etc/snmp/snmpd.conf.d/callhome.conf "$control/conffiles"
for s in postinst prerm postrm; do
    check "$s is a valid shell script" sh -n "$control/$s"
done
# Units are started only where systemd runs the machine.
check "postinst enables and starts only under systemd" \
    grep -q '\[ -d /run/systemd/system \]' "$control/postinst"
check "postinst enables both units" grep -q 'enable callhomed.service callhome-agentx.service' "$control/postinst"
# The units name programs the package installs.
for unit in callhomed callhome-agentx; do
    exe=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$root/usr/lib/systemd/system/$unit.service")
    check "$unit.service runs $exe, which is in the package" test -x "$root$exe"
done
if command -v systemd-analyze >/dev/null; then
    for unit in callhomed callhome-agentx; do
        check "$unit.service passes systemd-analyze verify" \
            bash -c 'systemd-analyze verify --man=no "$1" 2>&1 | grep -v "Executable path\|not executable\|No such file" | { ! grep -q .; }' _ "$root/usr/lib/systemd/system/$unit.service"
    done
fi

# Every shared library the programs link comes from the package itself or from a package it
# depends on. (What those libraries need in turn is their packages' business.)
package_names=$(sed 's/ *([^)]*)//g; s/, */\n/g' <<<"$depends")
for exe in usr/sbin/callhomed usr/bin/callhomectl usr/sbin/callhome-agentx \
    "usr/lib/$multiarch/libcallhomemib.so"; do
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
