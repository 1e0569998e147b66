#!/usr/bin/python3
# A tiny GTK 4 program for the window harness's self-test: it proves the
# accessibility path (Xvfb, the private session bus, the accessibility bus)
# without needing the preference window.
import sys

import gi

gi.require_version("Gtk", "4.0")
from gi.repository import GLib, Gtk  # noqa: E402


def on_activate(app):
    window = Gtk.ApplicationWindow(application=app, title="Harness probe")
    box = Gtk.Box(orientation=Gtk.Orientation.VERTICAL, spacing=6)
    count = Gtk.Label(label="Pressed 0 times")
    entry = Gtk.Entry()
    entry.update_property([Gtk.AccessibleProperty.LABEL], ["Probe text"])
    echo = Gtk.Label(label="Typed: ")
    entry.connect("changed", lambda e: echo.set_label("Typed: " + e.get_text()))
    button = Gtk.Button(label="Press me")
    presses = [0]

    def pressed(_):
        presses[0] += 1
        count.set_label("Pressed %d times" % presses[0])

    button.connect("clicked", pressed)
    for widget in (count, button, entry, echo):
        box.append(widget)
    window.set_child(box)
    window.present()


GLib.set_prgname("harness-probe")
GLib.set_application_name("Harness Probe")
application = Gtk.Application(application_id="org.zephlore.HarnessProbe")
application.connect("activate", on_activate)
sys.exit(application.run([sys.argv[0]]))
