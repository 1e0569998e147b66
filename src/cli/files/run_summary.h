// The totals of one run: files converted, skipped by reason, failed by error,
// bytes before and after. Printed at the end as a table, or as JSON.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "cli/files/file_outcome.h"

namespace zephlore::cli {

class RunSummary {
 public:
  // Paths of failed files kept for the report; past this only the count grows.
  static constexpr size_t kFailedPathsKept = 100;

  struct ErrorCount {
    uint64_t count = 0;
    std::string first_message;
  };

  RunSummary(Operation op, bool dry_run) : op_(op), dry_run_(dry_run) {}

  void add(const FileResult& result);

  Operation operation() const { return op_; }
  bool dryRun() const { return dry_run_; }
  uint64_t converted() const { return converted_; }
  uint64_t wouldConvert() const { return would_convert_; }
  uint64_t skipped() const { return skipped_; }
  uint64_t failed() const { return failed_; }
  uint64_t skippedFor(SkipReason reason) const { return by_reason_[static_cast<int>(reason)]; }
  const std::map<std::pair<std::string, int>, ErrorCount>& failedByError() const { return by_error_; }
  const std::vector<std::string>& failedPaths() const { return failed_paths_; }
  // Bytes of the converted (or, with --dry-run, the candidate) files.
  uint64_t bytesBefore() const { return bytes_before_; }
  uint64_t bytesAfter() const { return bytes_after_; }
  int64_t diskSaved() const { return disk_saved_; }
  // The uncompressed side: what a rate is measured in.
  uint64_t uncompressedBytes() const {
    return op_ == Operation::kCompress ? bytes_before_ : bytes_after_;
  }

  // The table shown at the end of a run.
  std::string table(Duration elapsed, bool interrupted) const;

 private:
  Operation op_;
  bool dry_run_;
  uint64_t converted_ = 0, would_convert_ = 0, skipped_ = 0, failed_ = 0;
  std::array<uint64_t, kSkipReasonCount> by_reason_{};
  std::map<std::pair<std::string, int>, ErrorCount> by_error_;
  std::vector<std::string> failed_paths_;
  uint64_t bytes_before_ = 0, bytes_after_ = 0;
  int64_t disk_saved_ = 0;
};

// "25.0 %": `part` of `whole`, one decimal; "-" when whole is 0.
std::string percent(uint64_t part, uint64_t whole);

}  // namespace zephlore::cli
