#!/usr/bin/env bash
# The service's socket as the package sets it up, with temporary system users this test
# removes again: callhomed as its own user, its socket in a 0750 directory of its group. An
# snmpd with the module whose user is in that group reaches the service; one whose user is
# not gets no values and logs why; a client that gets past the file modes is still refused
# by the service's credential check. Needs root (exit 77: skipped).
set -euo pipefail
build=$1
if [[ $(id -u) -ne 0 ]] || ! command -v useradd >/dev/null || ! command -v setpriv >/dev/null; then
    echo "needs root, useradd and setpriv: skipped"
    exit 77
fi
tag=chk$$
svc=${tag}s
member=${tag}m
outsider=${tag}o
tmp=$(mktemp -d /tmp/callhome-group-XXXXXX)
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    for u in "$svc" "$member" "$outsider"; do userdel "$u" 2>/dev/null || true; done
    groupdel "$svc" 2>/dev/null || true
    rm -rf "$tmp"
}
trap cleanup EXIT
. "$(dirname "$0")/checks.sh"

groupadd --system "$svc"
useradd --system -M -s /usr/sbin/nologin -g "$svc" "$svc"
useradd --system -M -s /usr/sbin/nologin -U -G "$svc" "$member"
useradd --system -M -s /usr/sbin/nologin -U "$outsider"

# The programs, where every test user can read them (the build tree may not be).
chmod 0755 "$tmp"
mkdir -p "$tmp/bin" "$tmp/lib"
cp "$build/bin/callhomed" "$build/bin/callhomectl" "$tmp/bin/"
cp "$build/lib/libcallhomemib.so" "$build/lib/libcallhome_platform.so" "$tmp/lib/"
run=$tmp/run
sock=$run/callhomed.sock
install -d -o "$svc" -g "$svc" -m 0750 "$run"
install -d -o "$svc" -g "$svc" -m 0700 "$tmp/state"
setpriv --reuid="$svc" --regid="$svc" --init-groups "$tmp/bin/callhomed" --socket "$sock" \
    --db "$tmp/state/callhome.db" 2>"$tmp/callhomed.log" &
pids+=($!)
for _ in $(seq 100); do [[ -S $sock ]] && break || sleep 0.1; done

site=.1.3.6.1.4.1.32473.9.300.1.1.7.0
for who in "$member" "$outsider"; do
    dir=$tmp/$who
    install -d -o "$who" -m 0700 "$dir"
    port=$(free_port)
    printf '%s\n' "agentAddress udp:127.0.0.1:$port" "rocommunity public 127.0.0.1" \
        "dontLogTCPWrappersConnects yes" "dlmod callhome_mib $tmp/lib/libcallhomemib.so" >"$dir/snmpd.conf"
    chown "$who" "$dir/snmpd.conf"
    setpriv --reuid="$who" --regid="$who" --init-groups env CALLHOME_SOCKET="$sock" \
        SNMP_PERSISTENT_DIR="$dir" MIBS= snmpd -f -C -c "$dir/snmpd.conf" -I -smux \
        -Lf "$dir/snmpd.log" &
    pids+=($!)
    for _ in $(seq 100); do
        MIBS= snmpget -v2c -c public -r 0 -t 0.2 "127.0.0.1:$port" .1.3.6.1.2.1.1.3.0 >/dev/null 2>&1 && break
        sleep 0.1
    done
    MIBS= snmpget -v2c -c public -On -r 0 -t 5 "127.0.0.1:$port" $site >"$dir/get.out" 2>&1 || true
done
check "snmpd as a member of the service's group reads the service" \
    grep -qE "$site = (STRING|\"\")" "$tmp/$member/get.out"
check "snmpd as another user gets no value" grep -q "$site = No Such Instance" "$tmp/$outsider/get.out"
check "and its log says why" grep -qF "cannot reach the call-home service at $sock: Permission denied" \
    "$tmp/$outsider/snmpd.log"

# Past the directory's mode (as root could let it), the service still checks who connects.
out=$(setpriv --reuid="$outsider" --regid="$outsider" --init-groups --inh-caps=+dac_override \
    --ambient-caps=+dac_override "$tmp/bin/callhomectl" --socket "$sock" ping 2>&1 || true)
check "the service refuses a client outside its group (callhomectl: $out)" \
    grep -q "refused a client (uid $(id -u "$outsider")" "$tmp/callhomed.log"
check "a member's callhomectl is served" \
    setpriv --reuid="$member" --regid="$member" --init-groups "$tmp/bin/callhomectl" --socket "$sock" ping
if ((fail)); then
    for f in "$tmp/callhomed.log" "$tmp"/"$tag"*/*.log "$tmp"/"$tag"*/get.out; do
        echo "---- $f"
        cat "$f"
    done
fi
exit $fail
