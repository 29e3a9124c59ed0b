#!/usr/bin/env bash
# Runs the ```sh blocks of docs/guide.md in order, as one shell session, the way an operator
# would from the top of a checkout, then checks the transcript for what the guide promises.
#
# The guide uses the default ports and ./var. So that the test can run beside a real agent,
# the session runs in a scratch directory whose ./run.sh calls the checkout's run.sh with its
# own CALLHOME_STATE_DIR (the scratch ./var) and free ports, and net-snmp's tools are wrapped
# to turn the guide's 127.0.0.1:1161 and :1162 into those ports. Nothing else is changed.
set -euo pipefail
root=$1
build=$2
sanitize=$3

tmp=$(mktemp -d /tmp/callhome-guide-XXXXXX)
work=$tmp/checkout
mkdir -p "$work/var" "$tmp/bin"
. "$(dirname "$0")/../security/checks.sh"
snmp_port=$(free_port)
trap_port=$(free_port)
smtp_port=$(free_port tcp)

export CALLHOME_STATE_DIR=$work/var CALLHOME_BUILD_DIR=$build
export CALLHOME_SNMP_PORT=$snmp_port CALLHOME_TRAP_PORT=$trap_port CALLHOME_SMTP_PORT=$smtp_port
if [[ $sanitize == ON ]]; then
    # snmpd is not instrumented and run.sh does not preload the sanitizer runtime into it:
    # the instrumented module runs in its own process instead.
    export CALLHOME_SANITIZE=1 CALLHOME_MODE=agentx
else
    export CALLHOME_SANITIZE=0
fi
unset MIBS MIBDIRS

cleanup() {
    (cd "$work" && ./run.sh stop >/dev/null 2>&1) || true
    if [[ -f $work/var/snmptrapd.pid ]]; then
        kill "$(cat "$work/var/snmptrapd.pid")" 2>/dev/null || true
    fi
    rm -rf "$tmp"
}
trap cleanup EXIT

printf '#!/usr/bin/env bash\nexec %q "$@"\n' "$root/run.sh" >"$work/run.sh"
chmod +x "$work/run.sh"
for tool in snmpget snmpset snmpwalk snmptrapd; do
    real=$(PATH=/usr/sbin:/usr/bin:/sbin:/bin command -v "$tool")
    cat >"$tmp/bin/$tool" <<WRAP
#!/usr/bin/env bash
args=()
for a in "\$@"; do
    a=\${a//127.0.0.1:1161/127.0.0.1:$snmp_port}
    a=\${a//127.0.0.1:1162/127.0.0.1:$trap_port}
    args+=("\$a")
done
exec $real "\${args[@]}"
WRAP
    chmod +x "$tmp/bin/$tool"
done
export PATH=$tmp/bin:$PATH

# The session: every block, with a marker naming the guide's line, stopping at the first
# failing command.
session=$tmp/session.sh
awk '
    /^```sh[ \t]*$/ { inblock = 1; printf "echo \"---- guide line %d\"\n", NR; next }
    /^```/ && inblock { inblock = 0; next }
    inblock { print }
' "$root/docs/guide.md" >"$session"
blocks=$(grep -c '^echo "---- guide line' "$session")
echo "running $blocks command blocks of docs/guide.md (snmp port $snmp_port, trap port $trap_port)"

transcript=$tmp/transcript
status=0
(cd "$work" && bash -euo pipefail -x "$session") >"$transcript" 2>&1 || status=$?
cat "$transcript"
if ((status != 0)); then
    echo "FAIL: the guide's commands stopped with status $status (last block marker above)"
    exit 1
fi

expect() { check "$1: '$2' in the transcript" grep -qF -- "$2" "$transcript"; }
expect "names come from CALLHOME-MIB" "CALLHOME-MIB::callHomeDestProfileMaxCount.0 = Gauge32: 50"
expect "short text profile gets the short size" 'callHomeDestProfileMaxMsgSize."ops" = Gauge32: 4000'
expect "alert groups read back" 'callHomeAlertGroups."ops" = Hex-STRING: 09 00 00 00 00 00 00 00'
expect "the sink received the test message" "X-RcptTo: oncall@example.com"
expect "the outbox says it was sent" '"state": "sent"'
expect "the message status says sent" "callHomeMessageStatus.0 = INTEGER: sent(1)"
expect "one message counted" "callHomeAlertsSentCount.0 = Counter32: 1"
expect "an alert below a profile's level reaches nobody" "not queued"
expect "the stdin form queues an alert" "alert queued for 1 profile(s)"
expect "command output is attached" "--- uname -s (exit status 0)"
expect "a command not allowed is not run" "not run: rm is not in allowed_commands"
expect "the 31st alert within an hour is throttled" "throttled for 1"
expect "dump shows the inventory's next due time" '"next_due": "'
expect "the notification names the new type" "callHomeAlertGroupTypeName.8 = STRING: Security"
expect "the configuration survives a restart" "callHomeSiteId.0 = STRING: lab 3"
expect "module traces reach the subagent's log" "callhome: get_using_cmi"
check "the backup is sound (integrity_check answers ok)" \
    bash -c 'grep -A1 -F "PRAGMA integrity_check" "$1" | grep -qx ok' _ "$transcript"
exit $fail
