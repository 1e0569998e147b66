#include "engine/swap_window.h"

namespace zephlore {

SwapWindow::SwapWindow(int fd) : fd_(fd), leased_(Env::shared().takeWriteLease(fd) == 0) {}

SwapWindow::~SwapWindow() { close(); }

bool SwapWindow::undisturbed() const { return !leased_ || Env::shared().writeLeaseHeld(fd_); }

void SwapWindow::close() {
  if (!leased_) return;
  Env::shared().releaseLease(fd_);
  leased_ = false;
}

}  // namespace zephlore
