// KRFileInProcessWatchdog: the durable trace of the one file being rewritten in
// place, so that the next start can repair a file left half converted by a
// crash, a kill or a power cut.
//
// The record lives in the data folder as "inprocess.kr" (format and file
// handling in engine/in_process_record.h). The compressor writes it when the
// engine enters its critical section for a file and empties it when the
// section ends; at start-up the lifecycle reads the previous run's record,
// hands it to the engine's recovery and then calls reset().
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "engine/in_process_record.h"

namespace zephlore {

class KRFileInProcessWatchdog {
 public:
  // `dataFolder` joined with "inprocess.kr".
  static std::string watchdogFilename(const std::string& dataFolder);
  // Reads the previous run's record in `dataFolder`, then opens the record
  // file under an exclusive lock, which a second running helper therefore
  // fails to take (it logs, and compresses nothing).
  KRFileInProcessWatchdog(Env& env, const std::string& dataFolder);

  KRFileInProcessWatchdog(const KRFileInProcessWatchdog&) = delete;
  KRFileInProcessWatchdog& operator=(const KRFileInProcessWatchdog&) = delete;

  bool hasInProcessFileFromPreviousSession() const;
  std::optional<std::string> inProcessFileFromPreviousSession() const;
  int64_t expectedSizeOfInProcessFile() const;

  // Another running helper holds the record: this one must compress nothing.
  bool recordHeldByAnotherCopy() const { return record_.heldElsewhere(); }

  // Records `path` with its current size (0 if it cannot be stat'ed).
  void willProcessFile(const std::string& path);
  // Ends the file's critical section: the path is not needed, see reset().
  void didProcessFile(const std::string& path);
  // Empties the record file.
  void reset();

 private:
  InProcessRecordFile record_;
};

}  // namespace zephlore
