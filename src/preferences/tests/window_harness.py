#!/usr/bin/python3
# The private desktop the preference window's end-to-end tests run in (a
# tmpfs in a mount namespace of its own holding HOME and the XDG folders,
# Xvfb, a private session bus, the accessibility bus, the real helper, the
# window), and what a person or a screen reader does with it. Waits check
# again on each bus signal or accessibility event, within a deadline; every
# process started here is ended on every way out, and even a SIGKILL cannot
# leave the tmpfs mounted.
import collections
import contextlib
import ctypes
import importlib.util
import json
import os
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time

# ctest's SKIP_RETURN_CODE: the test cannot run here (no root, no Xvfb, ...).
SKIP = 77

# A loaded 2-core CI machine runs several suites at once: the waits are
# generous; ZEPHLORE_TEST_WAIT_SCALE stretches them further.
WAIT_SCALE = float(os.environ.get("ZEPHLORE_TEST_WAIT_SCALE", "1"))
# The longest a wait blocks between two checks when no event came: a safety
# net for a change that announces itself nowhere, not the pace of the waits.
EVENT_WAIT_BOUND = 0.5

_libc = ctypes.CDLL(None, use_errno=True)
_PR_SET_PDEATHSIG = 1
_CLONE_NEWNS = 0x00020000
_MS_REC = 16384
_MS_PRIVATE = 1 << 18


def skip(reason):
    print("SKIP: " + reason, flush=True)
    sys.exit(SKIP)


def log(text):
    print(text, flush=True)


class WaitTimeout(AssertionError):
    pass


# Set by every signal and event this process hears; the waits check again.
_woken = False
# The connections and listeners that wake the waits, kept while the test runs.
_event_sources = []


def _wake(*_args):
    global _woken
    _woken = True


def hear_session_bus(address):
    """Every signal on the bus at `address` (the helper's PropertiesChanged
    and notices, names coming and going) wakes the waits."""
    from gi.repository import Gio

    connection = Gio.DBusConnection.new_for_address_sync(
        address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
        None, None)
    connection.signal_subscribe(None, None, None, None, None, Gio.DBusSignalFlags.NONE, _wake)
    _event_sources.append(connection)


def hear_accessibility_events():
    """Changes of the windows' accessible objects wake the waits (once per
    process)."""
    import pyatspi

    if pyatspi.Registry in _event_sources:
        return
    pyatspi.Registry.registerEventListener(_wake, "object:state-changed", "object:children-changed",
                                           "object:property-change", "object:text-changed",
                                           "object:visible-data-changed", "focus:")
    _event_sources.append(pyatspi.Registry)


def _wait_for_event(limit):
    """Runs this process's GLib main context, where signals and events are
    delivered, until one arrives or `limit` seconds passed."""
    from gi.repository import GLib

    context = GLib.MainContext.default()
    expired = []
    timer = GLib.timeout_add(max(1, int(limit * 1000)), lambda: expired.append(True) or False)
    while not _woken and not expired:
        context.iteration(True)
    if not expired:
        GLib.source_remove(timer)


def wait_until(what, probe, timeout=30.0):
    """Calls probe() until it returns something true; returns that value.
    Between calls it waits for a signal or an event (see _wait_for_event).
    Raises WaitTimeout naming `what` once `timeout` seconds (scaled) passed."""
    global _woken
    deadline = time.monotonic() + timeout * WAIT_SCALE
    last_error = None
    while True:
        # Cleared before the check: what arrives during it is not lost.
        _woken = False
        try:
            value = probe()
            if value:
                return value
        except Exception as error:  # an accessible object that went away, a bus hiccup
            last_error = error
        left = deadline - time.monotonic()
        if left <= 0:
            detail = " (last error: %r)" % (last_error,) if last_error else ""
            raise WaitTimeout("timed out after %gs waiting for %s%s" % (timeout * WAIT_SCALE, what, detail))
        _wait_for_event(min(EVENT_WAIT_BOUND, left))


def _die_with_parent():
    # Runs in the child between fork and exec.
    _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGTERM, 0, 0, 0)


def _read_line(fd, timeout, what):
    deadline = time.monotonic() + timeout * WAIT_SCALE
    data = b""
    while not data.endswith(b"\n"):
        left = deadline - time.monotonic()
        if left <= 0 or not select.select([fd], [], [], left)[0]:
            raise WaitTimeout("timed out waiting for " + what)
        chunk = os.read(fd, 256)
        if not chunk:
            raise AssertionError(what + ": the process ended first")
        data += chunk
    return data.decode().strip()


def missing_requirements():
    """Why this machine cannot run the window tests, or None."""
    if os.geteuid() != 0:
        return "needs root (a tmpfs and a mount namespace of its own); CI runs as root"
    for program in ("Xvfb", "dbus-daemon", "xwd", "xwdtopnm", "pnmcrop", "pnmtopng"):
        if shutil.which(program) is None:
            return program + " is not installed"
    if not os.access(AT_SPI_BUS_LAUNCHER, os.X_OK):
        return AT_SPI_BUS_LAUNCHER + " is not installed (at-spi2-core)"
    for module, package in (("gi", "python3-gi"), ("pyatspi", "python3-pyatspi"), ("dogtail", "python3-dogtail")):
        if importlib.util.find_spec(module) is None:
            return package + " is not installed"
    return None


AT_SPI_BUS_LAUNCHER = "/usr/libexec/at-spi-bus-launcher"

BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=%s</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""


class Session:
    """The private desktop, as a context manager."""

    def __init__(self, bin_dir):
        self.bin_dir = bin_dir
        self.processes = []  # (name, Popen, kill whole group)
        self.root = None
        self.mounted = False
        self.env = {}
        self.display = None
        self._old_handlers = {}

    # ---- setting up ----

    def __enter__(self):
        for sig in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            self._old_handlers[sig] = signal.signal(sig, self._on_signal)
        try:
            self._make_root()
            self._make_environment()
            self._start_xvfb()
            self._start_session_bus()
            self._start_accessibility_bus()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    @staticmethod
    def _on_signal(signum, _frame):
        raise SystemExit("ended by signal %d" % signum)

    def _make_root(self):
        # A mount namespace of our own: the tmpfs ends with the last process
        # in it, whatever happens to this one.
        if _libc.unshare(_CLONE_NEWNS) != 0:
            skip("cannot make a mount namespace: %s" % os.strerror(ctypes.get_errno()))
        if _libc.mount(b"none", b"/", None, _MS_REC | _MS_PRIVATE, None) != 0:
            skip("cannot make mounts private: %s" % os.strerror(ctypes.get_errno()))
        self.root = tempfile.mkdtemp(prefix="zephlore-window-")
        os.chmod(self.root, 0o755)
        if _libc.mount(b"zephlore-window-test", self.root.encode(), b"tmpfs", 0, b"size=512m") != 0:
            skip("cannot mount a tmpfs: %s" % os.strerror(ctypes.get_errno()))
        self.mounted = True

    def path(self, *parts):
        return os.path.join(self.root, *parts)

    def _make_environment(self):
        home = self.path("home")
        folders = {
            "HOME": (home, 0o755),
            "XDG_DATA_HOME": (self.path("home", ".local", "share"), 0o755),
            "XDG_CONFIG_HOME": (self.path("home", ".config"), 0o755),
            "XDG_CACHE_HOME": (self.path("home", ".cache"), 0o755),
            "XDG_STATE_HOME": (self.path("home", ".local", "state"), 0o755),
            # Not the machine's /etc/xdg: installed autostart entries stay out.
            "XDG_CONFIG_DIRS": (self.path("xdg"), 0o755),
            "XDG_RUNTIME_DIR": (self.path("run"), 0o700),
        }
        env = {
            "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
            "LANG": "C.UTF-8",
            "LC_ALL": "C.UTF-8",
            "USER": os.environ.get("USER", "root"),
            "LOGNAME": os.environ.get("LOGNAME", "root"),
            # GTK over X11, with no settings daemon, virtual file systems or
            # portals to find on the private bus.
            "GDK_BACKEND": "x11",
            "GSETTINGS_BACKEND": "memory",
            "GIO_USE_VFS": "local",
            "GTK_USE_PORTAL": "0",
            # The helper's log lines on its standard error.
            "JOURNAL_STREAM": "test",
        }
        for name, (folder, mode) in folders.items():
            os.makedirs(folder, exist_ok=True)
            os.chmod(folder, mode)
            env[name] = folder
        env["PATH"] = self.bin_dir + ":" + env["PATH"]
        self.env = env
        # This process reads the accessibility bus too (pyatspi), with
        # nothing from the caller's desktop left over.
        for name in ("NO_AT_BRIDGE", "GTK_A11Y", "AT_SPI_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS", "DISPLAY",
                     "WAYLAND_DISPLAY", "GTK_MODULES"):
            os.environ.pop(name, None)
        os.environ.update(env)

    def _set(self, name, value):
        self.env[name] = value
        os.environ[name] = value

    def spawn(self, name, args, group=False, env_extra=None, **kwargs):
        env = dict(self.env, **(env_extra or {}))
        with open(self.path(name + ".log"), "ab") as out:
            process = subprocess.Popen(args, env=env, stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT,
                                       preexec_fn=_die_with_parent, start_new_session=group, **kwargs)
        self.processes.append((name, process, group))
        return process

    def _start_xvfb(self):
        read_fd, write_fd = os.pipe()
        # -displayfd: Xvfb picks a free display and writes its number once it
        # accepts clients.
        self.spawn("xvfb", ["Xvfb", "-displayfd", str(write_fd), "-nolisten", "tcp", "-screen", "0", "1280x900x24",
                            "-br", "-noreset"], pass_fds=(write_fd,))
        os.close(write_fd)
        try:
            number = _read_line(read_fd, 60, "Xvfb to take a display")
        finally:
            os.close(read_fd)
        self.display = ":" + number
        self._set("DISPLAY", self.display)

    def _start_session_bus(self):
        config = self.path("bus.conf")
        with open(config, "w") as f:
            f.write(BUS_CONFIG % self.path("run"))
        read_fd, write_fd = os.pipe()
        self.spawn("session-bus", ["dbus-daemon", "--config-file=" + config, "--nofork",
                                   "--print-address=%d" % write_fd], pass_fds=(write_fd,))
        os.close(write_fd)
        try:
            address = _read_line(read_fd, 60, "the session bus to listen")
        finally:
            os.close(read_fd)
        self._set("DBUS_SESSION_BUS_ADDRESS", address)
        hear_session_bus(address)

    def _start_accessibility_bus(self):
        # Its own process group: the launcher starts the accessibility bus's
        # daemon, which starts the registry; all end together.
        self.spawn("at-spi-bus", [AT_SPI_BUS_LAUNCHER, "--launch-immediately"], group=True)
        address = wait_until("org.a11y.Bus on the session bus", self._a11y_bus_address, 60)
        log("accessibility bus: " + address)

    def _session_call(self, name, path, interface, method, args=None, signature=None):
        from gi.repository import Gio, GLib

        connection = Gio.DBusConnection.new_for_address_sync(
            self.env["DBUS_SESSION_BUS_ADDRESS"],
            Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
            None, None)
        try:
            parameters = GLib.Variant(signature, args) if signature else None
            return connection.call_sync(name, path, interface, method, parameters, None,
                                        Gio.DBusCallFlags.NONE, 10000, None).unpack()
        finally:
            connection.close_sync(None)

    def _a11y_bus_address(self):
        return self._session_call("org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus", "GetAddress")[0]

    def name_has_owner(self, name):
        return self._session_call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                  "NameHasOwner", (name,), "(s)")[0]

    # ---- the helper, the command, the window ----

    def program(self, name):
        return os.path.join(self.bin_dir, name)

    def zephlore(self, *args, timeout=60, check=True):
        result = subprocess.run([self.program("zephlore"), *args], env=self.env, stdin=subprocess.DEVNULL,
                                capture_output=True, text=True, timeout=timeout * WAIT_SCALE)
        if check and result.returncode != 0:
            raise AssertionError("zephlore %s failed (%d): %s%s" % (" ".join(args), result.returncode, result.stdout,
                                                                     result.stderr))
        return result

    def zephlore_json(self, *args):
        return json.loads(self.zephlore(*args, "--json").stdout)

    def start_helper(self):
        # Views outlive the helper: the window's tests keep them off.
        self.zephlore("view-off")
        helper = self.spawn("helper", [self.program("zephlore-helper")], env_extra={"ZEPHLORE_CLOCK_SPEED": "1000"})
        self.wait_helper_running()
        return helper

    def wait_helper_running(self):
        wait_until("the helper's bus name", lambda: self.name_has_owner("com.quorvane.ZephloreHelper"), 60)

    def helper_property(self, name):
        return self._session_call("com.quorvane.ZephloreHelper", "/com/quorvane/ZephloreHelper",
                                  "org.freedesktop.DBus.Properties", "Get",
                                  ("com.quorvane.ZephloreHelper", name), "(ss)")[0]

    def start_window(self):
        """Starts the preference window; returns the monotonic time it was
        started."""
        started = time.monotonic()
        self.spawn("window", [self.program("zephlore-preferences")], env_extra={"ZEPHLORE_CLOCK_SPEED": "1000"})
        return started

    # ---- taking down ----

    def _quit_helper(self):
        """Quits the running helper, also one the window started; kills it
        by its process id if it does not end in time."""
        if "DBUS_SESSION_BUS_ADDRESS" not in self.env or not self.name_has_owner("com.quorvane.ZephloreHelper"):
            return
        pid = self._session_call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                 "GetConnectionUnixProcessID", ("com.quorvane.ZephloreHelper",), "(s)")[0]
        self.zephlore("quit", timeout=20, check=False)
        try:
            wait_until("the helper to quit", lambda: not self.name_has_owner("com.quorvane.ZephloreHelper"), 20)
        except WaitTimeout:
            log("the helper did not quit: killed")
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)

    def _end(self, name, process, group, timeout=20):
        if process.poll() is not None:
            return
        try:
            if group:
                os.killpg(process.pid, signal.SIGTERM)
            else:
                process.terminate()
            process.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            log("%s did not end on SIGTERM within %ds: killed" % (name, timeout))
            if group:
                os.killpg(process.pid, signal.SIGKILL)
            else:
                process.kill()
            process.wait(timeout=timeout)
        except ProcessLookupError:
            pass

    def close(self):
        # Each step on its own: one failing must not keep the others from running.
        try:
            self._quit_helper()
        except Exception as error:
            log("could not quit the helper: %r" % (error,))
        for name, process, group in reversed(self.processes):
            try:
                self._end(name, process, group)
            except Exception as error:
                log("could not end %s: %r" % (name, error))
        self.processes = []
        if self.root:
            if self.mounted:
                if _libc.umount2(self.root.encode(), 2) != 0:  # MNT_DETACH
                    log("could not unmount " + self.root)
                self.mounted = False
            shutil.rmtree(self.root, ignore_errors=True)
            self.root = None
        for sig, handler in self._old_handlers.items():
            signal.signal(sig, handler)
        self._old_handlers = {}

    # ---- looking ----

    def screenshot(self, destination):
        """Writes the whole screen as a PNG (xwd, then netpbm)."""
        os.makedirs(os.path.dirname(destination), exist_ok=True)
        limit = 60 * WAIT_SCALE
        xwd = subprocess.run(["xwd", "-root", "-silent", "-display", self.display], capture_output=True,
                             timeout=limit, check=True)
        pnm = subprocess.run(["xwdtopnm"], input=xwd.stdout, capture_output=True, timeout=limit, check=True)
        # No window manager: the windows sit at the top left on a black root;
        # the black beyond them is cut off.
        pnm = subprocess.run(["pnmcrop", "-black", "-right", "-bottom"], input=pnm.stdout, capture_output=True,
                             timeout=limit, check=True)
        png = subprocess.run(["pnmtopng"], input=pnm.stdout, capture_output=True, timeout=limit, check=True)
        with open(destination, "wb") as f:
            f.write(png.stdout)
        log("screenshot: " + destination)


# ---- the accessibility tree, as a screen reader reads it ----

def dogtail_tree():
    """dogtail's tree module, set up for a test: no check of the desktop's
    setting (the private session has none), no fixed delays between actions
    (the tests wait for what they need)."""
    from dogtail.config import config

    config.checkForA11y = False
    config.logDebugToFile = False
    config.logDebugToStdOut = False
    config.defaultDelay = 0
    config.actionDelay = 0
    config.typingDelay = 0.01
    config.searchBackoffDuration = 0
    config.searchCutoffCount = 1
    config.fatalErrors = True
    from dogtail import tree

    # dogtail sends uncaught exceptions to its own log: put them back on stderr.
    sys.excepthook = sys.__excepthook__
    hear_accessibility_events()
    return tree


def find_application(name, timeout=60):
    """The running application of that accessible name."""
    tree = dogtail_tree()

    def probe():
        for app in tree.root.applications():
            if app.name == name:
                return app
        return None

    try:
        return wait_until("application %r on the accessibility bus" % name, probe, timeout)
    except WaitTimeout as error:
        names = [a.name for a in tree.root.applications()]
        raise WaitTimeout("%s; applications there: %s" % (error, names)) from None


def name_matches(actual, wanted):
    """GTK 4.8 joins a control's accessible name with the text of the label
    it holds ("Add folder Add Folder…"); either form matches."""
    return actual == wanted or actual.startswith(wanted + " ")


def _matches(node, name, role, showing):
    if name is not None and not name_matches(node.name, name):
        return False
    if role is not None and node.roleName != role:
        return False
    if showing and not node.showing:
        return False
    return True


def find_all(root, name=None, role=None, showing=False):
    """Yields each node below root with that name and role (None: any),
    nearest first: a search that wants one reads no more of the tree."""
    pending = collections.deque([root])
    while pending:
        node = pending.popleft()
        try:
            children = list(node.children)
        except Exception:
            continue
        for child in children:
            if child is None:
                continue
            try:
                if _matches(child, name, role, showing):
                    yield child
            except Exception:
                continue
            pending.append(child)


def find(root, name=None, role=None, showing=False, timeout=30):
    """The first node below root with that name (and role), once there."""
    what = "%s named %r" % (role or "a node", name)
    try:
        return wait_until(what, lambda: next(find_all(root, name, role, showing), None), timeout)
    except WaitTimeout as error:
        raise WaitTimeout("%s; the tree:\n%s" % (error, describe(root))) from None


def describe(root, depth=0, limit=400):
    """The tree below root in text, for failure messages."""
    lines = []

    def walk(node, level):
        if len(lines) >= limit:
            return
        try:
            lines.append("%s%s %r%s" % ("  " * level, node.roleName, node.name,
                                        "" if node.showing else " (hidden)"))
            for child in node.children:
                walk(child, level + 1)
        except Exception as error:
            lines.append("%s<gone: %r>" % ("  " * level, error))

    walk(root, depth)
    return "\n".join(lines)


def act(node, preferred=("click", "activate", "toggle", "press")):
    """Does what a person's press does, through the node's Action interface."""
    action = node.queryAction()
    names = [action.getName(i) for i in range(action.nActions)]
    for wanted in preferred:
        if wanted in names:
            return action.doAction(names.index(wanted))
    if names:
        return action.doAction(0)
    raise AssertionError("%s %r has no action" % (node.roleName, node.name))


def is_checked(node):
    import pyatspi

    return node.getState().contains(pyatspi.STATE_CHECKED) or node.getState().contains(pyatspi.STATE_PRESSED)


def type_into(node, text):
    """Puts text into an entry as an assistive technology does: through its
    EditableText interface, else by clicking into it and typing the keys."""
    try:
        node.queryEditableText().setTextContents(text)
    except NotImplementedError:
        from dogtail import rawinput

        node.click()
        wait_until("focus on %r" % node.name, lambda: node.focused, 15)
        rawinput.typeText(text)
    wait_until("%r to hold %r" % (node.name, text), lambda: text_of(node) == text, 15)


def text_of(node):
    try:
        text = node.queryText()
        return text.getText(0, text.characterCount)
    except NotImplementedError:
        return node.name
