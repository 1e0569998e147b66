// What gives the running helper its memory and its voice: the history store
// (with the pane's folder notices), desktop notices through libnotify, and
// the version check that restarts an old helper into a newly installed one.
// Kept apart from main() so that the application delegate can take it over.
#pragma once

#include <functional>

#include "base/run_loop.h"

namespace zephlore {

// Installs the libnotify sender, creates the history store and observes
// "com.quorvane.krimble.folders" and "com.quorvane.zephlore.version". A
// different version relaunches the helper and then calls `quit`.
void startHistoryServices(RunLoop& loop, std::function<void()> quit);

// Saves the history now and lets the last notices go out (the quit).
void stopHistoryServices();

}  // namespace zephlore
