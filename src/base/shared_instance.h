// The one instance of a class that the whole process shares (its shared*()
// accessor), made on first use and never destroyed, which a test can replace
// for a scope:
//
//   class KRThing {
//    public:
//     static KRThing& sharedThing() { return sharedInstance().get(); }
//     static SharedInstance<KRThing>& sharedInstance();  // defined in the .cc
//    private:
//     friend class ScopedShared<KRThing>;
//     KRThing();
//   };
//
//   // in a test: a fresh KRThing serves every sharedThing() call meanwhile
//   ScopedShared<KRThing> thing;
#pragma once

#include <atomic>
#include <mutex>
#include <utility>

namespace zephlore {

template <typename T>
class SharedInstance {
 public:
  using Factory = T* (*)();

  // `make` builds the process-wide instance on first use.
  explicit SharedInstance(Factory make) : make_(make) {}
  SharedInstance(const SharedInstance&) = delete;
  SharedInstance& operator=(const SharedInstance&) = delete;

  // The installed replacement, else the process-wide instance.
  T& get() {
    if (T* replaced = replacement_.load(std::memory_order_acquire)) return *replaced;
    std::call_once(made_, [this] { instance_ = make_(); });
    return *instance_;
  }

  // Installs `replacement` (nullptr: none) and returns the one before.
  T* replace(T* replacement) { return replacement_.exchange(replacement, std::memory_order_acq_rel); }

 private:
  Factory make_;
  std::once_flag made_;
  T* instance_ = nullptr;  // never destroyed: other threads may use it while the process exits
  std::atomic<T*> replacement_{nullptr};
};

// A fresh T, installed as the shared one while this lives; the one before
// comes back at the end. T names this class a friend when its constructor is
// private.
template <typename T>
class ScopedShared {
 public:
  template <typename... Args>
  explicit ScopedShared(Args&&... args)
      : instance_(std::forward<Args>(args)...),
        previous_(T::sharedInstance().replace(&instance_)) {}
  ~ScopedShared() { T::sharedInstance().replace(previous_); }
  ScopedShared(const ScopedShared&) = delete;
  ScopedShared& operator=(const ScopedShared&) = delete;

  T& operator*() { return instance_; }
  T* operator->() { return &instance_; }

 private:
  T instance_;
  T* previous_;
};

}  // namespace zephlore
