// An Env that forwards every operation to another one; a subclass overrides
// only what it changes (the pattern of leveldb's EnvWrapper).
#pragma once

#include "platform/env.h"
#include "platform/env_operations.h"

namespace zephlore {

class EnvWrapper : public Env {
 public:
  // `target` must outlive this.
  explicit EnvWrapper(Env& target) : target_(target) {}
  Env& target() const { return target_; }

#define ZEPHLORE_ENV_FORWARD(result, name, params, args, ...) \
  result name params override { return target_.name args; }
  ZEPHLORE_ENV_OPERATIONS(ZEPHLORE_ENV_FORWARD)
#undef ZEPHLORE_ENV_FORWARD

 private:
  Env& target_;
};

}  // namespace zephlore
