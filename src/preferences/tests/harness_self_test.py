#!/usr/bin/python3
# The window harness on a tiny GTK 4 program: Xvfb, the private session bus
# and the accessibility bus work together, so a failure of the window's own
# tests is the window's. Usage: harness_self_test.py [SCREENSHOT_DIR]
import os
import sys

sys.dont_write_bytecode = True  # no caches in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import window_harness as h  # noqa: E402

reason = h.missing_requirements(need_root=False)
if reason:
    h.skip(reason)

probe = os.path.join(os.path.dirname(os.path.abspath(__file__)), "gtk4_probe.py")
with h.Session(tmpfs=os.geteuid() == 0) as session:
    session.start_program("probe", [sys.executable, probe])
    app = h.find_application("harness-probe")
    button = h.find(app, "Press me", "push button")
    h.act(button)
    h.find(app, "Pressed 1 times", "label")
    entry = h.find(app, "Probe text")
    h.type_into(entry, "typed by hand")
    h.find(app, "Typed: typed by hand", "label")
    if len(sys.argv) > 1:
        session.screenshot(os.path.join(sys.argv[1], "harness-probe.png"))
print("PASS")
