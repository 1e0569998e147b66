// What every converting run of the command does so that a kill anywhere
// leaves nothing behind for good: it repairs the records of runs that are
// gone, keeps a record of its own for the file inside its swap, and settles
// the engine's leftovers in each folder before it converts there.
#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "base/data_folder.h"
#include "engine/process_records.h"

namespace zephlore::cli {

class ConversionSafety {
 public:
  // Without a data folder the run goes on unrecorded (a line says so).
  ConversionSafety(Env& env, const FoundDataFolder& dataFolder);
  ConversionSafety(const ConversionSafety&) = delete;
  ConversionSafety& operator=(const ConversionSafety&) = delete;

  // None when there is no data folder.
  ProcessInProcessRecord* record() { return record_.get(); }
  // Settles the leftovers of stopped runs in the folder of `path`, once per
  // folder and run. Safe from any thread.
  void cleanFolderOf(const std::string& path);

 private:
  Env& env_;
  std::unique_ptr<ProcessInProcessRecord> record_;
  std::mutex mutex_;
  std::set<std::string> cleaned_;
};

}  // namespace zephlore::cli
