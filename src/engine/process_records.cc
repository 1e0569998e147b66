#include "engine/process_records.h"

#include <fcntl.h>
#include <unistd.h>

#include <optional>
#include <vector>

#include "base/log.h"
#include "engine/hfs_compressed_file_representation.h"
#include "platform/config_file.h"
#include "platform/env.h"

namespace zephlore {
namespace {

constexpr std::string_view kRecordPrefix = "inprocess-";
constexpr std::string_view kRecordSuffix = ".kr";

bool isProcessRecordName(std::string_view name) {
  if (name.size() <= kRecordPrefix.size() + kRecordSuffix.size()) return false;
  if (name.substr(0, kRecordPrefix.size()) != kRecordPrefix) return false;
  if (name.substr(name.size() - kRecordSuffix.size()) != kRecordSuffix) return false;
  const std::string_view pid = name.substr(kRecordPrefix.size(), name.size() - kRecordPrefix.size() - kRecordSuffix.size());
  return pid.find_first_not_of("0123456789") == std::string_view::npos;
}

}  // namespace

std::string ProcessInProcessRecord::filenameFor(const std::string& dataFolder, long pid) {
  return dataFolder + "/" + std::string(kRecordPrefix) + std::to_string(pid) + std::string(kRecordSuffix);
}

bool ProcessInProcessRecord::repair(Env& env, const InProcessRecord& record) {
  if (!record.path || record.path->empty()) return true;
  const uint64_t size = static_cast<uint64_t>(record.expectedSize < 0 ? 0 : record.expectedSize);
  if (QVHFSCompressedFileRepresentation::recoverInProcessFileAtPath(env, *record.path, size)) {
    KRLog("Successfully finished pending compression of previous run for file %s", record.path->c_str());
    return true;
  }
  KRLog("Could not recover previous file %s with expected size %lld", record.path->c_str(),
        static_cast<long long>(record.expectedSize));
  return false;
}

ProcessInProcessRecord::ProcessInProcessRecord(Env& env, const std::string& dataFolder)
    : env_(env),
      record_(std::make_unique<InProcessRecordFile>(filenameFor(dataFolder, static_cast<long>(getpid())), env)) {
  if (record_->isOpen() && record_->previous().path) {
    repair(env, record_->previous());
    record_->reset();
  }
}

ProcessInProcessRecord::~ProcessInProcessRecord() {
  // Unlinked while still locked: no other run can take it over meanwhile.
  if (record_->isOpen()) env_.unlink(record_->filename());
}

void ProcessInProcessRecord::willProcessFile(const std::string& path) {
  criticalSection_.lock();
  record_->willProcessFile(path);
}

void ProcessInProcessRecord::didProcessFile() {
  record_->reset();
  criticalSection_.unlock();
}

int ProcessInProcessRecord::repairRecordsOfGoneProcesses(Env& env, const std::string& dataFolder) {
  std::optional<std::vector<std::string>> names = env.listDirectory(dataFolder);
  if (!names) return 0;
  int repaired = 0;
  for (const std::string& name : *names) {
    if (!isProcessRecordName(name)) continue;
    const std::string filename = dataFolder + "/" + name;
    // Somebody else's FIFO, socket or folder under a record's name: not a
    // record, and not ours to remove.
    std::string refusal;
    std::optional<std::string> target = configWriteTarget(env, filename, &refusal);
    if (!target) {
      KRLog("Left %s alone: it is %s", filename.c_str(), refusal.c_str());
      continue;
    }
    // Held by a live run (our own included): not ours to repair.
    UniqueFd fd(env.openLocked(*target, O_RDWR | O_NONBLOCK));
    if (!fd) continue;
    struct stat st{};
    if (env.fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
      KRLog("Left %s alone: it is %s, not a regular file", filename.c_str(), fileTypePhrase(st.st_mode).c_str());
      continue;
    }
    std::string text(8192, '\0');
    ssize_t n = env.preadFully(fd.get(), text.data(), text.size(), 0);
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    InProcessRecord record = InProcessRecordFile::parse(text);
    if (record.path) {
      repair(env, record);
      ++repaired;
    }
    // Removed while locked, so that no run takes over a record being settled.
    env.unlink(filename);
  }
  return repaired;
}

}  // namespace zephlore
