// The crash-recovery record of the one file being rewritten in place.
//
// While a file is inside the compressor's critical section, a small record
// file holds its path and its uncompressed size. A process that dies there
// leaves the record behind; the next start reads it and hands both values to
// QVHFSCompressedFileRepresentation::recoverInProcessFileAtPath().
//
// The format is the path's bytes, one line feed and the size in decimal
// ("%s\n%llu"), without a terminator. An empty record means no file is in
// process. The format has no escaping: a path is cut at its first line feed
// when read back, which is why the compressor refuses such paths.
//
// The helper's KRFileInProcessWatchdog keeps one of these in its data folder;
// the engine's crash tests use the same class, so the format lives only here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/env.h"

namespace zephlore {

struct InProcessRecord {
  std::optional<std::string> path;  // absent: no file was in process
  int64_t expectedSize = 0;
};

class InProcessRecordFile {
 public:
  // Reads the record left in `filename` by a previous run, then opens the file
  // (created with mode 0644 if missing, not truncated) under an exclusive,
  // non-blocking flock. When the open or the lock fails it logs
  // "Could not create watchdog file at %@, errno: %u [%s]" and every later
  // write is a silent no-op.
  InProcessRecordFile(std::string filename, Env& env);
  ~InProcessRecordFile();
  InProcessRecordFile(const InProcessRecordFile&) = delete;
  InProcessRecordFile& operator=(const InProcessRecordFile&) = delete;

  const std::string& filename() const { return filename_; }
  bool isOpen() const { return fd_ != -1; }
  // Another process holds the record's lock (a second helper): that one owns
  // crash recovery, and this one must not rewrite files.
  bool heldElsewhere() const { return heldElsewhere_; }
  // What the previous run left (read once, at construction).
  const InProcessRecord& previous() const { return previous_; }

  // Writes the record for `path`: its lstat size, 0 when it cannot be
  // stat'ed. Written at offset 0 over an empty file, without a flush.
  void willProcessFile(const std::string& path);
  // Empties the record (the file itself stays).
  void reset();

  // "%s\n%llu" of (path, size).
  static std::string format(std::string_view path, uint64_t size);
  // The inverse, as the start-up reads it: empty text gives no path; else the
  // text up to the first line feed is the path, and the leading decimal number
  // of the piece after it (up to the next line feed) is the size, 0 if none.
  static InProcessRecord parse(std::string_view text);

 private:
  Env& env_;
  std::string filename_;
  InProcessRecord previous_;
  int fd_ = -1;
  bool heldElsewhere_ = false;
};

}  // namespace zephlore
