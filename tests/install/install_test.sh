#!/usr/bin/env bash
# Installs the build into a throw-away prefix and uses it from there alone: the services it
# lists, one host request that ends in an outcome (the reference daemon started by D-Bus
# activation from the installed service file), and no installed text naming the build or the
# source tree.
set -euo pipefail
build=$1
source_dir=$2

work=$(mktemp -d)
bus_pid=
cleanup() {
    if [[ -n $bus_pid ]]; then kill "$bus_pid" 2>/dev/null || true; fi
    pkill -f "^$work/" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "install test: $*" >&2; exit 1; }

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || fail "cmake --install failed"

for path in bin/lumaro-broadcast bin/lumarod-reference \
    libexec/lumaro/broadcast-picker/lumaro-broadcast-picker \
    libexec/lumaro/broadcast-picker/Entitlements.json \
    libexec/lumaro/broadcast-picker/Resources/BroadcastSetup.storyboard.json \
    libexec/lumaro/example-setup-ui \
    share/lumaro/extensions/com.vantor.lumaro.broadcast-picker.json \
    share/lumaro/extensions/com.example.northwind-live.setupui.json \
    share/lumaro/manifest.schema.json \
    share/dbus-1/services/com.vantor.lumarod.service \
    share/dbus-1/interfaces/com.vantor.lumarod.Daemon.xml \
    share/dbus-1/interfaces/com.vantor.lumaro.BroadcastPicker.xml \
    share/dbus-1/services/com.vantor.lumaro.BroadcastPicker.service \
    libexec/lumaro/lumaro-broadcast-portal lib/systemd/user/lumaro-broadcast-portal.service \
    include/lumaro-broadcast-host/BroadcastSetup.h lib/pkgconfig/lumaro-broadcast-host.pc \
    lib/cmake/LumaroBroadcastHost/LumaroBroadcastHostConfig.cmake \
    lib/systemd/user/lumarod-reference.service; do
    [[ -e $prefix/$path ]] || fail "$path was not installed"
done
if named=$(grep -rIl -e "$build" -e "$source_dir" "$prefix"); then
    fail "installed files name the build or source tree: $named"
fi

# Nothing of the build tree from here on: a home and data folders of the prefix's own.
mkdir -p "$work/home" "$work/run"
chmod 700 "$work/run"
export HOME=$work/home XDG_DATA_HOME=$work/home/.local/share XDG_DATA_DIRS=$prefix/share
export XDG_RUNTIME_DIR=$work/run QT_QPA_PLATFORM=offscreen
unset LUMARO_EXTENSIONS_PATH LUMARO_BUILD_DIR LUMARO_SOURCE_DIR DISPLAY WAYLAND_DISPLAY
cd "$work"

services=$("$prefix/bin/lumaro-broadcast" services 2>"$work/services.log") ||
    fail "services failed: $(cat "$work/services.log")"
for name in "Northwind Live" "Tidecast"; do
    grep -q "$name" <<<"$services" || fail "services does not list $name: $services"
done

# A session bus whose service folders are the prefix's (standard_session_servicedirs).
{ read -r DBUS_SESSION_BUS_ADDRESS; read -r bus_pid; } < <(
    dbus-daemon --session --fork --print-address=1 --print-pid=1)
export DBUS_SESSION_BUS_ADDRESS
outcome=$("$prefix/bin/lumaro-broadcast" pick --choose com.example.northwind-live.setupui \
    --timeout 60 2>"$work/pick.log") || fail "pick failed: $(cat "$work/pick.log")"
grep -q '"broadcastURL": "https://' <<<"$outcome" &&
    grep -q '"cancelled": false' <<<"$outcome" || fail "unexpected outcome: $outcome"

# The library's example, built against the installed pkg-config module alone.
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
# shellcheck disable=SC2046
c++ -std=c++17 -fPIC -o "$work/example" "$prefix/share/doc/lumaro-broadcast-host/examples/broadcast_setup_example.cpp" \
    $(pkg-config --cflags --libs lumaro-broadcast-host Qt6Core) || fail "the example does not build"
LUMARO_MENU_CHOOSE=com.example.northwind-live.setupui LD_LIBRARY_PATH=$prefix/lib \
    "$work/example" >"$work/example.out" 2>&1 || fail "the example failed: $(cat "$work/example.out")"
grep -q '^broadcast URL: https://' "$work/example.out" || fail "example: $(cat "$work/example.out")"

# The front door, started by D-Bus activation, driven through its interface alone.
/usr/bin/python3 "$source_dir/tests/install/frontdoor_test.py" "$prefix" || fail "the front door"

echo "installed prefix: services listed, outcome $outcome"
