// Whether a program other than this one is writing a file: it has the file
// open for writing, or as its current directory (a program that works in a
// folder may write anything in it). Processes that cannot be inspected
// (another user's) do not count.
#pragma once

#include <sys/stat.h>

namespace zephlore {

bool isOpenForWritingByOtherProcesses(const struct stat& st);

// The same for the file behind `readOnlyFd`. Most files have no writer at
// all, which the kernel answers in one call; only when some descriptor has
// it open for writing are the processes walked to find out whose it is.
bool isOpenForWritingByOtherProcesses(int readOnlyFd, const struct stat& st);

}  // namespace zephlore
