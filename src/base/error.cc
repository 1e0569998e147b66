#include "base/error.h"

namespace zephlore {

std::string Error::describe() const {
  return message + " (" + domain + " " + std::to_string(code) + ")";
}

bool fail(Error* error, const char* domain, int code, std::string message) {
  if (error) {
    error->domain = domain;
    error->code = code;
    error->message = std::move(message);
  }
  return false;
}

}  // namespace zephlore
