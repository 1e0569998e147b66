// The process-local notification center: named notifications with an
// optional sender object and user info, delivered synchronously on the
// posting thread to every matching observer ("analysisStarted",
// "compressionEnded", "KRFileCompressedNotification", ...). The helper's
// one is owned by its Helper and handed to each part that posts or listens.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

#include "base/error.h"

namespace zephlore {

// An Error travels whole (the compressor's per-file outcome), in this process only.
using UserInfoValue = std::variant<std::string, int64_t, std::vector<std::string>, Error>;
using UserInfo = std::map<std::string, UserInfoValue>;

// Typed look-ups that answer nullptr when the key is missing or mistyped.
const std::string* userInfoString(const UserInfo& info, const std::string& key);
const int64_t* userInfoNumber(const UserInfo& info, const std::string& key);
const std::vector<std::string>* userInfoStrings(const UserInfo& info, const std::string& key);
const Error* userInfoError(const UserInfo& info, const std::string& key);

struct Notification {
  std::string name;
  const void* object = nullptr;
  UserInfo userInfo;
};

class NotificationCenter {
 public:
  using ObserverId = uint64_t;
  using Handler = std::function<void(const Notification&)>;

  NotificationCenter() = default;
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // Observes `name` (empty: every name) from `object` (nullptr: any sender).
  ObserverId addObserver(std::string name, const void* object, Handler handler);
  void removeObserver(ObserverId id);

  // Delivers to the observers registered when the post begins and still
  // registered when their turn comes; handlers may add or remove observers
  // meanwhile. Removal does not wait for a delivery already running on
  // another thread: an observer that outlives its owner must not assume so.
  void post(const std::string& name, const void* object = nullptr, UserInfo userInfo = {});

 private:
  bool isRegistered(ObserverId id);

  struct Observer {
    ObserverId id;
    std::string name;
    const void* object;
    Handler handler;
  };
  std::mutex mutex_;
  std::vector<Observer> observers_;
  ObserverId next_id_ = 1;
};

}  // namespace zephlore
