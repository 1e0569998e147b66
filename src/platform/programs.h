// Finding a sibling program and starting it without waiting for it: the
// tray's "Open Zephlore" and `zephlore preferences` start the window so.
#pragma once

#include <string>
#include <vector>

namespace zephlore {

// The running program's executable; "" when it cannot be told. One replaced
// on disk since (an upgrade) is named by its path, which now holds the new one.
std::string thisProgramPath();

// The folder of the running program (a build folder, an installation's
// bin), where its sibling programs are; "" when it cannot be told.
std::string thisProgramFolder();

// `name` in `folder` when it is there and may be run, else the first on
// PATH; "" when there is none.
std::string findProgram(const std::string& folder, const std::string& name);

// The first `folder/name` of `folders` this process may read; "" when none.
std::string findReadableFile(const std::vector<std::string>& folders, const std::string& name);

// Runs `argv` (argv[0] a path) in a session of its own with its standard
// input and output on /dev/null (it outlives the caller's terminal), and
// returns once it runs, without waiting for it to end (no
// child is left to reap). False with *problem saying why when it could not
// be started.
bool startProgram(const std::vector<std::string>& argv, std::string* problem);

}  // namespace zephlore
