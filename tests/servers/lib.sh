# shellcheck shell=bash
# Helpers shared by tests/servers/start.sh and stop.sh. Source it, don't run it.
# Everything here talks to 127.0.0.1 only, and every loop is bounded.
#
# Layout of a servers directory DIR (made by start.sh):
#   .quillon-servers   marker: start.sh wipes a non-empty DIR only if it holds this
#   servers.env        KEY=VALUE lines for the tests, written last (atomically)
#   run/NAME.pid       PID of each server started, and run/NAME.comm its
#   run/NAME.comm      /proc/PID/comm at start: stop.sh signals only a match
#   pki/               certificates and keys (openssl CLI)
#   www/               document root the tests write into
#   nginx/             nginx.conf, logs, pid file, temp paths

# Debian's own python3 first: a pyenv shim on PATH costs about 0.25 s a call.
if [ -z "${PYTHON:-}" ]; then
    if [ -x /usr/bin/python3 ]; then PYTHON=/usr/bin/python3; else PYTHON=python3; fi
fi

die() { echo "servers: error: $*" >&2; exit 1; }
note() { echo "servers: $*" >&2; }

now_ms() { echo $(( $(date +%s%N) / 1000000 )); }

# free_ports N: print N distinct TCP ports that are free on 127.0.0.1 right now,
# one a line. The kernel picks them; all N sockets are bound at once so they
# differ. Another process can still take one before our server binds it, so
# callers check ownership and retry.
free_ports() {
    "$PYTHON" - "$1" <<'EOF'
import socket, sys
socks = []
for _ in range(int(sys.argv[1])):
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    socks.append(s)
for s in socks:
    print(s.getsockname()[1])
for s in socks:
    s.close()
EOF
}

# wait_until TIMEOUT_MS CMD...: run CMD every 50 ms until it succeeds.
# Returns 1 on time-out; at most TIMEOUT_MS/50 + 1 tries.
wait_until() {
    local limit=$1 tries i
    shift
    tries=$(( limit / 50 + 1 ))
    for (( i = 0; i < tries; i++ )); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.05
    done
    return 1
}

# pid_alive PID: the process exists and is not a zombie. A server outlives the
# script that started it and is re-parented, and its new parent may reap late.
pid_alive() {
    local st
    { read -r st <"/proc/$1/stat"; } 2>/dev/null || return 1
    st=${st##*) }
    st=${st%% *}
    [ -n "$st" ] && [ "$st" != Z ] && [ "$st" != X ]
}

# pid_comm PID: print /proc/PID/comm (empty if gone).
pid_comm() { cat "/proc/$1/comm" 2>/dev/null || true; }

# children_of PID: print the PIDs whose parent is PID (from /proc, no ps needed).
children_of() {
    local f st rest ppid p
    for f in /proc/[0-9]*/stat; do
        { read -r st <"$f"; } 2>/dev/null || continue
        rest=${st##*) }          # "S PPID ..." after the command name
        rest=${rest#* }
        ppid=${rest%% *}
        if [ "$ppid" = "$1" ]; then
            p=${f#/proc/}
            echo "${p%/stat}"
        fi
    done
}

# owns_port PID PORT: the socket listening on 127.0.0.1:PORT belongs to PID,
# not to whatever else may have taken the port (another test run's server).
owns_port() {
    if ! command -v ss >/dev/null 2>&1; then
        return 0    # cannot tell without ss (iproute2); the HTTP probe still runs
    fi
    ss -Hltnp "( sport = :$2 )" 2>/dev/null | grep -q "pid=$1,"
}

# record DIR NAME PID PROGRAM: note the PID, and the command name it will have
# (/proc/PID/comm: the program's file name, cut to 15 characters), for stop.sh.
# The name comes from PROGRAM rather than from /proc: just after `prog &` the
# child can still be the shell that is about to exec it.
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
# NAME is the expected /proc/PID/comm; a PID now running something else is left
# alone. Returns 0 when the process is gone (or was gone already).
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
# Returns 1 only if one of them could not be stopped.
stop_recorded() {
    local dir=$1 pf name pid rc=0
    for pf in "$dir"/run/*.pid; do
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
