#!/usr/bin/env bash
# The broadcast set-up request through LMDaemonProxy against a bare QtDBus asynchronous call of the
# same member with the same arguments, side by side in one run: sequential latency and 10,000
# pipelined requests, with their ratio (target: the proxy within 1.10x of the bare call in both
# modes), and where the pipelined proxy spends its extra time: sending or in the replies.
# Starts a private bus (session-bus limits) and the reference daemon recording to /dev/null, and
# stops both by their process ids. SEQUENTIAL, PIPELINED and ROUNDS override the counts.
set -euo pipefail
build=${1:?usage: bench/daemon/run.sh BUILD_DIR}
bench="$build/bench/daemon/daemon_request_bench"
daemon="$build/programs/lumarod-reference/lumarod-reference"
for f in "$bench" "$daemon"; do
    [[ -x "$f" ]] || { echo "missing $f (build daemon_request_bench and lumarod-reference)" >&2; exit 1; }
done

work=$(mktemp -d)
bus_pid= daemon_pid=
cleanup() {
    [[ -n "$daemon_pid" ]] && kill "$daemon_pid" 2>/dev/null || true
    [[ -n "$bus_pid" ]] && kill "$bus_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

cat > "$work/bus.conf" <<'CONF'
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/>
<allow own="*"/></policy>
<limit name="max_incoming_bytes">1000000000</limit>
<limit name="max_outgoing_bytes">1000000000</limit>
<limit name="max_message_size">1000000000</limit>
<limit name="max_replies_per_connection">50000</limit>
</busconfig>
CONF
{ read -r address; read -r bus_pid; } < <(dbus-daemon --config-file="$work/bus.conf" --fork \
    --print-address=1 --print-pid=1)
export DBUS_SESSION_BUS_ADDRESS=$address
export HOME="$work"  # the client's sandbox key and support folder stay in here

"$daemon" --record /dev/null 2>/dev/null &
daemon_pid=$!
# The benchmark waits (up to 10 s) until the daemon answers.

# The proxy's entry line for each request is written as deployed, to a file nobody reads.
if ! "$bench" --sequential "${SEQUENTIAL:-2000}" --pipelined "${PIPELINED:-10000}" \
    --rounds "${ROUNDS:-5}" 2>"$work/bench.err"; then
    grep -v 'LMDaemonProxy: ' "$work/bench.err" >&2 || true
    exit 1
fi
