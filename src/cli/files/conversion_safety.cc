#include "cli/files/conversion_safety.h"

#include "base/log.h"
#include "engine/engine_temporaries.h"
#include "platform/env.h"

namespace zephlore::cli {

ConversionSafety::ConversionSafety(Env& env, const FoundDataFolder& dataFolder) : env_(env) {
  if (dataFolder.path.empty()) {
    KRLog("No data folder for the in-process record (%s): a kill during a swap is repaired by the next run in "
          "that folder only",
          dataFolder.whyNone.c_str());
    return;
  }
  ProcessInProcessRecord::repairRecordsOfGoneProcesses(env, dataFolder.path);
  record_ = std::make_unique<ProcessInProcessRecord>(env, dataFolder.path);
}

void ConversionSafety::cleanFolderOf(const std::string& path) {
  const std::string dir = parentDirectory(path);
  std::lock_guard lock(mutex_);
  if (!cleaned_.insert(dir).second) return;
  EngineTemporaries::cleanFolder(env_, dir);
}

}  // namespace zephlore::cli
