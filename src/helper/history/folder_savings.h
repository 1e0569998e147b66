// What a watched folder saves, measured from its files as they are now:
// the sum of what each compressed file saves. The helper records this after
// every full sweep, so savings of files deleted, overwritten or expanded
// since do not stay counted, and a file compressed twice counts once.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/env.h"

namespace zephlore {

// Walks `folder` on its own volume, through `env` (beneath a view); none when `stop` became true or the
// folder cannot be read.
std::optional<uint64_t> measureFolderSavings(Env& env, const std::string& folder, const std::atomic<bool>* stop = nullptr);

}  // namespace zephlore
