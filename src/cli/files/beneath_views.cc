#include "cli/files/beneath_views.h"

#include <cstdio>
#include <map>
#include <optional>
#include <set>

#include "cli/files/display_name.h"
#include "platform/env.h"
#include "platform/path_map.h"
#include "platform/path_mapping_env.h"
#include "view/mount_table.h"
#include "view/underlying_tree.h"

namespace zephlore::cli {

bool reportDeadViews(const std::vector<std::string>& paths, const char* command) {
  std::set<std::string> told;
  for (const std::string& path : paths) {
    std::optional<view::ViewMountEntry> dead = view::deadViewCovering(path);
    if (!dead || !told.insert(dead->mountPoint).second) continue;
    fprintf(stderr, "zephlore %s: %s\n", command, escapeForTerminal(view::deadViewAdvice(*dead)).c_str());
  }
  return !told.empty();
}

WorkBeneathViews::WorkBeneathViews(Env& env, const std::vector<std::string>& paths, const char* command, bool quiet)
    : env_(env) {
  std::map<std::string, std::string> views = view::liveViews();
  if (views.empty()) {
    paths_ = paths;
    return;
  }
  map_.replaceAll(std::move(views));
  mapping_ = std::make_unique<PathMappingEnv>(env, map_);
  for (const std::string& path : paths) {
    const std::string absolute = view::absolutePath(path);
    if (map_.toAccess(absolute) == absolute) {
      paths_.push_back(path);
      continue;
    }
    paths_.push_back(absolute);
    if (!quiet) {
      fprintf(stderr, "zephlore %s: %s is covered by a view; looking at the files stored beneath it\n", command,
              escapeForTerminal(path).c_str());
    }
  }
}

}  // namespace zephlore::cli
