// Whether a session bus can be found without GLib's last resort, which
// autolaunches one through X11: a server or a CI machine simply has none.
#pragma once

namespace zephlore {

// True when DBUS_SESSION_BUS_ADDRESS is set, or $XDG_RUNTIME_DIR/bus is a
// socket (where the user's bus listens by default).
bool sessionBusAddressKnown();

}  // namespace zephlore
