// Codes of the engine's error domain (kHFSErrorDomain, "com.quorvane.zephlore.hfs").
#pragma once

namespace zephlore {

enum HFSErrorCode : int {
  kHFSErrorCouldNotRead = 700,        // source unreadable, image not creatable, verification mismatch
  kHFSErrorLocked = 701,              // another process holds the file's lock
  kHFSErrorCouldNotOpen = 702,        // source cannot be stat'ed or opened
  kHFSErrorAlreadyCompressed = 703,   // recorded only: the work goes on
  kHFSErrorNotCompressible = 704,     // a block does not fit 64 KiB compressed, or the fork is too large
  kHFSErrorNotCompressed = 705,       // no (valid) compression header
  kHFSErrorCannotUncompress = 706,    // the fork is corrupt or a block does not inflate
};

}  // namespace zephlore
