#!/usr/bin/env bash
# ./run.sh start's access rules from outside: who may write over SNMP, what the state directory
# lets others see, what snmpd listens on, and that fault injection is off.
set -euo pipefail
root=$1
build=$2
tmp=$(mktemp -d /tmp/callhome-access-XXXXXX)
. "$(dirname "$0")/checks.sh"
export CALLHOME_STATE_DIR=$tmp/var CALLHOME_BUILD_DIR=$build CALLHOME_SANITIZE=${3:-0}
export CALLHOME_SNMP_PORT=$(free_port) CALLHOME_TRAP_PORT=$(free_port)
export CALLHOME_V3_AUTH_PASS=auth-pass-0123 CALLHOME_V3_PRIV_PASS=priv-pass-4567
# The instrumented module cannot load into the uninstrumented snmpd.
[[ ${3:-0} == 1 ]] && export CALLHOME_MODE=agentx
unset MIBS MIBDIRS SNMPCONFPATH CALLHOME_RW_COMMUNITY
trap '"$root/run.sh" stop >/dev/null 2>&1 || true; rm -rf "$tmp"' EXIT

mode_is() { [[ $(stat -c %a "$2") == "$1" ]]; }

agent=127.0.0.1:$CALLHOME_SNMP_PORT
site=1.3.6.1.4.1.32473.9.300.1.1.7.0
v3=(-v3 -u callhome -a SHA-256 -x AES -r 0 -t 3)
"$root/run.sh" start >/dev/null

check "v3 authPriv with the right passphrases writes" \
    env MIBS= snmpset "${v3[@]}" -l authPriv -A auth-pass-0123 -X priv-pass-4567 "$agent" $site s v3
refused "v3 authNoPriv cannot write" \
    env MIBS= snmpset "${v3[@]}" -l authNoPriv -A auth-pass-0123 "$agent" $site s nopriv
refused "v3 with a wrong passphrase cannot write" \
    env MIBS= snmpset "${v3[@]}" -l authPriv -A wrong-pass-0123 -X priv-pass-4567 "$agent" $site s wrong
for c in public private; do
    refused "v2c community $c cannot write" \
        env MIBS= snmpset -v2c -c $c -r 0 -t 1 "$agent" $site s v2c
done
check "v2c public reads" bash -c "MIBS= snmpget -v2c -c public $agent $site | grep -q '\"v3\"'"
check "./run.sh env: plain snmpset with names writes" \
    bash -c "eval \"\$('$root/run.sh' env)\" && snmpset $agent callHomeSiteId.0 s lab"
check "state directory 0700" mode_is 700 "$CALLHOME_STATE_DIR"
check "client configuration 0600" mode_is 600 "$CALLHOME_STATE_DIR/snmp/snmp.conf"
check "agent configuration 0600" mode_is 600 "$CALLHOME_STATE_DIR/snmpd.conf"
check "service socket 0660" mode_is 660 "$CALLHOME_STATE_DIR/callhomed.sock"
refused "snmpd listens on no TCP port (no SMUX)" \
    bash -c "ss -Hltnp | grep -q 'pid=$(cat "$CALLHOME_STATE_DIR/snmpd.pid"),'"
refused "no fault injection without --enable-fault-injection" "$root/run.sh" ctl fault clear
check "the refusal says why" grep -q 'enable-fault-injection' <<<"$refusal"

"$root/run.sh" stop >/dev/null
CALLHOME_RW_COMMUNITY=lab-rw "$root/run.sh" start >/dev/null
check "CALLHOME_RW_COMMUNITY opens v2c writes" \
    env MIBS= snmpset -v2c -c lab-rw -r 0 -t 3 "$agent" $site s v2c
refused "but not SNMPv1 writes" env MIBS= snmpset -v1 -c lab-rw -r 0 -t 3 "$agent" $site s v1
check "the v3 user survives the restart" \
    env MIBS= snmpget "${v3[@]}" -l authPriv -A auth-pass-0123 -X priv-pass-4567 "$agent" $site
exit $fail
