#include "cli/control/status_folders.h"

#include "cli/control/volume_advice.h"
#include "helper/history/history_database.h"
#include "helper/history/history_store.h"

namespace zephlore::cli {

// Read-only, as `folders` reads it: the helper may be writing at the same time.
std::optional<std::vector<StatusFolder>> watchedFoldersForStatus(Env& env, std::string* problem) {
  const std::string path = KRHelperUtil::databasePath();
  std::vector<HistoryRecord> records;
  Error error;
  if (path.empty() || !HistoryStore::readRecords(env, path, &records, &error)) {
    if (problem) *problem = path.empty() ? "no data folder" : error.message;
    return std::nullopt;
  }
  std::vector<StatusFolder> folders;
  for (const HistoryRecord& record : records) {
    if (record.enabled) folders.push_back({record.folder, record.savings, volumeCannotHoldReason(env, record.folder)});
  }
  return folders;
}

}  // namespace zephlore::cli
