// The one GLib thread of the desktop-facing parts that serve the bus: the
// tray item and the helper's status object. It runs GLib's global default
// context, because libdbusmenu queues its work there and only one thread may
// run that context; a second thread for either part could not.
//
// Desktop notices keep a thread of their own (see libnotify_sender.h):
// libnotify's show waits for the notification server's answer, and a server
// that hangs must not freeze the tray's menu or the status object.
#pragma once

#include "helper/bus/glib_thread.h"

namespace zephlore {

// Started on first use and never stopped: parts come and go on it (tests make
// many), and it ends with the process.
GlibThread& desktopThread();

}  // namespace zephlore
