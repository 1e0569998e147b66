#!/usr/bin/python3
# The preference window as a person uses it, with the real helper (clock sped
# up) on a tmpfs of the test's own, driven through the accessibility bus.
# Two desktops, each shared by related checks:
#   start-and-pages: with no helper the window says so and its Start button
#     starts one; a folder added through the chooser is listed and its savings
#     rise; Active off stops the helper, on again; an excluded folder keeps
#     its files plain while the rest is compressed.
#   hundred-folders: the time until the window lists 100 folders. (A helper
#     that does not answer is PreferencesWindowTest's, over a model that
#     waits, and HelperPaneTest's.)
# A PNG of each page is written to the screenshot folder.
#
# Usage: window_end_to_end.py --bin BUILD/bin --screenshots DIR [SCENARIO...]
import argparse
import os
import subprocess
import sys
import time

sys.dont_write_bytecode = True  # no caches in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import window_harness as h  # noqa: E402

APP = "zephlore-preferences"
NOT_RUNNING = "The Zephlore helper is not running: nothing is compressed."


def save_into(session, folder, name, data):
    """Written beside the folder and moved in whole: the helper never sees
    it half written."""
    staged = session.path(name + ".part")
    with open(staged, "wb") as f:
        f.write(data)
    os.rename(staged, os.path.join(folder, name))


def compressible(size, seed=0):
    line = ("%d: the quick brown fox jumps over the lazy dog, again and again\n" % seed).encode()
    return (line * (size // len(line) + 1))[:size]


def is_compressed(session, path):
    info = session.zephlore_json("info", path)
    return info.get("compressed") is True


def folder_row(app, path):
    return h.find(h.find(app, "Watched Folders", "list"), path, "list item", timeout=60)


def saved_words(row):
    """The row's "Saved …" line."""
    for label in h.find_all(row, role="label"):
        if label.name.startswith("Saved "):
            return label.name.split("\n")[0]
    return None


def show_page(app, title):
    tab = h.find(app, title, "page tab")
    h.act(tab)
    import pyatspi

    h.wait_until("the %s page in front" % title, lambda: tab.getState().contains(pyatspi.STATE_SELECTED), 30)


def choose_folder(app, button_name, path):
    """Presses the button that opens the folder chooser, types the path into
    its location entry (Ctrl+L, as a person does) and confirms."""
    h.act(h.find(app, button_name, "push button"))
    dialog = h.wait_until("the folder chooser", lambda: next(
        (w for w in app.children if w.roleName != "frame" or w.name != "Zephlore"), None), 60)
    from dogtail import rawinput

    pressed = [0.0]

    def location_entry():
        entries = [t for t in h.find_all(dialog, role="text") if t.name == "GtkFileChooserEntry"]
        # Pressed again after a while: the first press may have come before
        # the dialog had the keyboard. Not at once: a second press could
        # close the entry the first opened.
        if not entries and time.monotonic() - pressed[0] > 5:
            rawinput.keyCombo("<Control>L")
            pressed[0] = time.monotonic()
        return entries[0] if entries else None

    entry = h.wait_until("the chooser's location entry", location_entry, 60)
    h.type_into(entry, path.rstrip("/") + "/")
    confirm = [b for b in h.find_all(dialog, role="push button") if not h.name_matches(b.name, "_Cancel")
               and b.name.startswith("_")]
    assert confirm, "no confirming button in the chooser:\n" + h.describe(dialog)
    h.act(confirm[-1])
    h.wait_until("the chooser to close", lambda: app.childCount == 1, 60)


def banner_shown(app):
    """Whether the not-running bar shows: its text is there, visible, and no
    box around it is folded to nothing (GTK keeps a bar that is not revealed
    in the tree, zero pixels high)."""
    import pyatspi

    for label in h.find_all(app, NOT_RUNNING, "label"):
        node, shown = label, True
        while node is not None and node.roleName != "frame":
            if not node.getState().contains(pyatspi.STATE_VISIBLE) or \
                    node.queryComponent().getExtents(pyatspi.WINDOW_COORDS).height <= 0:
                shown = False
                break
            node = node.parent
        if shown:
            return True
    return False


def scenario_start_and_pages(args):
    with h.Session(args.bin) as session:
        watched = session.path("Watched")
        skipped = os.path.join(watched, "Skipped")
        os.makedirs(skipped)
        # The helper the window starts inherits this: no views to outlive it.
        session.zephlore("view-off")
        session.start_window()
        app = h.find_application(APP)

        # No helper: the window says so, and its Start button starts one.
        h.wait_until("the window to say the helper is not running", lambda: banner_shown(app), 60)
        session.screenshot(os.path.join(args.screenshots, "not-running.png"))
        h.act(h.find(app, "Start helper", "push button"))
        session.wait_helper_running()
        h.wait_until("the not-running bar to go", lambda: not banner_shown(app), 60)

        # A folder added through the chooser is listed; its savings rise.
        choose_folder(app, "Add folder", watched)
        row = folder_row(app, watched)
        folders = session.zephlore_json("folders")
        assert any(f.get("path") == watched for f in folders.get("folders", [])), folders
        h.log("listed: " + saved_words(row))
        save_into(session, watched, "report.txt", compressible(1 << 20))
        words = h.wait_until("the folder's savings to rise",
                             lambda: (saved_words(row) or "Saved 0 bytes") != "Saved 0 bytes" and saved_words(row),
                             120)
        h.log("after a 1 MiB text file: " + words)
        assert is_compressed(session, os.path.join(watched, "report.txt"))
        total_row = h.find(app, "Saved in total", "list item")
        h.log("total: " + " ".join(label.name for label in h.find_all(total_row, role="label")))
        session.screenshot(os.path.join(args.screenshots, "folders.png"))

        # Active off: the helper stops; on again: it runs again.
        show_page(app, "General")
        active = h.find(app, "Active", "check box")
        assert h.is_checked(active), "Active is off at the start"
        assert session.helper_property("Active") is True
        h.act(active)
        h.wait_until("the helper's Active to turn false", lambda: session.helper_property("Active") is False, 60)
        h.wait_until("the switch to show off", lambda: not h.is_checked(active), 30)
        session.screenshot(os.path.join(args.screenshots, "general-inactive.png"))
        h.act(active)
        h.wait_until("the helper's Active to turn true", lambda: session.helper_property("Active") is True, 60)
        session.screenshot(os.path.join(args.screenshots, "general.png"))

        # An excluded folder keeps its files plain; the rest is compressed.
        show_page(app, "Exclusions")
        h.type_into(h.find(app, "Folder to exclude", "text"), skipped)
        h.act(h.find(app, "Add excluded folder", "push button"))
        h.find(h.find(app, "Excluded Folders", "list"), skipped, "list item", timeout=60)
        save_into(session, skipped, "kept-plain.txt", compressible(1 << 20, 1))
        save_into(session, watched, "outside.txt", compressible(1 << 20, 2))
        outside = os.path.join(watched, "outside.txt")
        h.wait_until("the file outside the exclusion to be compressed", lambda: is_compressed(session, outside), 120)

        def settled():
            state = session.zephlore_json("status")
            return state.get("queuedFiles", 1) == 0 and not state.get("fileInProcess")

        h.wait_until("the helper's queue to empty", settled, 60)
        plain = os.path.join(skipped, "kept-plain.txt")
        assert not is_compressed(session, plain), session.zephlore("info", plain).stdout
        assert "com.apple.decmpfs" not in " ".join(os.listxattr(plain)), os.listxattr(plain)
        session.screenshot(os.path.join(args.screenshots, "exclusions.png"))


def scenario_hundred_folders(args):
    with h.Session(args.bin) as session:
        session.start_helper()
        folders = [session.path("many", "folder-%03d" % i) for i in range(100)]
        for folder in folders:
            os.makedirs(folder)
        session.zephlore("add", *folders, timeout=120)
        listed = session.zephlore_json("folders").get("folders", [])
        assert len(listed) == 100, len(listed)
        h.dogtail_tree()  # loaded before the clock starts: its import is not the window's time
        started = session.start_window()
        app = h.find_application(APP)
        on_bus = time.monotonic() - started
        folder_list = h.find(app, "Watched Folders", "list", timeout=60)
        prefix = session.path("many") + "/"

        def all_listed():
            # The count first (one call): the names are read once it is 100.
            return folder_list.childCount >= 100 and \
                sum(1 for item in folder_list.children if item.name.startswith(prefix)) == 100

        h.wait_until("100 folder rows", all_listed, 120)
        elapsed = time.monotonic() - started
        h.log("TIMING: the window listed 100 folders %.2f s after its start (on the accessibility bus after %.2f s)"
              % (elapsed, on_bus))
        session.screenshot(os.path.join(args.screenshots, "folders-100.png"))


SCENARIOS = {
    "start-and-pages": scenario_start_and_pages,
    "hundred-folders": scenario_hundred_folders,
}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", required=True)
    parser.add_argument("--screenshots", required=True)
    parser.add_argument("scenarios", nargs="*", default=list(SCENARIOS))
    args = parser.parse_args()
    reason = h.missing_requirements()
    if reason:
        h.skip(reason)
    for name in ("zephlore", "zephlore-helper", APP):
        if not os.access(os.path.join(args.bin, name), os.X_OK):
            h.skip("%s is not built in %s" % (name, args.bin))
    if len(args.scenarios) == 1:
        SCENARIOS[args.scenarios[0]](args)
        print("PASS")
        return
    # One process each: libatspi keeps its first accessibility bus for the
    # life of the process, and each scenario has a desktop of its own.
    failed = []
    for name in args.scenarios:
        h.log("== " + name)
        status = subprocess.run([sys.executable, os.path.abspath(__file__), "--bin", args.bin,
                                 "--screenshots", args.screenshots, name], timeout=600 * h.WAIT_SCALE).returncode
        if status != 0:
            failed.append("%s (%d)" % (name, status))
    if failed:
        sys.exit("FAILED: " + ", ".join(failed))
    print("PASS")


if __name__ == "__main__":
    main()
