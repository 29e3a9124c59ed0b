# Sourced by the shell checks (security, packaging, guide): "ok"/"FAIL" lines, the output of a
# check that failed, `fail` set once any did, and free loopback ports.
fail=0
check() { # description, command... (must succeed)
    local what=$1 out
    shift
    if out=$("$@" 2>&1); then echo "ok   $what"; else
        echo "FAIL $what"
        [[ -z $out ]] || sed 's/^/     /' <<<"$out"
        fail=1
    fi
}
refused() { # description, command... (must fail; its output is left in $refusal)
    local what=$1
    shift
    if refusal=$("$@" 2>&1); then
        echo "FAIL $what: it succeeded"
        fail=1
    else echo "ok   $what"; fi
}
free_port() { # [tcp]
    python3 -c 'import socket, sys; s = socket.socket(socket.AF_INET, socket.SOCK_STREAM if sys.argv[1:] == ["tcp"] else socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])' "$@"
}
