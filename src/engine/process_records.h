// In-process records of runs other than the helper's.
//
// The helper keeps one record, "inprocess.kr". Every other run that converts
// files (the zephlore command, for one) keeps its own beside it,
// "inprocess-<pid>.kr", in the same format and under the same kind of lock,
// and removes it when it ends. A record whose lock nobody holds belongs to a
// run that is gone: any later run repairs its file and removes it.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "engine/in_process_record.h"

namespace zephlore {

class ProcessInProcessRecord {
 public:
  // Creates this process's record in `dataFolder`. A record left under the
  // same name (a process of the same id that is gone) is repaired first.
  ProcessInProcessRecord(Env& env, const std::string& dataFolder);
  ~ProcessInProcessRecord();  // removes the record
  ProcessInProcessRecord(const ProcessInProcessRecord&) = delete;
  ProcessInProcessRecord& operator=(const ProcessInProcessRecord&) = delete;

  // Brackets one file's critical section. Sections of several threads are
  // taken one after the other: the record holds one file.
  void willProcessFile(const std::string& path);
  void didProcessFile();

  const std::string& filename() const { return record_->filename(); }

  // The record's name for process `pid`.
  static std::string filenameFor(const std::string& dataFolder, long pid);
  // Repairs the file of every record in `dataFolder` that no live process
  // holds, and removes those records. Returns how many were repaired.
  static int repairRecordsOfGoneProcesses(Env& env, const std::string& dataFolder);
  // Repairs the file one gone run recorded; logs how it went.
  static bool repair(Env& env, const InProcessRecord& record);

 private:
  Env& env_;
  std::unique_ptr<InProcessRecordFile> record_;
  std::mutex criticalSection_;
};

}  // namespace zephlore
