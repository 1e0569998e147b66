#include "testing/scoped_env.h"

#include <cstdlib>

namespace zephlore::testkit {

namespace {
void setOrUnset(const std::string& name, const std::optional<std::string>& value) {
  if (value) {
    setenv(name.c_str(), value->c_str(), 1);
  } else {
    unsetenv(name.c_str());
  }
}
}  // namespace

ScopedEnvVar::ScopedEnvVar(std::string name, const std::optional<std::string>& value)
    : name_(std::move(name)) {
  if (const char* old = getenv(name_.c_str())) previous_ = old;
  setOrUnset(name_, value);
}

ScopedEnvVar::~ScopedEnvVar() { setOrUnset(name_, previous_); }

}  // namespace zephlore::testkit
