// An environment variable set (or removed) for one scope and put back at its
// end, so that tests sharing a process do not see each other's settings.
#pragma once

#include <optional>
#include <string>

namespace zephlore::testkit {

class ScopedEnvVar {
 public:
  // nullopt removes the variable for the scope.
  ScopedEnvVar(std::string name, const std::optional<std::string>& value);
  ~ScopedEnvVar();
  ScopedEnvVar(const ScopedEnvVar&) = delete;
  ScopedEnvVar& operator=(const ScopedEnvVar&) = delete;

 private:
  std::string name_;
  std::optional<std::string> previous_;
};

}  // namespace zephlore::testkit
