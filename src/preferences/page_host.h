// What a page of the window asks of the window around it.
#pragma once

#include <gtkmm/widget.h>
#include <gtkmm/window.h>

#include <functional>

#include "pane/pane_model.h"

namespace zephlore::preferences {

class PageHost {
 public:
  using Action = std::function<pane::Outcome(pane::PaneModel&)>;

  virtual ~PageHost() = default;
  // Shows why an action failed; nothing when `outcome` is "" (done).
  virtual void report(const pane::Outcome& outcome) = 0;
  // Runs `action` on the window's worker, never on the main loop. `control`
  // (may be null) is insensitive until it returns; then its outcome is
  // reported, `then` runs on the main loop and everything is read again.
  virtual void act(Gtk::Widget* control, Action action, std::function<void(const pane::Outcome&)> then = {}) = 0;
  // False once the helper said it quits: no calls to it until it is back.
  virtual bool helperReachable() const = 0;
  virtual Gtk::Window& window() = 0;
};

}  // namespace zephlore::preferences
