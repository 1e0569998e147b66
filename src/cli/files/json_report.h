// JSON forms of a run's reports: one object per file (with --verbose) and
// one summary object, each written on one line.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "base/clock.h"
#include "cli/files/file_outcome.h"
#include "cli/files/run_summary.h"

namespace zephlore::cli {

// Keys stay in the order they were added, as the reports show them.
using json = nlohmann::ordered_json;

// A path as JSON fields: "path" (valid UTF-8; bytes that are not UTF-8 shown
// as U+FFFD) and, only for such names, "path_bytes" with the exact bytes in
// hexadecimal.
void addPathFields(nlohmann::ordered_json& object, const std::string& path);

nlohmann::ordered_json errorJson(const Error& error);
nlohmann::ordered_json fileJson(const FileResult& result, Operation op);
nlohmann::ordered_json summaryJson(const RunSummary& summary, Duration elapsed, bool interrupted);

// One line of compact JSON; never throws on text that is not UTF-8.
std::string dumpLine(const nlohmann::ordered_json& value);

}  // namespace zephlore::cli
