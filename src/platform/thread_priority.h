// Making the calling thread yield to everything else on the machine: a
// higher nice value for the processor and the idle class for disk I/O, so
// background work runs only in time nobody else wants.
#pragma once

namespace zephlore {

// Sets the calling thread's nice value (0 normal, 19 lowest). False with
// errno set on failure.
bool setCurrentThreadNice(int nice);
// Puts the calling thread's disk I/O in the idle class (ioprio_set,
// IOPRIO_CLASS_IDLE). False with errno set on failure.
bool setCurrentThreadIdleIoPriority();
// SCHED_IDLE for the calling thread: it runs only when a core has nothing
// else to run, whatever the nice values of the others.
bool setCurrentThreadIdleScheduling();
bool currentThreadHasIdleScheduling();
// The calling thread's nice value and whether its I/O class is idle.
int currentThreadNice();
bool currentThreadHasIdleIoPriority();

}  // namespace zephlore
