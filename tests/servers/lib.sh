# shellcheck shell=bash
# Helpers shared by tests/servers/start.sh and stop.sh. Source it, don't run it.
# Everything here talks to 127.0.0.1 only, and every loop is bounded.
#
# A servers directory DIR holds: .quillon-servers (the marker that lets
# start.sh wipe it), servers.env, run/NAME.pid and run/NAME.comm (each server
# started and its /proc/PID/comm: stop.sh signals only a process that still
# matches), pki/, www/ (the document root) and one directory per server.

# Debian's own python3 first: a pyenv shim on PATH costs about 0.25 s a call.
if [ -z "${PYTHON:-}" ]; then
    if [ -x /usr/bin/python3 ]; then PYTHON=/usr/bin/python3; else PYTHON=python3; fi
fi

die() { echo "servers: error: $*" >&2; exit 1; }
note() { echo "servers: $*" >&2; }

# show_log FILE...: the last lines of each non-empty FILE, on stderr.
show_log() {
    local f
    for f in "$@"; do
        [ -s "$f" ] || continue
        echo "---- $f (last 30 lines)" >&2
        tail -n 30 "$f" >&2
    done
}

# free_ports N: N distinct TCP ports free on 127.0.0.1 right now, one a line.
# Another process can still take one before our server binds it, so callers
# check ownership and retry.
free_ports() {
    "$PYTHON" - "$1" <<'EOF'
import socket, sys
socks = [socket.socket() for _ in range(int(sys.argv[1]))]
for s in socks:
    s.bind(("127.0.0.1", 0))
for s in socks:
    print(s.getsockname()[1])
EOF
}

# http_ok URL [curl options]: a GET of URL answers 200.
http_ok() {
    local url=$1 code
    shift
    code=$(curl -q -s -o /dev/null -w '%{http_code}' --noproxy '*' --max-time 2 "$@" "$url") || true
    [ "$code" = 200 ]
}

# wait_until TIMEOUT_MS CMD...: run CMD every 50 ms until it succeeds; 1 on time-out.
wait_until() {
    local tries=$(( $1 / 50 + 1 )) i
    shift
    for (( i = 0; i < tries; i++ )); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.05
    done
    return 1
}

# pid_alive PID: the process exists and is not a zombie (a server outlives the
# script that started it, and its new parent may reap it late).
pid_alive() {
    local st
    { read -r st <"/proc/$1/stat"; } 2>/dev/null || return 1
    st=${st##*) }
    st=${st%% *}
    [ -n "$st" ] && [ "$st" != Z ] && [ "$st" != X ]
}

pid_comm() { cat "/proc/$1/comm" 2>/dev/null || true; }

# children_of PID: the PIDs whose parent is PID.
children_of() {
    local f st
    for f in /proc/[0-9]*/stat; do
        { read -r st <"$f"; } 2>/dev/null || continue
        st=${st##*) }
        st=${st#* }
        if [ "${st%% *}" = "$1" ]; then f=${f#/proc/}; echo "${f%/stat}"; fi
    done
}

# owns_port PID PORT: the socket listening on 127.0.0.1:PORT belongs to PID,
# not to whatever else took the port (another test run's server).
owns_port() {
    command -v ss >/dev/null 2>&1 || return 0  # cannot tell; the HTTP probe still runs
    ss -Hltnp "( sport = :$2 )" 2>/dev/null | grep -q "pid=$1,"
}

# record DIR NAME PID PROGRAM: note the PID and the command name it will have
# (the program's file name, cut to 15 characters), for stop.sh. Taken from
# PROGRAM: just after `prog &` the child may still be the shell about to exec.
record() {
    local comm
    comm=$(basename -- "$4")
    mkdir -p "$1/run"
    echo "$3" >"$1/run/$2.pid"
    echo "${comm:0:15}" >"$1/run/$2.comm"
}

# wait_gone TRIES PID...: poll every 50 ms until none of the PIDs is alive.
wait_gone() {
    local tries=$1 i p busy
    shift
    for (( i = 0; i < tries; i++ )); do
        busy=0
        for p in "$@"; do pid_alive "$p" && busy=1; done
        [ $busy = 0 ] && return 0
        sleep 0.05
    done
    return 1
}

# stop_pid PID NAME: SIGTERM, up to 5 s, then SIGKILL to PID and to the children
# it had (an nginx master killed hard leaves its workers holding the ports).
# A PID that no longer runs NAME is left alone. 0 when the process is gone.
stop_pid() {
    local pid=$1 name=$2 kids k have
    if ! [[ $pid =~ ^[0-9]+$ ]] || [ "$pid" -le 1 ]; then
        note "bad PID '$pid' recorded for $name; ignored"
        return 0
    fi
    pid_alive "$pid" || return 0
    have=$(pid_comm "$pid")
    if [ -n "$name" ] && [ -n "$have" ] && [ "$have" != "$name" ]; then
        note "PID $pid is now '$have', not '$name'; left alone"
        return 0
    fi
    kids=$(children_of "$pid")
    kill -TERM "$pid" 2>/dev/null || return 0
    wait_gone 100 "$pid" && return 0
    note "$name ($pid) ignored SIGTERM for 5 s; sending SIGKILL"
    kill -KILL "$pid" 2>/dev/null
    for k in $kids; do
        [ "$(pid_comm "$k")" = "$have" ] && kill -KILL "$k" 2>/dev/null
    done
    wait_gone 40 "$pid" && return 0
    note "$name ($pid) is still alive after SIGKILL"
    return 1
}

# stop_recorded DIR: stop every server recorded in DIR/run and drop its record.
# 1 only if one of them could not be stopped.
stop_recorded() {
    local pf name pid rc=0
    for pf in "$1"/run/*.pid; do
        [ -f "$pf" ] || continue
        name=$(cat "${pf%.pid}.comm" 2>/dev/null || true)
        pid=$(head -n1 "$pf" 2>/dev/null || true)
        if stop_pid "$pid" "$name"; then
            note "${name:-?} $pid stopped (${pf##*/})"
            rm -f -- "$pf" "${pf%.pid}.comm"
        else
            rc=1
        fi
    done
    return $rc
}
