#include "platform/own_rewrites.h"

namespace zephlore {

void OwnRewrites::begin(const std::string& path) {
  std::lock_guard lock(mutex_);
  State& s = paths_[path];
  ++s.active;
  s.ended = 0;
}

void OwnRewrites::end(const std::string& path) {
  std::lock_guard lock(mutex_);
  auto it = paths_.find(path);
  if (it == paths_.end()) return;
  if (--it->second.active <= 0) {
    it->second.active = 0;
    it->second.ended = sequence_++;
  }
}

bool OwnRewrites::covers(const std::string& directory, const std::string& name) const {
  std::lock_guard lock(mutex_);
  if (paths_.empty()) return false;
  std::string full = directory;
  if (full.empty() || full.back() != '/') full += '/';
  full += name;
  if (paths_.count(full)) return true;
  if (name.rfind(".zephlore-", 0) != 0) return false;
  const std::string prefix = directory + "/";
  auto it = paths_.lower_bound(prefix);
  return it != paths_.end() && it->first.compare(0, prefix.size(), prefix) == 0;
}

uint64_t OwnRewrites::passBegins() {
  std::lock_guard lock(mutex_);
  return sequence_++;
}

void OwnRewrites::forgetEndedBefore(uint64_t pass) {
  std::lock_guard lock(mutex_);
  for (auto it = paths_.begin(); it != paths_.end();) {
    if (it->second.active == 0 && it->second.ended < pass) {
      it = paths_.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace zephlore
