#include "base/notification_center.h"

#include <algorithm>

namespace zephlore {

namespace {
template <typename T>
const T* lookup(const UserInfo& info, const std::string& key) {
  auto it = info.find(key);
  return it == info.end() ? nullptr : std::get_if<T>(&it->second);
}
}  // namespace

const std::string* userInfoString(const UserInfo& info, const std::string& key) {
  return lookup<std::string>(info, key);
}
const int64_t* userInfoNumber(const UserInfo& info, const std::string& key) {
  return lookup<int64_t>(info, key);
}
const std::vector<std::string>* userInfoStrings(const UserInfo& info, const std::string& key) {
  return lookup<std::vector<std::string>>(info, key);
}
const Error* userInfoError(const UserInfo& info, const std::string& key) {
  return lookup<Error>(info, key);
}

NotificationCenter::ObserverId NotificationCenter::addObserver(std::string name, const void* object,
                                                               Handler handler) {
  std::lock_guard lock(mutex_);
  ObserverId id = next_id_++;
  observers_.push_back(Observer{id, std::move(name), object, std::move(handler)});
  return id;
}

void NotificationCenter::removeObserver(ObserverId id) {
  std::lock_guard lock(mutex_);
  std::erase_if(observers_, [id](const Observer& o) { return o.id == id; });
}

bool NotificationCenter::isRegistered(ObserverId id) {
  std::lock_guard lock(mutex_);
  return std::any_of(observers_.begin(), observers_.end(),
                     [id](const Observer& o) { return o.id == id; });
}

void NotificationCenter::post(const std::string& name, const void* object, UserInfo userInfo) {
  std::vector<std::pair<ObserverId, Handler>> matching;
  {
    std::lock_guard lock(mutex_);
    for (const Observer& o : observers_) {
      if ((o.name.empty() || o.name == name) && (!o.object || o.object == object)) {
        matching.emplace_back(o.id, o.handler);
      }
    }
  }
  Notification note{name, object, std::move(userInfo)};
  for (const auto& [id, handler] : matching) {
    // An observer removed by an earlier handler of this post (its owner may
    // be gone already) is not called.
    if (isRegistered(id)) handler(note);
  }
}

}  // namespace zephlore
