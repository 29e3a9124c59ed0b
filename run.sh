#!/usr/bin/env bash
# The one entry point: build and test, start and stop the call-home service and an SNMP agent
# with the module, and run the service's admin CLI.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
BUILD_DIR=${CALLHOME_BUILD_DIR:-$ROOT/build}
STATE_DIR=${CALLHOME_STATE_DIR:-$ROOT/var}
SNMP_PORT=${CALLHOME_SNMP_PORT:-1161}
TRAP_PORT=${CALLHOME_TRAP_PORT:-1162}
MODE=${CALLHOME_MODE:-dlmod}
ROOT_OID=1.3.6.1.4.1.32473.9.300

# Debian packages the project builds, tests and runs with.
PACKAGES=(cmake g++ make pkg-config libsnmp-dev snmpd snmp snmptrapd libsqlite3-dev sqlite3
    libgtest-dev libgmock-dev smitools)

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
  mibs          print the environment that lets net-snmp's tools use CALLHOME-MIB names:
                eval "\$(./run.sh mibs)"

Environment: CALLHOME_STATE_DIR (default ./var), CALLHOME_SNMP_PORT (1161),
CALLHOME_TRAP_PORT (1162), CALLHOME_BUILD_DIR (./build), CALLHOME_DEBUG=1 (the module's debug
traces in the agent's log), CALLHOME_SANITIZE=1 (test with
ASan+UBSan), CALLHOME_MODE (dlmod: snmpd loads the module; agentx: snmpd is AgentX master and
the module runs in callhome-agentx).
EOF
}

# Only ./run.sh fuzz needs these: clang with libFuzzer's runtime.
FUZZ_PACKAGES=(clang libclang-rt-dev)

ensure_packages() {
    local missing=() p
    for p in "${PACKAGES[@]}" "$@"; do
        if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$p")
        fi
    done
    # The MIB checks fetch the IETF base modules with npm; any npm will do.
    command -v npm >/dev/null || missing+=(npm)
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
    ensure_packages
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
    STATE_DIR=$(cd "$STATE_DIR" && pwd)
    SOCKET=$STATE_DIR/callhomed.sock
    DB=$STATE_DIR/callhome.db
    SERVICE_PID=$STATE_DIR/callhomed.pid
    AGENT_PID=$STATE_DIR/snmpd.pid
    AGENT_CONF=$STATE_DIR/snmpd.conf
    SUBAGENT_PID=$STATE_DIR/callhome-agentx.pid
    AGENTX_SOCKET=$STATE_DIR/agentx.sock
    MODE_FILE=$STATE_DIR/agent.mode
}

ctl() { "$BUILD_DIR/bin/callhomectl" --socket "$SOCKET" "$@"; }

write_agent_conf() {
    cat >"$AGENT_CONF" <<EOF
# Generated by run.sh start; edit run.sh rather than this file.
agentAddress udp:127.0.0.1:$SNMP_PORT
rocommunity public 127.0.0.1 $ROOT_OID
rwcommunity private 127.0.0.1 $ROOT_OID
trap2sink 127.0.0.1:$TRAP_PORT public
EOF
    if [[ $MODE == agentx ]]; then
        # The module may wait up to 10 s for the service; the master waits as long.
        printf '%s\n' "master agentx" "agentXSocket $AGENTX_SOCKET" "agentXTimeout 15" >>"$AGENT_CONF"
    else
        echo "dlmod callhome_mib $BUILD_DIR/lib/libcallhomemib.so" >>"$AGENT_CONF"
    fi
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
    if pid_alive "$SERVICE_PID" && agent_running; then
        log "call-home service and agent already running (state in $STATE_DIR)"
        return 0
    fi
    ensure_packages
    local targets=(callhomed callhomectl callhomemib)
    [[ $MODE == agentx ]] && targets+=(callhome-agentx)
    build --target "${targets[@]}" >/dev/null

    if ! pid_alive "$SERVICE_PID"; then
        "$BUILD_DIR/bin/callhomed" --socket "$SOCKET" --db "$DB" --pidfile "$SERVICE_PID" \
            >>"$STATE_DIR/callhomed.log" 2>&1 </dev/null &
        disown
        wait_for 10 ctl ping || die "callhomed did not come up; see $STATE_DIR/callhomed.log"
    fi

    if ! pid_alive "$AGENT_PID"; then
        write_agent_conf
        mkdir -p "$STATE_DIR/snmp"
        local debug=()
        [[ -n ${CALLHOME_DEBUG:-} ]] && debug=(-Dcallhome)
        # -C: only our configuration; MIBS empty: no MIB files are needed to serve.
        CALLHOME_SOCKET=$SOCKET SNMP_PERSISTENT_DIR=$STATE_DIR/snmp MIBS= \
            snmpd -C -c "$AGENT_CONF" -Lf "$STATE_DIR/snmpd.log" -p "$AGENT_PID" "${debug[@]}" \
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
        # It goes to the background itself once it is set up; traces go to its log.
        "$BUILD_DIR/bin/callhome-agentx" -x "$AGENTX_SOCKET" -s "$SOCKET" -p "$SUBAGENT_PID" \
            -Lf "$STATE_DIR/callhome-agentx.log" -D callhome </dev/null >/dev/null 2>&1 ||
            die "callhome-agentx failed to start; see $STATE_DIR/callhome-agentx.log"
        wait_for 10 snmpget -v2c -c public -r 0 -t 1 "127.0.0.1:$SNMP_PORT" "$ROOT_OID.1.1.13.0" ||
            die "the subagent does not answer through snmpd; see $STATE_DIR/callhome-agentx.log"
    fi

    cat <<EOF
call-home service: pid $(cat "$SERVICE_PID"), socket $SOCKET, database $DB
SNMP agent:        pid $(cat "$AGENT_PID"), udp 127.0.0.1:$SNMP_PORT (communities public/private),
                   notifications to 127.0.0.1:$TRAP_PORT, module $(running_mode)
$([[ $(running_mode) == agentx ]] && echo "AgentX subagent:   pid $(cat "$SUBAGENT_PID"), master socket $AGENTX_SOCKET")
logs and state:    $STATE_DIR

Try:  snmpwalk -v2c -c public 127.0.0.1:$SNMP_PORT $ROOT_OID
      ./run.sh ctl dump
      eval "\$(./run.sh mibs)"   # object names in net-snmp's tools (CALLHOME-MIB)
EOF
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
    "$ROOT/mibs/fetch-base-mibs.sh" "$base" >/dev/null || die "could not fetch the base MIB modules"
    printf "export MIBDIRS='+%s'\n" "$ROOT/mibs:$base/node_modules/net-snmp/lib/mibs"
    printf "export MIBS='SNMPv2-MIB:CALLHOME-MIB'\n"
}

case ${1:-} in
test) cmd_test ;;
fuzz)
    shift
    cmd_fuzz "$@"
    ;;
start) cmd_start ;;
stop) cmd_stop ;;
status) cmd_status ;;
mibs) cmd_mibs ;;
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
