// The user's configuration folder, where the helper's own settings and the
// desktop's autostart entries live.
#pragma once

#include <string>

namespace zephlore {

// $XDG_CONFIG_HOME when it is an absolute path, else $HOME/.config, else the
// user database's home + "/.config".
std::string configHome();

// Creates `path` and its missing parents with mode 0700. False when it is
// not a folder afterwards.
bool makeFolders(const std::string& path);

}  // namespace zephlore
