#!/usr/bin/python3
"""The D-Bus front door, driven through its interface alone, as an application would: started
by D-Bus activation from the installed prefix on the session bus of DBUS_SESSION_BUS_ADDRESS.

Usage: frontdoor_test.py PREFIX"""
import os
import subprocess
import sys
import time

import dbus
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

NAME = "com.vantor.lumaro.BroadcastPicker"
PATH = "/com/vantor/lumaro/BroadcastPicker"
REQUEST = "com.vantor.lumaro.Request"
NORTHWIND = "com.example.northwind-live.setupui"
PREFIX = sys.argv[1]
PICKER = os.path.join(PREFIX, "libexec/lumaro/broadcast-picker/lumaro-broadcast-picker")

DBusGMainLoop(set_as_default=True)
failures = []


def check(condition, what):
    print(("ok   " if condition else "FAIL ") + what, flush=True)
    if not condition:
        failures.append(what)


def connect():
    return dbus.bus.BusConnection(os.environ["DBUS_SESSION_BUS_ADDRESS"])


def handle_path(conn, token):
    return "%s/request/%s/%s" % (PATH, conn.get_unique_name()[1:].replace(".", "_"), token)


def wait_until(predicate, seconds=20.0):
    deadline = time.monotonic() + seconds
    context = GLib.MainContext.default()
    while not predicate() and time.monotonic() < deadline:
        while context.pending():
            context.iteration(False)
        time.sleep(0.02)
    return predicate()


class Call:
    """One SetupBroadcast, subscribed to its Response before the call."""

    def __init__(self, conn, token, options):
        self.conn, self.responses = conn, []
        self.path = handle_path(conn, token)
        conn.add_signal_receiver(lambda code, results: self.responses.append((int(code), dict(results))),
                                 signal_name="Response", dbus_interface=REQUEST, path=self.path)
        options = dict(options, handle_token=token)
        portal = conn.get_object(NAME, PATH)
        self.handle = portal.SetupBroadcast("", dbus.Dictionary(options, signature="sv"),
                                            dbus_interface=NAME)

    def response(self):
        wait_until(lambda: self.responses, 60)
        return self.responses[0] if self.responses else (None, {})

    def close(self):
        self.conn.get_object(NAME, self.path).Close(dbus_interface=REQUEST)


def error_of(function):
    try:
        function()
    except dbus.DBusException as error:
        return error.get_dbus_name(), error.get_dbus_message()
    return None, None


def pickers():
    return subprocess.run(["pgrep", "-f", "^" + PICKER], capture_output=True, text=True).stdout.split()


def next_phase(bus, **environment):
    """Waits for the idle service to quit, so that its next start sees `environment`."""
    check(wait_until(lambda: not bus.name_has_owner(NAME), 30), "the idle service quits")
    bus.get_object("org.freedesktop.DBus", "/org/freedesktop/DBus").UpdateActivationEnvironment(
        dbus.Dictionary(environment, signature="ss"), dbus_interface="org.freedesktop.DBus")


bus = connect()
next_phase(bus, LUMARO_PORTAL_IDLE_EXIT="1", LUMARO_MENU_BACKEND="automation",
           LUMARO_MENU_CHOOSE=NORTHWIND, LUMARO_EXAMPLE_SETUP_MODE="complete")

# An outcome, a preferred service, two callers at once.
call = Call(bus, "first", {"app-name": "Notes", "bundle-id": "com.example.notes",
                           "x": dbus.Double(10), "unknown-option": dbus.UInt32(7)})
check(call.handle == call.path, "the handle is PATH/request/SENDER/TOKEN: %s" % call.handle)
code, results = call.response()
check(code == 0 and results.get("cancelled") is not None and not results["cancelled"] and
      results.get("broadcast-url", "").startswith("https://") and "extension-bundle-id" in results,
      "an outcome is Response 0 with its results: %s %s" % (code, results))
check("launch-url" not in results, "an absent launch URL is left out")
code, results = Call(bus, "preferred", {"preferred-extension": "com.example.tidecast.setupui"}).response()
check(code == 0, "a preferred service is set up without a menu: %s %s" % (code, results))
other = connect()
calls = [Call(bus, "together", {}), Call(other, "together", {})]
check([c.response()[0] for c in calls] == [0, 0], "two callers at once each get their outcome")

# Requests that stay open (nothing is chosen): Close, tokens, a caller that leaves.
next_phase(bus, LUMARO_MENU_CHOOSE="none")
call = Call(bus, "closed", {})
check(error_of(lambda: Call(bus, "closed", {}))[0] == "org.freedesktop.DBus.Error.InvalidArgs",
      "a token already open for this caller is refused")
call.close()
check(call.response()[0] == 2, "Close ends the request with Response 2")
check(error_of(call.close)[0] == "org.freedesktop.DBus.Error.UnknownObject",
      "Close of a finished request is an error")
for options, option in (({"x": dbus.Int32(3)}, "x"), ({"app-name": dbus.Boolean(True)}, "app-name"),
                        ({"icon": dbus.ByteArray(b"not an image")}, "icon"),
                        ({"handle_token": "a-b"}, "handle_token")):
    portal = bus.get_object(NAME, PATH)
    name, message = error_of(lambda: portal.SetupBroadcast(
        "", dbus.Dictionary(options, signature="sv"), dbus_interface=NAME))
    check(name == "org.freedesktop.DBus.Error.InvalidArgs" and option in (message or ""),
          "a bad %s is refused naming it: %s" % (option, message))
leaver = subprocess.run([sys.executable, "-c", """
import dbus, os, sys
conn = dbus.bus.BusConnection(os.environ["DBUS_SESSION_BUS_ADDRESS"])
conn.get_object("%s", "%s").SetupBroadcast("", {"handle_token": "leaving"}, dbus_interface="%s")
""" % (NAME, PATH, NAME)])
check(leaver.returncode == 0, "a caller starts a request and leaves")
check(wait_until(lambda: not pickers(), 10), "the picker of a caller that left ends")
call = Call(bus, "still", {})
call.close()
check(call.response()[0] == 2, "the service goes on serving others")

# A cancelled outcome.
next_phase(bus, LUMARO_MENU_CHOOSE=NORTHWIND, LUMARO_EXAMPLE_SETUP_MODE="cancel")
code, results = Call(bus, "cancel", {}).response()
check(code == 1 and results.get("cancelled") == True, "a cancel is Response 1: %s %s" % (code, results))

sys.exit(1 if failures else 0)
