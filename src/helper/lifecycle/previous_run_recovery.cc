#include "helper/lifecycle/previous_run_recovery.h"

#include "base/log.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/process_records.h"
#include "helper/lifecycle/file_in_process_watchdog.h"

namespace zephlore {

void checkIntegrityOfPreviousRun(Env& env, KRFileInProcessWatchdog& watchdog, const std::string& dataFolder) {
  // Runs of the command (or another helper's) that ended in a swap.
  ProcessInProcessRecord::repairRecordsOfGoneProcesses(env, dataFolder);
  if (!watchdog.hasInProcessFileFromPreviousSession()) return;
  const std::string path = watchdog.inProcessFileFromPreviousSession().value_or("");
  const int64_t expected = watchdog.expectedSizeOfInProcessFile();
  if (QVHFSCompressedFileRepresentation::recoverInProcessFileAtPath(env, path, static_cast<uint64_t>(expected))) {
    KRLog("Successfully finished pending compression of previous run for file %s", path.c_str());
  } else {
    KRLog("Could not recover previous file %s with expected size %lld", path.c_str(),
          static_cast<long long>(expected));
  }
  watchdog.reset();
}

}  // namespace zephlore
