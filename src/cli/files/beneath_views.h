// Commands that look at or repair the stored form of files (info, cat,
// repair) work on the files beneath any view covering them: through a view
// a compressed file looks plain and its layout is hidden.
#pragma once

#include <string>
#include <vector>

namespace zephlore::cli {

// Points the process at the stored files beneath the live views (a path map
// and an Env that applies it) and returns `paths` with those a view covers
// made absolute, the form the map knows; the others are returned as they
// are. Without a live view nothing changes. `command` names the caller in
// the note on standard error, which `quiet` leaves out.
// Says, once per view, when a path lies in a view whose process is gone
// (programs there get ENOTCONN, and the stored files cannot be reached
// until it is back), with the one command that puts it back. Whether any did.
bool reportDeadViews(const std::vector<std::string>& paths, const char* command);

std::vector<std::string> workBeneathViews(const std::vector<std::string>& paths, const char* command, bool quiet);

}  // namespace zephlore::cli
