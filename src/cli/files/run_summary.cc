#include "cli/files/run_summary.h"

#include <cstdio>

#include "base/util.h"
#include "cli/files/display_name.h"
#include "cli/files/progress_line.h"

namespace zephlore::cli {
namespace {

void row(std::string& out, const std::string& label, const std::string& value) {
  char buf[512];
  snprintf(buf, sizeof buf, "  %-34s %s\n", label.c_str(), value.c_str());
  out += buf;
}

std::string files(uint64_t n) { return groupedNumber(n) + (n == 1 ? " file" : " files"); }

}  // namespace

std::string percent(uint64_t part, uint64_t whole) {
  if (whole == 0) return "-";
  char buf[32];
  snprintf(buf, sizeof buf, "%.1f %%", 100.0 * static_cast<double>(part) / static_cast<double>(whole));
  return buf;
}

void RunSummary::add(const FileResult& r) {
  switch (r.outcome) {
    case Outcome::kConverted:
      ++converted_;
      bytes_before_ += r.size_before;
      bytes_after_ += r.size_after;
      disk_saved_ += r.disk_saved;
      break;
    case Outcome::kWouldConvert:
      ++would_convert_;
      bytes_before_ += r.size_before;
      bytes_after_ += r.size_after;
      break;
    case Outcome::kSkipped:
      ++skipped_;
      ++by_reason_[static_cast<int>(r.reason)];
      break;
    case Outcome::kFailed: {
      ++failed_;
      ErrorCount& e = by_error_[{r.error.domain, r.error.code}];
      if (e.count++ == 0) e.first_message = r.error.message;
      if (failed_paths_.size() < kFailedPathsKept) failed_paths_.push_back(r.path);
      break;
    }
  }
}

std::string RunSummary::table(Duration elapsed, bool interrupted) const {
  const bool compress = op_ == Operation::kCompress;
  std::string out;
  if (interrupted) out += "Interrupted: files in flight were finished, the rest left as they were.\n";
  const bool repair = op_ == Operation::kRepair;
  out += repair ? "Repair summary\n" : compress ? "Compression summary\n" : "Decompression summary\n";
  if (dry_run_) {
    row(out, repair ? "would repair" : compress ? "would compress" : "would decompress", files(would_convert_));
  } else {
    row(out, repair ? "repaired" : compress ? "compressed" : "decompressed", files(converted_));
  }
  row(out, "skipped", files(skipped_));
  for (int i = 0; i < kSkipReasonCount; ++i) {
    if (by_reason_[i] == 0) continue;
    row(out, std::string("  ") + skipReasonText(static_cast<SkipReason>(i)), groupedNumber(by_reason_[i]));
  }
  row(out, "failed", files(failed_));
  for (const auto& [key, count] : by_error_) {
    std::string label = "  " + key.first + " " + std::to_string(key.second);
    row(out, label, groupedNumber(count.count) + "  (" + escapeForTerminal(count.first_message) + ")");
  }
  row(out, "bytes before", KRUtil::getPrettySize(bytes_before_));
  if (!dry_run_) {
    row(out, "bytes after", KRUtil::getPrettySize(bytes_after_));
    if (compress) {
      const uint64_t saved = bytes_before_ > bytes_after_ ? bytes_before_ - bytes_after_ : 0;
      row(out, "saved", KRUtil::getPrettySize(saved) + " (" + percent(saved, bytes_before_) + ")");
      row(out, "ratio (after/before)", percent(bytes_after_, bytes_before_));
    }
  }
  const double secs = toSeconds(elapsed);
  char buf[64];
  snprintf(buf, sizeof buf, "%.2f s", secs);
  row(out, "elapsed", buf);
  if (!dry_run_ && secs > 0) {
    row(out, "throughput",
        KRUtil::getPrettySize(static_cast<uint64_t>(static_cast<double>(uncompressedBytes()) / secs)) + "/s");
  }
  return out;
}

}  // namespace zephlore::cli
