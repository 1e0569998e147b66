// HFSCompression: the compressed flag of a file (UF_COMPRESSED in its flags
// word) and whether it carries the compression header.
#pragma once

#include <string>

#include "platform/env.h"

namespace zephlore {

class HFSCompression {
 public:
  HFSCompression() = delete;

  // The flag is set; false when the file cannot be read. A final symbolic
  // link is not followed.
  static bool isFileUFCompressed(Env& env, const std::string& path);
  static bool isFileUFCompressed(Env& env, int fd);

  // Sets or clears the flag, keeping the word's other bits; asking for the
  // state the file already has changes nothing. True when the file now has
  // the state asked for. A failure to set it is logged.
  static bool setFileAsUFCompressed(Env& env, const std::string& path, bool compressed);
  static bool setFileAsUFCompressed(Env& env, int fd, bool compressed);

  // The file (following links) has "com.apple.decmpfs".
  static bool hasCompressedAttributes(Env& env, const std::string& path);
};

}  // namespace zephlore
