#!/usr/bin/env bash
# The one entry point: build and test, start and stop the call-home service and an SNMP agent
# with the module, and run the service's admin CLI.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
BUILD_DIR=${CALLHOME_BUILD_DIR:-$ROOT/build}
STATE_DIR=${CALLHOME_STATE_DIR:-$ROOT/var}
SNMP_PORT=${CALLHOME_SNMP_PORT:-1161}
TRAP_PORT=${CALLHOME_TRAP_PORT:-1162}
SMTP_PORT=${CALLHOME_SMTP_PORT:-2525}
SMTP_SINK=${CALLHOME_SMTP_SINK:-1}
MODE=${CALLHOME_MODE:-dlmod}
ROOT_OID=1.3.6.1.4.1.32473.9.300

# Debian packages the project builds and runs with (./run.sh start installs these only).
PACKAGES=(cmake g++ make pkg-config libsnmp-dev snmpd snmp libsqlite3-dev libsystemd-dev
    libcurl4-openssl-dev python3-aiosmtpd)
# ...and those only the tests need (npm: the MIB checks and ./run.sh mibs/env fetch the IETF
# base modules with it; lintian and systemd's analyzer check the package).
TEST_PACKAGES=(snmptrapd sqlite3 libgtest-dev libgmock-dev smitools npm lintian systemd openssl)

log() { printf '%s\n' "$*" >&2; }
die() {
    log "run.sh: $*"
    exit 1
}

usage() {
    cat <<EOF
usage: ./run.sh COMMAND

  test          install missing Debian packages, build, and run the whole test suite
  start         start the call-home service and snmpd with the module (idempotent)
  stop          stop what start started
  status        show whether the service and the agent are running
  ctl ARGS...   run callhomectl against the running service
  fuzz [SECONDS] build the libFuzzer targets with clang and run each for SECONDS (default 30)
                from its seed corpus in tests/fuzz/corpus (findings land in build-fuzz/findings)
  bench         build what it needs and measure: the request channel, walks, memory and
                read latency, each beside a peer measured in the same run; writes the
                table to bench/results/latest.json too
  mibs          print the environment that lets net-snmp's tools use CALLHOME-MIB names:
                eval "\$(./run.sh mibs)"
  env           the same, plus the SNMPv3 client configuration start wrote, so that
                eval "\$(./run.sh env)"; snmpset 127.0.0.1:1161 callHomeSiteId.0 s lab works

Environment: CALLHOME_STATE_DIR (default ./var), CALLHOME_SNMP_PORT (1161),
CALLHOME_TRAP_PORT (1162), CALLHOME_BUILD_DIR (./build), CALLHOME_DEBUG=1 (the module's debug
traces in the agent's log), CALLHOME_SANITIZE=1 (test with
ASan+UBSan), CALLHOME_MODE (dlmod: snmpd loads the module; agentx: snmpd is AgentX master and
the module runs in callhome-agentx), CALLHOME_V3_AUTH_PASS / CALLHOME_V3_PRIV_PASS (the SNMPv3
user's passphrases on the first start of a state directory; random otherwise),
CALLHOME_RW_COMMUNITY (also allow v2c writes with this community; none by default),
CALLHOME_SMTP_PORT (2525: the local mail sink, which
keeps every message in \$CALLHOME_STATE_DIR/mail), CALLHOME_SMTP_SINK=0 (start no sink),
CALLHOME_CONFIG (a callhomed --config file: TLS, login, time-out, retry delays).
EOF
}

# Only ./run.sh fuzz needs these: clang with libFuzzer's runtime.
FUZZ_PACKAGES=(clang libclang-rt-dev)

ensure_packages() { # package...
    local missing=() p
    for p in "$@"; do
        # Any npm will do.
        if [[ $p == npm ]]; then
            command -v npm >/dev/null || missing+=(npm)
        elif ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$p")
        fi
    done
    ((${#missing[@]} == 0)) && return 0
    log "run.sh: installing ${missing[*]}"
    local sudo=()
    if [[ $(id -u) -ne 0 ]]; then
        command -v sudo >/dev/null || die "missing packages ${missing[*]} and no sudo to install them"
        sudo=(sudo)
    fi
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

configure() {
    local sanitize=OFF
    [[ ${CALLHOME_SANITIZE:-0} == 1 ]] && sanitize=ON
    if [[ ! -f $BUILD_DIR/CMakeCache.txt ]] ||
        ! grep -q "CALLHOME_SANITIZE:BOOL=$sanitize" "$BUILD_DIR/CMakeCache.txt"; then
        cmake -S "$ROOT" -B "$BUILD_DIR" -DCALLHOME_SANITIZE=$sanitize >/dev/null
    fi
}

build() {
    configure
    cmake --build "$BUILD_DIR" -j "$(nproc)" "$@"
}

cmd_test() {
    ensure_packages "${PACKAGES[@]}" "${TEST_PACKAGES[@]}"
    # Configure again: a build directory first configured by start found no GoogleTest.
    [[ -f $BUILD_DIR/CMakeCache.txt ]] && cmake -S "$ROOT" -B "$BUILD_DIR" >/dev/null
    build
    (cd "$BUILD_DIR" && ctest --output-on-failure -j 2 --timeout 300)
}

cmd_fuzz() {
    local seconds=${1:-30} dir=${CALLHOME_FUZZ_BUILD_DIR:-$ROOT/build-fuzz} t failed=0
    [[ $seconds =~ ^[0-9]+$ ]] || die "fuzz: SECONDS must be a number"
    ensure_packages "${FUZZ_PACKAGES[@]}"
    if [[ ! -f $dir/CMakeCache.txt ]]; then
        CC=clang CXX=clang++ cmake -S "$ROOT" -B "$dir" -DCALLHOME_FUZZ=ON -DCALLHOME_TESTS=OFF >/dev/null
    fi
    cmake --build "$dir" -j "$(nproc)" --target fuzz_frame fuzz_read fuzz_write
    for t in frame read write; do
        # The committed seeds stay as they are; what the run learns goes to a scratch corpus.
        mkdir -p "$dir/corpus/$t" "$dir/findings/$t"
        log "run.sh: fuzz_$t for ${seconds}s"
        if ! (cd "$dir/findings/$t" && ASAN_OPTIONS=detect_leaks=0 "$dir/bin/fuzz_$t" \
            -max_total_time="$seconds" -rss_limit_mb=2048 -print_final_stats=1 \
            "$dir/corpus/$t" "$ROOT/tests/fuzz/corpus/$t" >"$dir/findings/$t.log" 2>&1); then
            log "run.sh: fuzz_$t found a fault; see $dir/findings/$t.log and $dir/findings/$t"
            tail -n 30 "$dir/findings/$t.log" >&2
            failed=1
        fi
    done
    return $failed
}

# Measurements run on their own service and snmpd (free port, scratch state under the build
# directory, on the same file system as a real state directory would be).
cmd_bench() {
    ensure_packages "${PACKAGES[@]}"
    build --target callhomed callhomemib callhome_bench >/dev/null
    mkdir -p "$ROOT/bench/results"
    "$BUILD_DIR/bin/callhome_bench" --bin "$BUILD_DIR/bin" --lib "$BUILD_DIR/lib" \
        --out "$ROOT/bench/results/latest.json" --state "$BUILD_DIR/bench-state"
}

# ---- start / stop ---------------------------------------------------------------------------

pid_alive() { [[ -f $1 ]] && kill -0 "$(cat "$1")" 2>/dev/null; }

wait_for() { # seconds, command...
    local deadline=$((SECONDS + $1))
    shift
    until "$@" >/dev/null 2>&1; do
        ((SECONDS < deadline)) || return 1
        sleep 0.1
    done
}

state_paths() {
    mkdir -p "$STATE_DIR"
    # Database, sockets and agent configurations with secrets: the owner's only.
    chmod 0700 "$STATE_DIR"
    STATE_DIR=$(cd "$STATE_DIR" && pwd)
    SOCKET=$STATE_DIR/callhomed.sock
    DB=$STATE_DIR/callhome.db
    SERVICE_PID=$STATE_DIR/callhomed.pid
    AGENT_PID=$STATE_DIR/snmpd.pid
    AGENT_CONF=$STATE_DIR/snmpd.conf
    SUBAGENT_PID=$STATE_DIR/callhome-agentx.pid
    AGENTX_SOCKET=$STATE_DIR/agentx.sock
    MODE_FILE=$STATE_DIR/agent.mode
    SNMP_DIR=$STATE_DIR/snmp
    CLIENT_CONF=$SNMP_DIR/snmp.conf
    USERS_CONF=$STATE_DIR/snmpd-users.conf
    SINK_PID=$STATE_DIR/smtp-sink.pid
    MAIL_DIR=$STATE_DIR/mail
}

ctl() { "$BUILD_DIR/bin/callhomectl" --socket "$SOCKET" "$@"; }

# ---- SNMP access ----------------------------------------------------------------------------
# Writes need SNMPv3 (user callhome, SHA-256 + AES-128, authPriv); v2c `public` reads; a v2c
# write community exists only when CALLHOME_RW_COMMUNITY names one, and never for SNMPv1.

V3_USER=callhome

random_passphrase() { LC_ALL=C tr -dc 'A-Za-z0-9' </dev/urandom | head -c 20 || true; }

check_passphrase() { # variable name, value
    # net-snmp needs 8 characters at least; quotes and blanks would break its config lines.
    [[ ${#2} -ge 8 && $2 != *[\"\'\\[:space:]]* ]] ||
        die "$1 must have at least 8 characters and no quotes, backslashes or blanks"
}

# On the first start of a state directory: the v3 user for snmpd and the matching client
# configuration for net-snmp's tools, both readable by the owner only.
ensure_v3_user() {
    [[ -f $CLIENT_CONF && -f $USERS_CONF ]] && return 0
    local auth=${CALLHOME_V3_AUTH_PASS:-} priv=${CALLHOME_V3_PRIV_PASS:-}
    [[ -n $auth ]] || auth=$(random_passphrase)
    [[ -n $priv ]] || priv=$(random_passphrase)
    check_passphrase CALLHOME_V3_AUTH_PASS "$auth"
    check_passphrase CALLHOME_V3_PRIV_PASS "$priv"
    mkdir -p "$SNMP_DIR"
    chmod 0700 "$SNMP_DIR"
    (
        umask 077
        printf 'createUser %s SHA-256 "%s" AES "%s"\n' "$V3_USER" "$auth" "$priv" >"$USERS_CONF"
        cat >"$CLIENT_CONF" <<EOF
# SNMPv3 credentials of the agent ./run.sh start runs (eval "\$(./run.sh env)" uses them).
defVersion 3
defSecurityName $V3_USER
defSecurityLevel authPriv
defAuthType SHA-256
defPrivType AES
defAuthPassphrase $auth
defPrivPassphrase $priv
EOF
    )
    chmod 0600 "$USERS_CONF" "$CLIENT_CONF"
}

write_agent_conf() {
    (
        umask 077
        cat >"$AGENT_CONF" <<EOF
# Generated by run.sh start; edit run.sh rather than this file.
agentAddress udp:127.0.0.1:$SNMP_PORT
# One log line per request is noise; failures are still logged.
dontLogTCPWrappersConnects yes
rocommunity public 127.0.0.1 $ROOT_OID
rwuser $V3_USER priv $ROOT_OID
trap2sink 127.0.0.1:$TRAP_PORT public
# The log records what goes wrong, not every request.
dontLogTCPWrappersConnects yes
EOF
        if [[ -n ${CALLHOME_RW_COMMUNITY:-} ]]; then
            [[ $CALLHOME_RW_COMMUNITY =~ ^[A-Za-z0-9._-]+$ ]] ||
                die "CALLHOME_RW_COMMUNITY may hold letters, digits, '.', '_' and '-' only"
            # v2c only: SNMPv1 gets no write access.
            cat >>"$AGENT_CONF" <<EOF
com2sec callhomeRw 127.0.0.1 $CALLHOME_RW_COMMUNITY
group callhomeRw v2c callhomeRw
view callhomeView included $ROOT_OID
access callhomeRw "" v2c noauth exact callhomeView callhomeView none
EOF
        fi
        if [[ $MODE == agentx ]]; then
            # The module may wait up to 10 s for the service; the master waits as long.
            printf '%s\n' "master agentx" "agentXSocket $AGENTX_SOCKET" "agentXTimeout 15" >>"$AGENT_CONF"
        else
            echo "dlmod callhome_mib $BUILD_DIR/lib/libcallhomemib.so" >>"$AGENT_CONF"
        fi
    )
}

running_mode() { cat "$MODE_FILE" 2>/dev/null || echo dlmod; }

agent_running() {
    pid_alive "$AGENT_PID" || return 1
    [[ $(running_mode) != agentx ]] || pid_alive "$SUBAGENT_PID"
}

cmd_start() {
    [[ $MODE == dlmod || $MODE == agentx ]] ||
        die "CALLHOME_MODE=$MODE is not supported (dlmod or agentx)"
    state_paths
    if pid_alive "$AGENT_PID" && [[ $(running_mode) != "$MODE" ]]; then
        die "the agent runs in $(running_mode) mode; ./run.sh stop first"
    fi
    if pid_alive "$SERVICE_PID" && agent_running && { [[ $SMTP_SINK == 0 ]] || pid_alive "$SINK_PID"; }; then
        log "call-home service and agent already running (state in $STATE_DIR)"
        return 0
    fi
    ensure_packages "${PACKAGES[@]}"
    local targets=(callhomed callhomectl callhomemib)
    [[ $MODE == agentx ]] && targets+=(callhome-agentx)
    log "run.sh: building ${targets[*]} in $BUILD_DIR (the first build takes a few minutes)"
    build --target "${targets[@]}" >/dev/null

    start_sink
    if ! pid_alive "$SERVICE_PID"; then
        local first=0 config=()
        [[ -e $DB ]] || first=1
        [[ -n ${CALLHOME_CONFIG:-} ]] && config=(--config "$CALLHOME_CONFIG")
        "$BUILD_DIR/bin/callhomed" --socket "$SOCKET" --db "$DB" --pidfile "$SERVICE_PID" \
            "${config[@]}" >>"$STATE_DIR/callhomed.log" 2>&1 </dev/null &
        disown
        wait_for 10 ctl ping || die "callhomed did not come up; see $STATE_DIR/callhomed.log"
        if ((first)) && [[ $SMTP_SINK != 0 ]]; then
            # The same SET the agent would send, so a walk shows the sink as the server.
            ctl smtp-server 127.0.0.1 "$SMTP_PORT" >/dev/null ||
                die "could not point the SMTP server objects at the mail sink"
            log "run.sh: new state directory: the SMTP server objects now name the local mail" \
                "sink 127.0.0.1:$SMTP_PORT (callHomeSmtpServerAddr, callHomeSmtpServerPort)"
        fi
    fi

    if ! pid_alive "$AGENT_PID"; then
        ensure_v3_user
        write_agent_conf
        local debug=()
        [[ -n ${CALLHOME_DEBUG:-} ]] && debug=(-Dcallhome)
        # -C: only our configuration (the v3 user comes from its own file each start);
        # -I -smux: no SMUX listener; MIBS empty: no MIB files are needed to serve.
        CALLHOME_SOCKET=$SOCKET SNMP_PERSISTENT_DIR=$SNMP_DIR MIBS= \
            snmpd -C -c "$AGENT_CONF,$USERS_CONF" -I -smux -Lf "$STATE_DIR/snmpd.log" \
            -p "$AGENT_PID" "${debug[@]}" \
            </dev/null >/dev/null 2>&1 || die "snmpd failed to start; see $STATE_DIR/snmpd.log"
        echo "$MODE" >"$MODE_FILE"
        if [[ $MODE == dlmod ]]; then
            wait_for 10 snmpget -v2c -c public -r 0 -t 1 "127.0.0.1:$SNMP_PORT" "$ROOT_OID.1.1.13.0" ||
                die "snmpd does not answer on 127.0.0.1:$SNMP_PORT; see $STATE_DIR/snmpd.log"
        fi
    fi

    if [[ $MODE == agentx ]] && ! pid_alive "$SUBAGENT_PID"; then
        wait_for 10 test -S "$AGENTX_SOCKET" ||
            die "snmpd opened no AgentX socket; see $STATE_DIR/snmpd.log"
        # It goes to the background itself once it is set up; its log gets the traces only
        # with CALLHOME_DEBUG (formatting them costs more than the requests they describe).
        local sub_debug=()
        [[ -n ${CALLHOME_DEBUG:-} ]] && sub_debug=(-D callhome)
        "$BUILD_DIR/bin/callhome-agentx" -x "$AGENTX_SOCKET" -s "$SOCKET" -p "$SUBAGENT_PID" \
            -Lf "$STATE_DIR/callhome-agentx.log" "${sub_debug[@]}" </dev/null >/dev/null 2>&1 ||
            die "callhome-agentx failed to start; see $STATE_DIR/callhome-agentx.log"
        wait_for 10 snmpget -v2c -c public -r 0 -t 1 "127.0.0.1:$SNMP_PORT" "$ROOT_OID.1.1.13.0" ||
            die "the subagent does not answer through snmpd; see $STATE_DIR/callhome-agentx.log"
    fi

    cat <<EOF
call-home service: pid $(cat "$SERVICE_PID"), socket $SOCKET, database $DB
SNMP agent:        pid $(cat "$AGENT_PID"), udp 127.0.0.1:$SNMP_PORT (v2c public reads; writes:
                   SNMPv3 user $V3_USER, authPriv, credentials in $CLIENT_CONF$([[ -n ${CALLHOME_RW_COMMUNITY:-} ]] && printf ', v2c community %s' "$CALLHOME_RW_COMMUNITY")),
                   notifications to 127.0.0.1:$TRAP_PORT, module $(running_mode)
EOF
    # Lines for the parts that run only in some configurations.
    [[ $(running_mode) == agentx ]] &&
        echo "AgentX subagent:   pid $(cat "$SUBAGENT_PID"), master socket $AGENTX_SOCKET"
    pid_alive "$SINK_PID" &&
        echo "mail sink:         pid $(cat "$SINK_PID"), smtp 127.0.0.1:$SMTP_PORT, messages in $MAIL_DIR/new/"
    cat <<EOF
logs and state:    $STATE_DIR

Try:  eval "\$(./run.sh env)"    # names (CALLHOME-MIB) and v3 credentials for net-snmp's tools
      snmpset 127.0.0.1:$SNMP_PORT callHomeSiteId.0 s lab
      snmpwalk -v2c -c public 127.0.0.1:$SNMP_PORT $ROOT_OID
      ./run.sh ctl dump
EOF
}

port_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# A local SMTP server that keeps every message as a file (Maildir), so that delivery works
# out of the box and its result can be opened.
start_sink() {
    [[ $SMTP_SINK != 0 ]] || return 0
    pid_alive "$SINK_PID" && return 0
    if port_open "$SMTP_PORT"; then
        die "127.0.0.1:$SMTP_PORT is taken; set CALLHOME_SMTP_PORT, or CALLHOME_SMTP_SINK=0"
    fi
    mkdir -p -m 0700 "$MAIL_DIR" "$MAIL_DIR/cur" "$MAIL_DIR/new" "$MAIL_DIR/tmp"
    # Debian's python3 by its path: another python3 may come first in PATH.
    /usr/bin/python3 -m aiosmtpd -n -l "127.0.0.1:$SMTP_PORT" -c aiosmtpd.handlers.Mailbox \
        "$MAIL_DIR" >>"$STATE_DIR/smtp-sink.log" 2>&1 </dev/null &
    echo $! >"$SINK_PID"
    disown
    wait_for 10 port_open "$SMTP_PORT" ||
        die "the mail sink does not listen on 127.0.0.1:$SMTP_PORT; see $STATE_DIR/smtp-sink.log"
}

stop_pid() { # pidfile name
    local pidfile=$1 name=$2 pid
    [[ -f $pidfile ]] || return 0
    pid=$(cat "$pidfile")
    if kill -0 "$pid" 2>/dev/null; then
        kill "$pid"
        wait_for 10 bash -c "! kill -0 $pid" || kill -9 "$pid" 2>/dev/null || true
        log "stopped $name (pid $pid)"
    fi
    rm -f "$pidfile"
}

cmd_stop() {
    state_paths
    # The pid files name what start started, whichever mode it was.
    stop_pid "$SUBAGENT_PID" callhome-agentx
    stop_pid "$AGENT_PID" snmpd
    rm -f "$MODE_FILE"
    stop_pid "$SERVICE_PID" callhomed
    stop_pid "$SINK_PID" "mail sink"
}

cmd_status() {
    state_paths
    local rc=0
    if pid_alive "$SERVICE_PID"; then echo "callhomed: running (pid $(cat "$SERVICE_PID"))"; else
        echo "callhomed: stopped"
        rc=1
    fi
    if pid_alive "$AGENT_PID"; then echo "snmpd: running (pid $(cat "$AGENT_PID"))"; else
        echo "snmpd: stopped"
        rc=1
    fi
    if pid_alive "$SINK_PID"; then echo "mail sink: running (pid $(cat "$SINK_PID"))"; else
        echo "mail sink: stopped"
    fi
    if [[ $(running_mode) == agentx ]]; then
        if pid_alive "$SUBAGENT_PID"; then
            echo "callhome-agentx: running (pid $(cat "$SUBAGENT_PID"))"
        else
            echo "callhome-agentx: stopped"
            rc=1
        fi
    fi
    return $rc
}

cmd_ctl() {
    state_paths
    [[ -x $BUILD_DIR/bin/callhomectl ]] || die "not built yet: run ./run.sh start"
    exec "$BUILD_DIR/bin/callhomectl" --socket "$SOCKET" "$@"
}

# net-snmp's tools find CALLHOME-MIB and the IETF base modules it imports (Debian's main
# archive does not ship those; the npm package net-snmp carries them).
cmd_mibs() {
    local base=$BUILD_DIR/npm
    ensure_packages npm
    "$ROOT/mibs/fetch-base-mibs.sh" "$base" >/dev/null || die "could not fetch the base MIB modules"
    printf "export MIBDIRS='+%s'\n" "$ROOT/mibs:$base/node_modules/net-snmp/lib/mibs"
    printf "export MIBS='SNMPv2-MIB:CALLHOME-MIB'\n"
}

# cmd_mibs plus SNMPCONFPATH: the client configuration with the v3 user start created.
cmd_env() {
    state_paths
    [[ -f $CLIENT_CONF ]] || die "no SNMPv3 client configuration in $SNMP_DIR yet: run ./run.sh start"
    cmd_mibs
    printf "export SNMPCONFPATH='%s'\n" "$SNMP_DIR"
}

case ${1:-} in
test) cmd_test ;;
fuzz)
    shift
    cmd_fuzz "$@"
    ;;
bench) cmd_bench ;;
start) cmd_start ;;
stop) cmd_stop ;;
status) cmd_status ;;
mibs) cmd_mibs ;;
env) cmd_env ;;
ctl)
    shift
    cmd_ctl "$@"
    ;;
-h | --help | help) usage ;;
*)
    usage >&2
    exit 2
    ;;
esac
