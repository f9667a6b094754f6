#!/usr/bin/env bash
# The README's main job on its embedded default: one host request across real processes.
#
# A private session bus, the reference daemon (recording every request), the picker and two
# example streaming services installed into a throw-away data folder; then one host request
# (`lumaro-broadcast pick`) that chooses the example service "Northwind Live". The demo prints
# the menu the picker offered, the choice, the setup UI's answer, the request the daemon
# recorded and the outcome the host received.
#
# Without a display the picker's menu is automated and the setup UI answers by itself. With
# one the real menu pops up and the real setup form is shown: choose a service and press "Start"
# (or "Cancel"). On X11 ($DISPLAY set, also under XWayland) the form is shown inside the picker;
# on a Wayland-only session ($WAYLAND_DISPLAY set) in a window of the service's own, beside the
# picker's window.
#
# Afterwards, a short second run: the recording file store's self-check in a throw-away home.
set -euo pipefail

build=${1:-build/default}
build=$(cd "$build" && pwd)
broadcast=$build/programs/lumaro-broadcast/lumaro-broadcast
daemon=$build/programs/lumarod-reference/lumarod-reference
for program in "$broadcast" "$daemon" \
    "$build/programs/lumaro-broadcast-picker/lumaro-broadcast-picker" \
    "$build/programs/example-setup-ui/example-setup-ui"; do
    if [[ ! -x $program ]]; then
        echo "demo: $program is missing: build first (make build)" >&2
        exit 1
    fi
done

work=$(mktemp -d)
bus_pid=
daemon_pid=
cleanup() {
    if [[ -n $daemon_pid ]]; then
        kill "$daemon_pid" 2>/dev/null || true
        wait "$daemon_pid" 2>/dev/null || true
    fi
    if [[ -n $bus_pid ]]; then
        kill "$bus_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

say() { printf '\n== %s\n' "$*"; }

# --- A private session bus, stopped by its process id on exit.
cat >"$work/bus.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=$work</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
EOF
{ read -r DBUS_SESSION_BUS_ADDRESS; read -r bus_pid; } < <(
    dbus-daemon --config-file="$work/bus.conf" --fork --print-address=1 --print-pid=1)
export DBUS_SESSION_BUS_ADDRESS

# --- The extensions: the picker and the two example services, in a data folder of their own.
extensions=$work/data/lumaro/extensions
mkdir -p "$extensions" "$work/empty"
cp "$build/share/lumaro/extensions/com.vantor.lumaro.broadcast-picker.json" \
    "$build/share/lumaro/extensions/com.example.northwind-live.setupui.json" \
    "$build/share/lumaro/extensions/com.example.tidecast.setupui.json" "$extensions/"
export XDG_DATA_HOME=$work/data XDG_DATA_DIRS=$work/empty LUMARO_EXTENSIONS_PATH=$extensions

# --- The reference daemon, recording each request.
"$daemon" --record "$work/daemon.jsonl" 2>"$work/daemon.log" &
daemon_pid=$!
for _ in $(seq 100); do
    if timeout 5 dbus-send --session --print-reply --dest=org.freedesktop.DBus \
        /org/freedesktop/DBus org.freedesktop.DBus.NameHasOwner string:com.vantor.lumarod \
        2>/dev/null |
        grep -q 'boolean true'; then
        break
    fi
    sleep 0.05
done

say "Installed broadcast services"
"$broadcast" services 2>/dev/null

interactive=
if [[ -n ${DISPLAY:-}${WAYLAND_DISPLAY:-} && ${QT_QPA_PLATFORM:-} != offscreen ]]; then
    interactive=yes
fi
args=(pick --verbose --record "$work/menu.jsonl" --app-name Notes --bundle-id com.example.notes
    --icon "$(dirname "$0")/../share/lumaro/apps/northwind-live/icon.png")
if [[ -n $interactive ]]; then
    say "Host request: choose a service in the menu, then press Start in its setup form"
    args+=(--timeout 300)
else
    say "Host request: lumaro-broadcast pick --choose com.example.northwind-live.setupui"
    args+=(--choose com.example.northwind-live.setupui --timeout 60)
fi
status=0
"$broadcast" "${args[@]}" >"$work/outcome.json" 2>"$work/host.log" || status=$?

say "The menu the picker offered"
if [[ -s $work/menu.jsonl ]]; then
    # One entry per line: title, identifier, enabled.
    head -n1 "$work/menu.jsonl" | sed 's/{"enabled"/\n{"enabled"/g' | grep '^{"enabled"' |
        sed -E 's/^\{"enabled":([a-z]*),"identifier":"([^"]*)".*"title":"([^"]*)".*/  \3  [\2] enabled=\1/'
    say "The choice"
    head -n1 "$work/menu.jsonl" | grep -o '"choice":"[^"]*","chosen":[^,]*' | sed 's/^/  /'
    head -n1 "$work/menu.jsonl" | grep -o '"backend":"[^"]*"' | sed 's/^/  /'
    head -n1 "$work/menu.jsonl" | grep -o '"platform":[^,]*' | sed 's/^/  /'
else
    echo "  (no menu record)"
fi

say "Along the road (the picker's and the setup UI's log, and what reached the host)"
grep -E 'example-setup-ui:|performActionWithStreamingActivity|setupBroadcastWithHostBundleID|Error setting up|failed to|arrived ' \
    "$work/host.log" | sed -E 's/^[^]]*\] //; s/^/  /' || true

say "The setup UI's answer, as the daemon recorded it"
if [[ -s $work/daemon.jsonl ]]; then
    request=$(grep '"selector":"setupBroadcastWithHostBundleID' "$work/daemon.jsonl" | head -n1)
    if [[ -n $request ]]; then
        sed -E 's/^\{"args":\["([^"]*)","([^"]*)","([^"]*)",(.*)\],"selector":"([^"]*)".*/  selector           \5\n  host bundle ID     \1\n  broadcast extension \2\n  configuration      \3 (keyed archive, base64)\n  user info          \4/' <<<"$request"
    else
        echo "  (no broadcast set-up request)"
    fi
else
    echo "  (the daemon recorded nothing)"
fi

say "The outcome the host received"
if [[ -s $work/outcome.json ]]; then
    sed 's/^/  /' "$work/outcome.json"
else
    sed -n 's/^lumaro-broadcast pick: /  /p' "$work/host.log"
fi
if [[ $status -ne 0 ]]; then
    echo "demo: the host request ended with status $status (log: see above)" >&2
fi

say "Also: the recording file store's self-check, in a throw-away home folder"
home=$work/home
mkdir -p "$home"
HOME="$home" "$build/programs/lumaro-filestore-selfcheck/lumaro-filestore-selfcheck"
exit "$status"
