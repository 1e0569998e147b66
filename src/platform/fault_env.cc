#include "platform/fault_env.h"

#include <unistd.h>

#include <climits>
#include <type_traits>

namespace zephlore {
namespace {

// The name a descriptor was opened under, for matching faults by file.
std::string descriptorPath(int fd) {
  char buf[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  ssize_t n = ::readlink(link.c_str(), buf, sizeof buf);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

// What a failed call returns: -1, or nothing for the operations that return
// an optional value.
template <typename T>
T failed() {
  if constexpr (std::is_same_v<T, bool>) {
    return false;  // a lease that cannot be asked about is not held
  } else if constexpr (std::is_integral_v<T>) {
    return T(-1);
  } else {
    return std::nullopt;
  }
}

}  // namespace

void FaultInjectingEnv::inject(Fault fault) {
  std::lock_guard lock(mutex_);
  faults_.push_back(Armed{std::move(fault), 0});
}

void FaultInjectingEnv::beforeCall(const std::string& op, std::function<void(const std::string&)> hook) {
  std::lock_guard lock(mutex_);
  hooks_[op] = std::move(hook);
}

void FaultInjectingEnv::clear() {
  std::lock_guard lock(mutex_);
  faults_.clear();
  hooks_.clear();
  calls_.clear();
  fired_ = 0;
}

int FaultInjectingEnv::calls(const std::string& op) const {
  std::lock_guard lock(mutex_);
  auto it = calls_.find(op);
  return it == calls_.end() ? 0 : it->second;
}

int FaultInjectingEnv::fired() const {
  std::lock_guard lock(mutex_);
  return fired_;
}

FaultInjectingEnv::Outcome FaultInjectingEnv::decide(const char* op,
                                                     std::vector<std::string> subjects, int fd) {
  std::function<void(const std::string&)> hook;
  {
    std::lock_guard lock(mutex_);
    auto it = hooks_.find(op);
    if (it != hooks_.end()) hook = it->second;
  }
  if (hook) hook(subjects.empty() ? std::string() : subjects.front());
  std::lock_guard lock(mutex_);
  ++calls_[op];
  bool fdResolved = false;
  for (Armed& armed : faults_) {
    const Fault& fault = armed.fault;
    if (fault.op != op) continue;
    if (!fault.match.empty()) {
      if (fd >= 0 && !fdResolved) {
        subjects.push_back(descriptorPath(fd));
        fdResolved = true;
      }
      bool matched = false;
      for (const std::string& subject : subjects) {
        matched = matched || subject.find(fault.match) != std::string::npos;
      }
      if (!matched) continue;
    }
    ++armed.seen;
    const bool due = armed.seen >= fault.nth &&
                     (fault.times == 0 || armed.seen < fault.nth + fault.times);
    if (!due) continue;
    ++fired_;
    if (fault.shortTransfer) return Outcome::kShort;
    errno = fault.error;
    return Outcome::kFail;
  }
  return Outcome::kPass;
}

#define ZEPHLORE_FAULT_OR(outcome, failure) \
  if ((outcome) == Outcome::kFail) return failure

int FaultInjectingEnv::close(int fd) {
  // The descriptor is closed even when the close is made to report failure,
  // as the system does.
  Outcome outcome = decide("close", {}, fd);
  int saved = errno;
  int rc = EnvWrapper::close(fd);
  if (outcome == Outcome::kFail) {
    errno = saved;
    return -1;
  }
  return rc;
}

ssize_t FaultInjectingEnv::pread(int fd, void* buf, size_t n, uint64_t offset) {
  Outcome outcome = decide("pread", {}, fd);
  ZEPHLORE_FAULT_OR(outcome, -1);
  if (outcome == Outcome::kShort && n > 1) n /= 2;
  return EnvWrapper::pread(fd, buf, n, offset);
}

ssize_t FaultInjectingEnv::pwrite(int fd, const void* buf, size_t n, uint64_t offset) {
  Outcome outcome = decide("pwrite", {}, fd);
  ZEPHLORE_FAULT_OR(outcome, -1);
  if (outcome == Outcome::kShort) n /= 2;  // 0 for one byte: the writer must notice
  return EnvWrapper::pwrite(fd, buf, n, offset);
}

// Every other operation fails as a whole when a fault fires.
#define ZEPHLORE_ENV_FAULTY_custom(result, name, params, args, subjects)
#define ZEPHLORE_ENV_FAULTY_plain(result, name, params, args, subjects)  \
  result FaultInjectingEnv::name params {                                 \
    ZEPHLORE_FAULT_OR(decide(#name, ZEPHLORE_ENV_UNPACK subjects), failed<result>()); \
    return EnvWrapper::name args;                                         \
  }
#define ZEPHLORE_ENV_FAULTY(result, name, params, args, subjects, kind) \
  ZEPHLORE_ENV_FAULTY_##kind(result, name, params, args, subjects)
ZEPHLORE_ENV_OPERATIONS(ZEPHLORE_ENV_FAULTY)
#undef ZEPHLORE_ENV_FAULTY
#undef ZEPHLORE_ENV_FAULTY_plain
#undef ZEPHLORE_ENV_FAULTY_custom

#undef ZEPHLORE_FAULT_OR

}  // namespace zephlore
