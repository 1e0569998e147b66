// Finding the processes that use a file by walking /proc: the real
// implementation behind Env::fileUsers().
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/env.h"

namespace zephlore {

std::optional<std::vector<FileUser>> scanProcForFileUsers(dev_t device, ino_t inode);

// The open flags in the text of /proc/<pid>/fdinfo/<fd> (the octal "flags:"
// line); none when the text has no such line.
std::optional<uint32_t> parseFdInfoFlags(const std::string& text);

}  // namespace zephlore
