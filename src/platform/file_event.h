// One change reported by the file event stream: a directory (not a file)
// whose content changed, its id and what the flags say about it. The flag
// values and the "since now" id are those the watcher's callback speaks.
#pragma once

#include <cstdint>
#include <string>

namespace zephlore {

enum FileEventFlag : uint32_t {
  kFileEventNone = 0x00,
  kFileEventMustScanSubDirs = 0x01,  // changes below were lost: re-check the tree
  kFileEventUserDropped = 0x02,
  kFileEventKernelDropped = 0x04,    // the kernel's queue overflowed
  kFileEventIdsWrapped = 0x08,
  kFileEventHistoryDone = 0x10,      // the replay of the journal has ended
  kFileEventRootChanged = 0x20,      // a watched folder was moved or deleted
  kFileEventMount = 0x40,
  kFileEventUnmount = 0x80,
};

// Start from now: no replay.
inline constexpr uint64_t kFileEventIdSinceNow = UINT64_MAX;

struct FileEvent {
  std::string path;
  uint32_t flags = 0;
  uint64_t id = 0;
};

}  // namespace zephlore
