// The processes of this machine as the kernel lists them: which there are,
// whose they are, what each runs and when it started.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/env.h"

namespace zephlore {

// The ids of the running processes this process may see.
std::vector<pid_t> listProcesses(Env& env);

// The user a process runs as; none when it is gone.
std::optional<uid_t> processOwner(Env& env, pid_t pid);

// The executable a process runs; none (errno set) when it cannot be told. An
// executable replaced on disk since (an upgrade) is named by its path.
std::optional<std::string> processExecutable(Env& env, pid_t pid);
// The same for this process.
std::optional<std::string> ownExecutable(Env& env);

// When a process started, in clock ticks since boot; 0 when it cannot be told.
unsigned long long processStartTicks(Env& env, pid_t pid);

}  // namespace zephlore
