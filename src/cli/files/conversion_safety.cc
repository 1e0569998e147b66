#include "cli/files/conversion_safety.h"

#include "base/log.h"
#include "base/util.h"
#include "engine/engine_temporaries.h"
#include "platform/env.h"

namespace zephlore::cli {

ConversionSafety::ConversionSafety(Env& env) : env_(env) {
  Error error;
  std::optional<std::string> folder = KRUtil::applicationSupportFolder(&error);
  if (!folder) {
    KRLog("No data folder for the in-process record (%s): a kill during a swap is repaired by the next run in "
          "that folder only",
          error.message.c_str());
    return;
  }
  ProcessInProcessRecord::repairRecordsOfGoneProcesses(env, *folder);
  record_ = std::make_unique<ProcessInProcessRecord>(env, *folder);
}

void ConversionSafety::cleanFolderOf(const std::string& path) {
  const std::string dir = parentDirectory(path);
  std::lock_guard lock(mutex_);
  if (!cleaned_.insert(dir).second) return;
  EngineTemporaries::cleanFolder(env_, dir);
}

}  // namespace zephlore::cli
