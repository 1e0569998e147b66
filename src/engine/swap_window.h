// The moments in which a file is replaced by a new version of itself: from
// the last check that nobody uses it until the new version is verified at
// its name.
//
// A program that opens the file in that window would get the old version and
// write into it after the swap, into data that is then thrown away. A write
// lease closes the window: such an opener waits until the lease is let go,
// and the lease shows that it tried. The replacement then backs out (or is
// swapped back) before the lease is let go, so the opener's writes land in
// the file that stays at the name.
//
// The kernel grants the lease only to the file's owner and only while no
// other descriptor has the file open (ours included: close the others
// first). A refusal says nothing about writers: checkWriters asks the
// kernel again; only a late opener can then no longer be undone.
#pragma once

#include "platform/env.h"

namespace zephlore {

class SwapWindow {
 public:
  // Takes the write lease on `fd`, the one open descriptor of the file.
  SwapWindow(Env& env, int fd);
  ~SwapWindow();  // lets the lease go
  SwapWindow(const SwapWindow&) = delete;
  SwapWindow& operator=(const SwapWindow&) = delete;

  bool leased() const { return leased_; }
  // False once somebody tried to open the file after the lease was taken.
  // Without a lease, true: the caller's other checks decide.
  bool undisturbed() const;
  // Lets the lease go now (a waiting opener goes on).
  void close();

 private:
  Env& env_;
  int fd_;
  bool leased_ = false;
};

}  // namespace zephlore
