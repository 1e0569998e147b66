// Test support: runs the built zephlore command as a child process, feeding
// nothing to its input and collecting its output and exit status.
#pragma once

#include <string>
#include <vector>

#include "testing/child.h"

namespace zephlore::testkit {

inline std::string zephloreBinary() { return ZEPHLORE_BINARY_DIR "/bin/zephlore"; }

// `args` after the program's own path.
inline std::vector<std::string> zephloreCommand(std::vector<std::string> args) {
  args.insert(args.begin(), zephloreBinary());
  return args;
}

inline ProcessResult runZephlore(const std::vector<std::string>& args) {
  return runProcess(zephloreCommand(args));
}

}  // namespace zephlore::testkit
