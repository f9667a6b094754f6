#!/usr/bin/env bash
# One host request across real processes, with 50 broadcast services installed (generated
# manifests running example-setup-ui): the time from the host's request to the picker's menu
# being shown, and to the outcome with the menu automation choosing at once; against starting and
# ending /bin/true and bare Qt programs, in the same run. ROUNDS overrides the count (default 10).
# Starts a private bus and the reference daemon, and stops both by their process ids.
set -euo pipefail
build=${1:?usage: bench/e2e/run.sh BUILD_DIR}
build=$(cd "$build" && pwd)
bench=$build/bench/e2e/bench_e2e
bare=$build/bench/e2e/bench_e2e_bare_qt
host=$build/programs/lumaro-broadcast/lumaro-broadcast
daemon=$build/programs/lumarod-reference/lumarod-reference
setup=$build/programs/example-setup-ui/example-setup-ui
for f in "$bench" "$bare" "$host" "$daemon" "$setup" \
    "$build/programs/lumaro-broadcast-picker/lumaro-broadcast-picker"; do
    [[ -x $f ]] || { echo "missing $f (build bench_e2e, bench_e2e_bare_qt and the programs)" >&2; exit 1; }
done

work=$(mktemp -d)
bus_pid= daemon_pid=
cleanup() {
    [[ -n $daemon_pid ]] && kill "$daemon_pid" 2>/dev/null || true
    [[ -n $bus_pid ]] && kill "$bus_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

cat >"$work/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>session</type><listen>unix:dir=$work</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/>
<allow own="*"/></policy>
</busconfig>
CONF
{ read -r address; read -r bus_pid; } < <(dbus-daemon --config-file="$work/bus.conf" --fork \
    --print-address=1 --print-pid=1)
export DBUS_SESSION_BUS_ADDRESS=$address

# The picker and 50 services.
extensions=$work/data/lumaro/extensions
mkdir -p "$extensions" "$work/empty"
cp "$build/share/lumaro/extensions/com.vantor.lumaro.broadcast-picker.json" "$extensions/"
apps=$(cd "$(dirname "$0")/../../share/lumaro/apps/northwind-live" && pwd)
for i in $(seq -w 0 49); do
    cat >"$extensions/com.bench.service$i.setupui.json" <<JSON
{
  "identifier": "com.bench.service$i.setupui",
  "NSExtension": {
    "NSExtensionPointIdentifier": "com.vantor.broadcast-services-setupui",
    "NSExtensionActivationRule": "TRUEPREDICATE",
    "NSExtensionContainingViewControllerClass": "ExampleSetupViewController",
    "NSExtensionPrincipalClass": "ExampleSetupViewController"
  },
  "infoDictionary": {"CFBundleDisplayName": "Bench Service $i", "CFBundleVersion": "1.0"},
  "platform": 1,
  "containingApplication": "$apps",
  "executable": "$setup"
}
JSON
done
export XDG_DATA_HOME=$work/data XDG_DATA_DIRS=$work/empty LUMARO_EXTENSIONS_PATH=$extensions
export LUMARO_EXAMPLE_SETUP_MODE=complete QT_QPA_PLATFORM=offscreen LUMARO_LOG_TYPES=none
unset DISPLAY WAYLAND_DISPLAY LUMARO_MENU_BACKEND LUMARO_MENU_CHOOSE

"$daemon" --record "$work/daemon.jsonl" 2>/dev/null &
daemon_pid=$!
for _ in $(seq 100); do
    if timeout 5 dbus-send --session --print-reply --dest=org.freedesktop.DBus \
        /org/freedesktop/DBus org.freedesktop.DBus.NameHasOwner string:com.vantor.lumarod \
        2>/dev/null | grep -q 'boolean true'; then
        break
    fi
    sleep 0.05
done

echo "One host request, 50 services installed ($(nproc) cores)"
"$bench" --host "$host" --bare "$bare" --choose com.bench.service00.setupui \
    --record "$work/menu.jsonl" --rounds "${ROUNDS:-10}"
