#include "cli/files/json_report.h"

#include "base/utf8.h"
#include "cli/files/display_name.h"

namespace zephlore::cli {

void addPathFields(json& object, const std::string& path) {
  if (isValidUTF8(path)) {
    object["path"] = path;
  } else {
    object["path"] = lossyUtf8(path);
    object["path_bytes"] = hexBytes(path);
  }
}

json errorJson(const Error& error) {
  return json{{"domain", lossyUtf8(error.domain)}, {"code", error.code}, {"message", lossyUtf8(error.message)}};
}

json fileJson(const FileResult& r, Operation op) {
  json j;
  j["type"] = "file";
  addPathFields(j, r.path);
  j["outcome"] = outcomeKey(r.outcome, op);
  switch (r.outcome) {
    case Outcome::kSkipped:
      j["reason"] = skipReasonKey(r.reason);
      j["reason_text"] = skipReasonText(r.reason);
      j["size"] = r.size_before;
      break;
    case Outcome::kFailed:
      j["error"] = errorJson(r.error);
      j["size"] = r.size_before;
      break;
    case Outcome::kWouldConvert:
      j["size"] = r.size_before;
      break;
    case Outcome::kConverted:
      j["size_before"] = r.size_before;
      j["size_after"] = r.size_after;
      j["disk_saved"] = r.disk_saved;
      break;
  }
  return j;
}

json summaryJson(const RunSummary& s, Duration elapsed, bool interrupted) {
  const Operation op = s.operation();
  json j;
  j["type"] = "summary";
  j["command"] = operationName(op);
  j["dry_run"] = s.dryRun();
  j["interrupted"] = interrupted;
  json files;
  files[outcomeKey(Outcome::kConverted, op)] = s.converted();
  if (s.dryRun()) files[outcomeKey(Outcome::kWouldConvert, op)] = s.wouldConvert();
  files["skipped"] = s.skipped();
  files["failed"] = s.failed();
  j["files"] = files;
  json reasons = json::object();
  for (int i = 0; i < kSkipReasonCount; ++i) {
    const auto reason = static_cast<SkipReason>(i);
    if (s.skippedFor(reason) != 0) reasons[skipReasonKey(reason)] = s.skippedFor(reason);
  }
  j["skipped_by_reason"] = reasons;
  json errors = json::array();
  for (const auto& [key, count] : s.failedByError()) {
    errors.push_back({{"domain", lossyUtf8(key.first)},
                      {"code", key.second},
                      {"count", count.count},
                      {"first_message", lossyUtf8(count.first_message)}});
  }
  j["failed_by_error"] = errors;
  json failed_files = json::array();
  for (const std::string& path : s.failedPaths()) {
    json p;
    addPathFields(p, path);
    failed_files.push_back(p);
  }
  j["failed_files"] = failed_files;
  j["failed_files_truncated"] = s.failed() > s.failedPaths().size();
  const uint64_t before = s.bytesBefore(), after = s.bytesAfter();
  j["bytes_before"] = before;
  if (!s.dryRun()) {
    j["bytes_after"] = after;
    j["bytes_saved"] = static_cast<int64_t>(before) - static_cast<int64_t>(after);
    j["disk_saved"] = s.diskSaved();
    j["ratio"] = before == 0 ? json(nullptr) : json(static_cast<double>(after) / static_cast<double>(before));
  }
  const double secs = toSeconds(elapsed);
  j["elapsed_seconds"] = secs;
  j["throughput_bytes_per_second"] =
      secs > 0 && !s.dryRun() ? static_cast<double>(s.uncompressedBytes()) / secs : 0.0;
  return j;
}

std::string dumpLine(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace zephlore::cli
