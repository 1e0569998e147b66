#include "cli/files/progress_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cmath>

#include "base/util.h"

namespace zephlore::cli {
namespace {

constexpr Duration kRedrawInterval = std::chrono::milliseconds(200);

int terminalWidth(FILE* out) {
  struct winsize ws;
  if (ioctl(fileno(out), TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) return ws.ws_col;
  return 80;
}

}  // namespace

std::string groupedNumber(uint64_t n) {
  std::string digits = std::to_string(n);
  std::string out;
  const size_t lead = digits.size() % 3;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i != 0 && (i + 3 - lead) % 3 == 0) out += ',';
    out += digits[i];
  }
  return out;
}

std::string clockDuration(double seconds) {
  if (!(seconds >= 0)) seconds = 0;
  if (seconds > 359999) seconds = 359999;  // 99:59:59
  const auto total = static_cast<uint64_t>(std::llround(seconds));
  char buf[32];
  if (total >= 3600) {
    snprintf(buf, sizeof buf, "%llu:%02llu:%02llu", static_cast<unsigned long long>(total / 3600),
             static_cast<unsigned long long>(total / 60 % 60),
             static_cast<unsigned long long>(total % 60));
  } else {
    snprintf(buf, sizeof buf, "%llu:%02llu", static_cast<unsigned long long>(total / 60),
             static_cast<unsigned long long>(total % 60));
  }
  return buf;
}

std::string formatProgress(const ProgressSnapshot& s, int width) {
  const double elapsed = toSeconds(s.elapsed);
  std::string line = groupedNumber(s.files_done) + "/" + groupedNumber(s.files_total) +
                     (s.totals_final ? "" : "+") + " files  " + KRUtil::getPrettySize(s.bytes_done) +
                     "/" + KRUtil::getPrettySize(s.bytes_total) + (s.totals_final ? "" : "+");
  if (elapsed > 0.5) {
    const double rate = static_cast<double>(s.bytes_done) / elapsed;
    line += "  " + KRUtil::getPrettySize(static_cast<uint64_t>(rate)) + "/s";
    if (s.totals_final && rate > 0 && s.bytes_total >= s.bytes_done) {
      line += "  " + clockDuration(static_cast<double>(s.bytes_total - s.bytes_done) / rate) + " left";
    }
  }
  if (width > 1 && line.size() > static_cast<size_t>(width - 1)) line.resize(width - 1);
  return line;
}

ProgressLine::ProgressLine(FILE* out, Clock& clock) : out_(out), clock_(clock) {}

ProgressLine::~ProgressLine() { stop(); }

void ProgressLine::start() {
  started_ = clock_.now();
  thread_ = std::thread([this] { run(); });
}

void ProgressLine::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
  std::lock_guard<std::mutex> lock(mutex_);
  eraseLocked();
}

void ProgressLine::printAbove(FILE* stream, const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  eraseLocked();
  fputs(text.c_str(), stream);
  fflush(stream);
}

void ProgressLine::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    drawLocked();
    clock_.waitUntil(lock, wake_, clock_.now() + kRedrawInterval, [this] { return stopping_; });
  }
}

void ProgressLine::drawLocked() {
  ProgressSnapshot s;
  s.files_done = files_done_.load(std::memory_order_relaxed);
  s.bytes_done = bytes_done_.load(std::memory_order_relaxed);
  s.totals_final = totals_final_.load(std::memory_order_relaxed);
  s.files_total = files_total_.load(std::memory_order_relaxed);
  s.bytes_total = bytes_total_.load(std::memory_order_relaxed);
  // The count runs ahead of the work but is read a moment apart from it.
  if (s.files_total < s.files_done) s.files_total = s.files_done;
  if (s.bytes_total < s.bytes_done) s.bytes_total = s.bytes_done;
  s.elapsed = clock_.now() - started_;
  const std::string line = formatProgress(s, terminalWidth(out_));
  fprintf(out_, "\r%s\x1b[K", line.c_str());
  fflush(out_);
  drawn_ = true;
}

void ProgressLine::eraseLocked() {
  if (!drawn_) return;
  fputs("\r\x1b[K", out_);
  fflush(out_);
  drawn_ = false;
}

}  // namespace zephlore::cli
