// Test support: an Env that tells a hook which operation is about to run,
// then forwards it to the real system. The crash test stops a child at a
// chosen operation this way and kills it there.
#pragma once

#include <functional>
#include <utility>

#include "platform/env_wrapper.h"

namespace zephlore::testkit {

class HookedEnv final : public EnvWrapper {
 public:
  explicit HookedEnv(std::function<void(const char* op)> hook)
      : EnvWrapper(Env::system()), hook_(std::move(hook)) {}

#define ZEPHLORE_ENV_HOOKED(result, name, params, args, ...) \
  result name params override {                             \
    hook_(#name);                                           \
    return EnvWrapper::name args;                           \
  }
  ZEPHLORE_ENV_OPERATIONS(ZEPHLORE_ENV_HOOKED)
#undef ZEPHLORE_ENV_HOOKED

 private:
  std::function<void(const char*)> hook_;
};

}  // namespace zephlore::testkit
