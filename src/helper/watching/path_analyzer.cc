#include "helper/watching/path_analyzer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "base/util.h"
#include "engine/candidate_check.h"
#include "engine/compression_signature.h"
#include "engine/extended_attributes_helper.h"
#include "engine/volume.h"
#include "helper/settings/exclusion_rules.h"
#include "helper/settings/exclusions_processor.h"
#include "helper/watching/path_analyzers.h"
#include "protocol/notification_names.h"

namespace zephlore {
namespace {

constexpr const char* kXcodeGenerated = "com.apple.XcodeGenerated";
constexpr double kRecentSignature = 43200.0;      // 12 hours
constexpr double kUnchangedSignature = 604800.0;  // 7 days

}  // namespace

std::string KRPathAnalyzer::normalizePath(const std::string& path) {
  std::string input = path;
  if (!input.empty() && input[0] == '~' && (input.size() == 1 || input[1] == '/')) {
    const char* home = getenv("HOME");
    if (home) input = home + input.substr(1);
  }
  const bool absolute = !input.empty() && input[0] == '/';
  std::vector<std::string> parts;
  size_t i = 0;
  while (i <= input.size()) {
    size_t j = input.find('/', i);
    if (j == std::string::npos) j = input.size();
    std::string part = input.substr(i, j - i);
    if (part == "..") {
      if (!parts.empty() && parts.back() != "..") {
        parts.pop_back();
      } else if (!absolute) {
        parts.push_back(part);
      }
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    i = j + 1;
  }
  std::string out = absolute ? "/" : "";
  for (size_t k = 0; k < parts.size(); ++k) {
    if (k) out += '/';
    out += parts[k];
  }
  return out.empty() && !path.empty() ? "." : out;
}

// --- Starting, folding, finishing (main thread) ---

KRPathAnalyzer::KRPathAnalyzer(KRPathAnalyzers& analyzers, std::string path, std::string watchedPath, bool recursive,
                               KRPathAnalyzerDelegate* delegate, uint64_t eventID)
    : analyzers_(analyzers),
      env_(analyzers.env_),
      path_(std::move(path)),
      watched_path_(std::move(watchedPath)),
      recursive_(recursive),
      event_id_(eventID),
      delegate_(delegate) {
  files_to_compress_.reserve(500);
}

KRPathAnalyzer::~KRPathAnalyzer() {
  if (compressed_observer_) analyzers_.center_.removeObserver(compressed_observer_);
}

bool KRPathAnalyzer::excludedByRules(const std::string& path) const {
  const KRExclusionRules* rules = analyzers_.links_.rules;
  return rules && rules->mustExcludePath(path);
}

bool KRPathAnalyzer::excludedByUser(const std::string& path) const {
  const KRExclusionsProcessor* lists = analyzers_.links_.userExclusions;
  return lists && lists->isExcluded(path);
}

void KRPathAnalyzer::start() {
  if (excludedByRules(path_)) {
    didFinishAnalyzing();
    return;
  }
  auto self = shared_from_this();
  Operation op{[self] { self->analyzePath(); },
               [self] { self->analyzers_.mainLoop_.post([self] { self->didFinishAnalyzing(); }); }};
  if (analyzers_.links_.addAnalysisOperation) {
    analyzers_.links_.addAnalysisOperation(std::move(op));
  } else {
    // Unlinked (a test of the walk alone): on this thread.
    op.work();
    if (op.completion) op.completion();
  }
}

void KRPathAnalyzer::cancel() {
  cancelled_.store(true);
  std::lock_guard lock(mutex_waiting_for_compression_);
  cond_compressed_file_.notify_all();
}

std::optional<WallTime> KRPathAnalyzer::analysisStartDate() const {
  std::lock_guard lock(start_date_mutex_);
  return analysis_start_date_;
}

size_t KRPathAnalyzer::remainingFilesToCompress() const {
  std::lock_guard lock(files_mutex_);
  return files_to_compress_.size();
}

void KRPathAnalyzer::didFinishAnalyzing() {
  analysis_is_finished_.store(true);
  if (walked_.load()) {
    if (isCancelled()) {
      KRLogInfo("Analysis of %s cancelled", path_.c_str());
    } else if (volume_refused_.load()) {
      KRLogInfo("Analysed %s: its volume cannot hold compressed files", path_.c_str());
    } else {
      KRLogInfo("Analysed %s: %llu examined, %llu to compress", path_.c_str(),
                static_cast<unsigned long long>(files_examined_.load()),
                static_cast<unsigned long long>(files_found_.load()));
    }
  }
  notifyDidFinishAnalyzing();
  if (!isCancelled() && remainingFilesToCompress() > 0) {
    addFilesToCompress();
    // The compressor may have processed the last file meanwhile.
    if (remainingFilesToCompress() == 0) didFinishCompressing();
  } else {
    didFinishCompressing();
  }
}

void KRPathAnalyzer::fileWasCompressed(const Notification& notification) {
  const std::string* path = userInfoString(notification.userInfo, kFileCompressedPathKey);
  if (!path) return;
  bool now_empty;
  {
    std::lock_guard lock(files_mutex_);
    auto it = std::find(files_to_compress_.begin(), files_to_compress_.end(), *path);
    if (it == files_to_compress_.end()) return;
    files_to_compress_.erase(it);
    now_empty = files_to_compress_.empty();
  }
  {
    std::lock_guard lock(mutex_waiting_for_compression_);
    cond_compressed_file_.notify_all();
  }
  auto self = shared_from_this();
  analyzers_.mainLoop_.post([self, file = *path] { self->notifyDidProcessFile(file); });
  if (analysisIsFinished() && now_empty) didFinishCompressing();
}

void KRPathAnalyzer::didFinishCompressing() {
  if (finished_.exchange(true)) return;
  analyzers_.center_.removeObserver(compressed_observer_);
  compressed_observer_ = 0;
  auto self = shared_from_this();  // the registry lets go of it in the next step
  analyzers_.mainLoop_.postAndWait([self] { self->didFinishCompressing_main(); });
}

void KRPathAnalyzer::didFinishCompressing_main() {
  auto self = shared_from_this();
  notifyDidFinishCompressing();
  analyzers_.unregisterAnalyzer(self);
  analyzeSamePathAgain(self);
}

void KRPathAnalyzer::analyzeSamePathAgain(const std::shared_ptr<KRPathAnalyzer>& analyzer) {
  if (isCancelled() || !analyzer->must_recheck_) return;
  analyzers_.startAnalyzerWithPath(analyzer->path_, analyzer->recheck_recursive_, analyzer->delegate_,
                                   analyzer->event_id_for_recheck_);
}

void KRPathAnalyzer::notifyDidFinishAnalyzing() {
  if (delegate_) delegate_->analyzerDidFinishAnalyzingPath(this, path_, recursive_);
}

void KRPathAnalyzer::notifyDidProcessFile(const std::string& path) {
  analyzers_.accummulateProcessedFilesCount(1, path);
  if (delegate_) delegate_->analyzerCompressorDidProcessFile(this, path);
}

void KRPathAnalyzer::notifyDidFinishCompressing() {
  if (delegate_) delegate_->analyzerCompressorDidFinishCompressingPath(this, path_, recursive_);
}

// --- The walk (analysis thread) ---

class KRPathAnalyzer::Walk : public WalkVisitor {
 public:
  explicit Walk(KRPathAnalyzer& analyzer) : analyzer_(analyzer) {}
  void visit(const WalkEntry& entry, WalkSkip skip) override {
    // The engine's temporaries beside a file in conversion are never candidates.
    if (skip == WalkSkip::kEngineTemporary) return;
    if (analyzer_.checkEntry(entry) == 1) analyzer_.collect(std::string(entry.path));
  }
  bool shouldEnter(const WalkEntry& entry) override { return analyzer_.checkEntry(entry) == 0; }
  void walkError(std::string_view, int, const char*, bool) override {}  // unreadable: skipped

 private:
  KRPathAnalyzer& analyzer_;
};

void KRPathAnalyzer::analyzePath() {
  Clock& clock = analyzers_.mainLoop_.clock();
  {
    std::lock_guard lock(start_date_mutex_);
    analysis_start_date_ = clock.wallNow();
  }
  {
    std::lock_guard lock(files_mutex_);
    files_to_compress_.clear();
  }
  // A folder must have been quiet for a while before it is walked.
  for (;;) {
    const double t = secondsSinceChangeOf(path_);
    if (t >= kFolderSettle) break;
    if (isCancelled()) return;
    if (t == -1.0) break;
    clock.sleepFor(seconds(std::round(kFolderSettle + 0.5 - std::max(t, 0.0))));
  }
  walked_.store(true);
  KRLogInfo("Analysing %s%s", path_.c_str(), recursive_ ? " and its subfolders" : "");
  // Through the Env, like the walk: beneath a view, the stored tree's volume.
  struct stat st;
  if (env_.lstat(watched_path_, &st) == 0) {
    watched_device_ = st.st_dev;
    watched_device_known_ = true;
  }
  if (env_.lstat(path_, &st) != 0) return;
  // The walk names entries by the root and their names and never follows a
  // link: beneath a root that is its own real path, every name it gives is
  // one too, and need not be resolved file by file.
  root_is_real_path_.store(env_.realPath(path_) == path_);
  // The walk visits a file argument itself; a folder is checked first.
  if (S_ISDIR(st.st_mode) && checkDirectory({path_, AT_FDCWD, path_.c_str(), &st, true}) != 0) return;
  Walk walk(*this);
  TreeWalker(env_, WalkOptions{.recursive = true, .cross_volumes = true}, &cancelled_).walk(path_, walk);
}

double KRPathAnalyzer::secondsSinceChangeOf(const std::string& path) {
  struct stat st;
  if (env_.lstat(path, &st) != 0) return -1.0;
  return KRUtil::timeIntervalSinceTime(analyzers_.mainLoop_.clock(), S_ISDIR(st.st_mode) ? st.st_mtime : st.st_ctime);
}

int KRPathAnalyzer::checkEntry(const WalkEntry& entry) {
  return S_ISDIR(entry.st->st_mode) ? checkDirectory(entry) : checkFile(entry);
}

void KRPathAnalyzer::waitForRoomInTheQueue() {
  if (remainingFilesToCompress() < kHandOverAt) return;
  addFilesToCompress();
  std::unique_lock lock(mutex_waiting_for_compression_);
  cond_compressed_file_.wait(lock, [this] { return isCancelled() || remainingFilesToCompress() <= kResumeAtMost; });
}

int KRPathAnalyzer::checkFile(const WalkEntry& walked) {
  if (isCancelled()) return 0;
  files_examined_.fetch_add(1);
  waitForRoomInTheQueue();
  struct stat st = *walked.st;
  WalkEntry entry = walked;
  entry.st = &st;
  if (S_ISREG(st.st_mode)) {
    // A file must have been left alone for a while before it is judged.
    for (;;) {
      const double t = KRUtil::timeIntervalSinceTime(analyzers_.mainLoop_.clock(), st.st_ctim.tv_sec);
      if (t >= kFileSettle) break;
      analyzers_.mainLoop_.clock().sleepFor(seconds(std::round(kFileSettle + 0.5 - std::max(t, 0.0))));
      if (env_.fstatAt(entry.dir_fd, entry.name, &st, AT_SYMLINK_NOFOLLOW) != 0) return 0;
    }
  }
  // Not a candidate whatever its attributes say; the shared test would look at
  // them only to name the reason, which costs a compressed tree's re-check a
  // second system call per file.
  if (S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) < kMinimumCompressSize) return 0;
  const std::string path(entry.path);
  Error error;
  // Type, size, flag and attributes, the marker, owner, links, execute bits
  // and writability: the command's test, so that the two never disagree.
  if (checkCompressCandidate(env_, entry, /*may_change=*/true, &error) != CandidateRejection::kNone) return 0;
  if (auto signature = KRExtendedAttributesHelper::compressionSignatureAtPath(env_, path)) {
    // Rewritten since we compressed it: not again too soon.
    const double age = signature->age(analyzers_.mainLoop_.clock());
    if (age < kRecentSignature) return 0;
    if (signature->uncompressedSize() == static_cast<uint64_t>(st.st_size) && age <= kUnchangedSignature) return 0;
  }
  // The primary group is not always among the supplementary ones on Linux.
  if (st.st_gid != getegid() && !KRUtil::processGroupsInclude(st.st_gid)) return 0;
  if (analyzers_.links_.isFileInProcess && analyzers_.links_.isFileInProcess(path)) return 0;
  if (excludedByRules(path) || excludedByUser(path)) return 0;
  const size_t slash = path.rfind('/');
  if (path.compare(slash == std::string::npos ? 0 : slash + 1, 2, "._") == 0) return 0;
  return 1;
}

int KRPathAnalyzer::checkDirectory(const WalkEntry& entry) {
  if (isCancelled()) return 2;
  const std::string path(entry.path);
  if (!recursive_ && path != path_) return 2;
  if (KRExtendedAttributesHelper::isAttributeSetAt(env_, kXcodeGenerated, path)) return 2;
  if (excludedByRules(path) || excludedByUser(path)) return 2;
  // Every directory under the analyzer's path lies in its watched folder.
  if (!watched_device_known_ || entry.st->st_dev != watched_device_) return 2;
  if (!isHFSPlusVolume(entry.st->st_dev, path)) {
    if (path == path_) volume_refused_.store(true);
    return 2;
  }
  return 0;
}

bool KRPathAnalyzer::isHFSPlusVolume(dev_t device, const std::string& path) {
  auto it = hfs_volumes_.find(device);
  if (it != hfs_volumes_.end()) return it->second;
  const bool hfs = QVVolume::isHFSPlusFileSystemForPath(env_, path);
  hfs_volumes_[device] = hfs;
  return hfs;
}

void KRPathAnalyzer::collect(const std::string& path) {
  std::optional<std::string> resolved = root_is_real_path_.load() ? std::optional<std::string>(path) : env_.realPath(path);
  if (!resolved) return;  // gone or unreachable: skipped
  files_found_.fetch_add(1);
  std::lock_guard lock(files_mutex_);
  files_to_compress_.push_back(std::move(*resolved));
}

void KRPathAnalyzer::addFilesToCompress() {
  if (isCancelled()) return;
  std::vector<std::string> copy;
  {
    std::lock_guard lock(files_mutex_);
    copy = files_to_compress_;
  }
  const auto& add = analyzers_.links_.addFilesToCompress;
  const size_t accepted = add ? add(copy) : 0;
  total_files_to_compress_ += accepted;
  // This may run on the analysis thread: the folder found at creation is used
  // rather than asking the watcher, which lives on the main thread.
  analyzers_.accummulateSeenFilesCountOfFolder(static_cast<int32_t>(accepted), watched_path_);
}

}  // namespace zephlore
