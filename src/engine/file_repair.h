// Repairs a file that no run can settle on its own: one written after it was
// compressed (its new data in the data fork, the compressed version still in
// its attributes), or one whose conversion was cut short.
#pragma once

#include <string>

#include "base/error.h"
#include "platform/env.h"

namespace zephlore {

class QVFileRepair {
 public:
  enum class Outcome {
    kWhole,     // plain or compressed: nothing to repair
    kRepaired,  // now a plain file
    kFailed,    // left as it was; the error says why
  };

  // The name beside `path` that takes the compressed version of a file
  // written after compression.
  static std::string recoveredPathFor(const std::string& path);

  // Written after compression: the new data stays at the name (the file
  // becomes plain), and the compressed version is expanded beside it at
  // recoveredPathFor(path), never over anything. Cut short (fork and header
  // without the flag): expanded in place. Damaged: refused.
  static Outcome repairFile(Env& env, const std::string& path, Error* error, std::string* what = nullptr);
};

}  // namespace zephlore
