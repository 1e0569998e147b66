// FaultInjectingEnv: forwards every call to another Env and makes chosen
// calls fail, so that tests can walk every failure path of the engine.
//
//   FaultInjectingEnv env;
//   env.inject({.op = "setxattr", .error = ENOSPC, .nth = 2, .match = "decmpfs"});
//   AttributeFork::write(env, file, data, size, &error);  // fails at its second piece
//
// Operation names are the Env method names (kEnvOperationNames: "open",
// "openLocked", "pwrite", "exchange", "setxattr", "fileUsers", ...). A fault fires on the nth call of
// its operation counted from its injection, among the calls that match:
// `match`, when not empty, must occur in the call's path, attribute name or
// (for a descriptor) the name the descriptor was opened under.
#pragma once

#include <cerrno>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/env_wrapper.h"

namespace zephlore {

class FaultInjectingEnv final : public EnvWrapper {
 public:
  struct Fault {
    std::string op;
    int error = EIO;     // errno of the failing call
    int nth = 1;         // 1: the next matching call
    int times = 1;       // consecutive matching calls that fail; 0: all from the nth on
    std::string match;   // substring of path, attribute name or descriptor's file
    // pread/pwrite only: instead of failing, move half the bytes (at least
    // one fewer than asked), as a full disk or a signal can.
    bool shortTransfer = false;
  };

  // Wraps the real system unless told otherwise; `base` must outlive this.
  explicit FaultInjectingEnv(Env* base = &Env::system()) : EnvWrapper(*base) {}

  void inject(Fault fault);
  void failOn(const std::string& op, int error, int nth = 1) {
    inject(Fault{op, error, nth, 1, {}, false});
  }
  // Runs `hook` (with the call's first path, if any) just before every call
  // of `op` goes on: a test does its own work there, in the middle of the
  // engine's (another process opening the file just before a swap).
  void beforeCall(const std::string& op, std::function<void(const std::string& path)> hook);
  void clear();  // drops every fault, hook and count
  // Calls of `op` so far (all of them, matching or not), and faults fired.
  int calls(const std::string& op) const;
  int fired() const;

  // Env's default mode, for calls made on this type.
  int open(const std::string& path, int flags) { return open(path, flags, 0); }
  int openLocked(const std::string& path, int flags) { return openLocked(path, flags, 0); }

#define ZEPHLORE_ENV_FAULTY(result, name, params, ...) result name params override;
  ZEPHLORE_ENV_OPERATIONS(ZEPHLORE_ENV_FAULTY)
#undef ZEPHLORE_ENV_FAULTY

 private:
  struct Armed {
    Fault fault;
    int seen = 0;
  };
  enum class Outcome { kPass, kFail, kShort };

  // Counts the call and decides its fate; on kFail errno is already set.
  Outcome decide(const char* op, std::vector<std::string> subjects, int fd = -1);

  mutable std::mutex mutex_;
  std::vector<Armed> faults_;
  std::map<std::string, int> calls_;
  std::map<std::string, std::function<void(const std::string&)>> hooks_;
  int fired_ = 0;
};

}  // namespace zephlore
