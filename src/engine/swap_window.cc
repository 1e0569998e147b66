#include "engine/swap_window.h"

namespace zephlore {

SwapWindow::SwapWindow(Env& env, int fd) : env_(env), fd_(fd), leased_(env.takeWriteLease(fd) == 0) {}

SwapWindow::~SwapWindow() { close(); }

bool SwapWindow::undisturbed() const { return !leased_ || env_.writeLeaseHeld(fd_); }

void SwapWindow::close() {
  if (!leased_) return;
  env_.releaseLease(fd_);
  leased_ = false;
}

}  // namespace zephlore
