#!/usr/bin/env bash
# tests/servers/stop.sh DIR
# Stops every server that tests/servers/start.sh recorded in DIR/run: for each
# run/NAME.pid it checks /proc/PID/comm against run/NAME.comm (a recycled PID
# that now runs something else is left alone), sends SIGTERM, waits up to 5 s,
# then sends SIGKILL. Only recorded PIDs (and, on SIGKILL, their own children)
# are ever signalled. DIR itself is kept, logs included, for post-mortems;
# the next start.sh wipes it.
#
# Servers already stopped, a missing DIR or no records are not errors: this is
# the CTest FIXTURES_CLEANUP step and must not fail a run for that. It exits
# non-zero only if a server survives SIGKILL.
set -uo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

[ $# -eq 1 ] || die "usage: stop.sh DIR"
DIR=$1
[ -d "$DIR/run" ] || exit 0
stop_recorded "$DIR"
