// Whether a folder's volume can hold the compressed form, in words: what the
// folders page and the folder commands say about a folder where nothing can
// be compressed.
#pragma once

#include <optional>
#include <string>

#include "platform/env.h"

namespace zephlore::pane {

// Why the volume of `folder` cannot hold the compressed form ("the file
// system accepts at most 4016 bytes of attributes per file (ext4 without
// ea_inode)"); none when it can, or when the folder cannot be examined.
// A folder covered by a view is examined beneath it.
std::optional<std::string> volumeCannotHoldReason(Env& env, const std::string& folder);

}  // namespace zephlore::pane
