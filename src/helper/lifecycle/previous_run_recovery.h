// The start-up repair of the file that the previous run was rewriting when it
// ended (crash, kill, power cut), from the in-process record.
#pragma once

#include <string>

namespace zephlore {

class Env;
class KRFileInProcessWatchdog;

// Keeps a finished conversion or expands a half-made one back into a plain
// file, logs the outcome, and clears the record either way: no second try.
// The records other runs (the command) left in the data folder when they
// were killed in `dataFolder` are repaired and removed as well.
void checkIntegrityOfPreviousRun(Env& env, KRFileInProcessWatchdog& watchdog, const std::string& dataFolder);

}  // namespace zephlore
