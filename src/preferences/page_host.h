// What a page of the window asks of the window around it.
#pragma once

#include <gtkmm/window.h>

#include "pane/pane_model.h"

namespace zephlore::preferences {

class PageHost {
 public:
  virtual ~PageHost() = default;
  // Shows why an action failed; nothing when `outcome` is "" (done).
  virtual void report(const pane::Outcome& outcome) = 0;
  // Reads everything again once the current event is over (never while a
  // control's own handler runs: a re-read may remove that control).
  virtual void scheduleReload() = 0;
  // False once the helper said it quits: no calls to it until it is back.
  virtual bool helperReachable() const = 0;
  virtual Gtk::Window& window() = 0;
};

}  // namespace zephlore::preferences
