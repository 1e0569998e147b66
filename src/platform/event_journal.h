// The journal of delivered file events, kept in the data folder, so that
// event ids keep rising across restarts and a restarted stream can replay
// what was delivered after a given id (no kernel keeps events while nobody
// listens).
//
// The file: a header (magic, next id) and records of id, time, device, flags
// and directory, each with a checksum. It holds at most `capacity` records;
// the oldest go first. A damaged tail (a crash in mid-write, garbage) is cut
// off at the first bad record with one log line; ids found above the stored
// counter raise it, so ids never repeat.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "platform/env.h"
#include "platform/file_event.h"

namespace zephlore {

class EventJournal {
 public:
  static constexpr size_t kDefaultCapacity = 100000;

  struct Entry {
    uint64_t id;
    int64_t time;  // nanoseconds since 1970
    uint64_t device;
    uint32_t flags;
    std::string path;
  };

  // Opens (or creates) the journal at `path`. An unreadable or unwritable
  // file leaves a journal that lives in memory only (one log line).
  EventJournal(Env& env, std::string path, size_t capacity = kDefaultCapacity);
  ~EventJournal();
  EventJournal(const EventJournal&) = delete;
  EventJournal& operator=(const EventJournal&) = delete;

  // Gives each event the next id, writes the batch and flushes it to disk
  // before returning, so that nothing is delivered that a crash could forget.
  // `devices[i]` is the device of events[i]'s directory; `time` is now, in
  // nanoseconds since 1970.
  void record(std::vector<FileEvent>& events, const std::vector<uint64_t>& devices, int64_t time);
  // An id for an event that is delivered but not kept (a re-check request).
  uint64_t takeId();

  // The events recorded after `since` whose directory is `root` or below it.
  std::vector<FileEvent> eventsAfter(uint64_t since, const std::vector<std::string>& roots) const;
  // The last id recorded on `device` before `time`; 0 when the journal does
  // not reach back that far.
  uint64_t lastEventIdForDeviceBeforeTime(uint64_t device, double seconds_since_1970) const;

  uint64_t nextId() const { return next_id_; }
  size_t size() const { return entries_.size(); }

 private:
  void load();
  void rewrite();
  void writeHeader();

  std::string path_;
  size_t capacity_;
  int fd_ = -1;
  uint64_t next_id_ = 1;
  std::deque<Entry> entries_;
  // Entries older than the first kept one were dropped: the journal does not
  // reach back before this time.
  int64_t reaches_back_to_ = 0;
};

}  // namespace zephlore
