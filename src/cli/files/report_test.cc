#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "base/utf8.h"
#include "cli/files/display_name.h"
#include "cli/files/json_report.h"
#include "cli/files/progress_line.h"
#include "cli/files/run_summary.h"

namespace zephlore::cli {
namespace {

using nlohmann::json;

TEST(DisplayName, EscapesWhatATerminalWouldActOnAndKeepsTheRest) {
  EXPECT_EQ(escapeForTerminal("plain name.txt"), "plain name.txt");
  EXPECT_EQ(escapeForTerminal("caf\xc3\xa9 \xe2\x82\xac"), "caf\xc3\xa9 \xe2\x82\xac");  // UTF-8 stays
  EXPECT_EQ(escapeForTerminal("a\nb\tc\rd\\e"), "a\\nb\\tc\\rd\\\\e");
  EXPECT_EQ(escapeForTerminal("\x1b[2Jx\x7f"), "\\x1b[2Jx\\x7f");
  EXPECT_EQ(escapeForTerminal("caf\xe9"), "caf\\xe9");              // Latin-1 byte
  EXPECT_EQ(escapeForTerminal("\xc2\x9b" "1m"), "\\xc2\\x9b1m");     // C1 control (CSI)
  EXPECT_EQ(escapeForTerminal("\xed\xa0\x80"), "\\xed\\xa0\\x80");   // a surrogate is not UTF-8
  EXPECT_EQ(escapeForTerminal("\xc0\xaf"), "\\xc0\\xaf");            // overlong '/'
  EXPECT_EQ(escapeForTerminal("\xe2\x82"), "\\xe2\\x82");            // cut short

  EXPECT_TRUE(isValidUTF8("caf\xc3\xa9\n"));
  EXPECT_FALSE(isValidUTF8("caf\xe9"));
  EXPECT_EQ(lossyUtf8("a\xffz"), "a\xef\xbf\xbdz");
  EXPECT_EQ(hexBytes("A\xff\n"), "41ff0a");
}

FileResult result(const std::string& path, Outcome outcome) {
  FileResult r;
  r.path = path;
  r.outcome = outcome;
  return r;
}

// Every outcome, with hostile names, gives one line of valid JSON that reads
// back to the same facts; the summary counts them by reason and error.
TEST(JsonReport, EveryOutcomeIsOneLineOfValidJson) {
  std::vector<FileResult> results;
  FileResult converted = result("/t/good\nname", Outcome::kConverted);
  converted.size_before = 100000;
  converted.size_after = 25000;
  converted.disk_saved = 73728;
  results.push_back(converted);
  for (int i = 1; i < kSkipReasonCount; ++i) {
    results.push_back(skipped("/t/skip\xff" + std::to_string(i), static_cast<SkipReason>(i), 10, false));
  }
  Error locked{"com.quorvane.zephlore.hfs", 701, "File at path /t/x\xfe is locked by other process"};
  results.push_back(failed("/t/locked\xfe", locked, 5000, true));
  results.push_back(failed("/t/gone", posixError(ENOENT, "cannot stat"), 0, false));

  RunSummary summary(Operation::kCompress, false);
  for (const FileResult& r : results) {
    summary.add(r);
    const std::string line = dumpLine(fileJson(r, Operation::kCompress));
    EXPECT_EQ(line.find('\n'), std::string::npos);
    json j = json::parse(line);
    EXPECT_EQ(j["type"], "file");
    EXPECT_EQ(j["outcome"], outcomeKey(r.outcome, Operation::kCompress));
    if (isValidUTF8(r.path)) {
      EXPECT_EQ(j["path"], r.path);
      EXPECT_FALSE(j.contains("path_bytes"));
    } else {
      EXPECT_EQ(j["path_bytes"], hexBytes(r.path));
    }
    if (r.outcome == Outcome::kSkipped) {
      EXPECT_EQ(j["reason"], skipReasonKey(r.reason));
    }
    if (r.outcome == Outcome::kFailed) {
      EXPECT_EQ(j["error"]["code"], r.error.code);
    }
  }
  json s = json::parse(dumpLine(summaryJson(summary, std::chrono::seconds(2), true)));
  EXPECT_EQ(s["type"], "summary");
  EXPECT_EQ(s["command"], "compress");
  EXPECT_TRUE(s["interrupted"]);
  EXPECT_EQ(s["files"]["compressed"], 1);
  EXPECT_EQ(s["files"]["skipped"], kSkipReasonCount - 1);
  EXPECT_EQ(s["files"]["failed"], 2);
  EXPECT_EQ(s["skipped_by_reason"]["too_small"], 1);
  EXPECT_EQ(s["skipped_by_reason"].size(), static_cast<size_t>(kSkipReasonCount - 1));
  ASSERT_EQ(s["failed_by_error"].size(), 2u);
  EXPECT_EQ(s["failed_files"].size(), 2u);
  EXPECT_EQ(s["bytes_before"], 100000);
  EXPECT_EQ(s["bytes_after"], 25000);
  EXPECT_EQ(s["bytes_saved"], 75000);
  EXPECT_DOUBLE_EQ(s["ratio"].get<double>(), 0.25);
  EXPECT_DOUBLE_EQ(s["throughput_bytes_per_second"].get<double>(), 50000.0);

  const std::string table = summary.table(std::chrono::seconds(2), true);
  EXPECT_NE(table.find("Interrupted"), std::string::npos);
  EXPECT_NE(table.find("smaller than 4096 bytes"), std::string::npos);
  EXPECT_NE(table.find("com.quorvane.zephlore.hfs 701"), std::string::npos);
  EXPECT_NE(table.find("25.0 %"), std::string::npos);
  EXPECT_EQ(table.find('\xfe'), std::string::npos) << "raw bytes of a name reach the terminal";
}

TEST(ProgressLine, ShowsCountsRateAndTimeLeftWithinTheWidth) {
  ProgressSnapshot s;
  s.files_done = 1234;
  s.files_total = 20000;
  s.bytes_done = 500'000'000;
  s.bytes_total = 1'500'000'000;
  s.elapsed = std::chrono::seconds(5);
  EXPECT_EQ(formatProgress(s, 200), "1,234/20,000+ files  500 MB/1.50 GB+  100 MB/s");
  s.totals_final = true;
  EXPECT_EQ(formatProgress(s, 200), "1,234/20,000 files  500 MB/1.50 GB  100 MB/s  0:10 left");
  EXPECT_EQ(formatProgress(s, 20).size(), 19u);
  EXPECT_EQ(groupedNumber(1000000), "1,000,000");
  EXPECT_EQ(clockDuration(3725), "1:02:05");
}

}  // namespace
}  // namespace zephlore::cli
