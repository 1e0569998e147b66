// `zephlore info -r --json` over a tree as the end-to-end tests read it: one
// object a line, the summary last.
#pragma once

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "cli/control/helper_process_test_support.h"

namespace zephlore::e2e {

struct TreeInfo {
  std::vector<nlohmann::json> files;  // with eachFile only
  nlohmann::json summary = nlohmann::json::object();  // empty when none came
};

inline TreeInfo treeInfo(const std::string& folder, bool eachFile = false) {
  std::vector<std::string> args = {"info", "-r", "--json", folder};
  if (eachFile) args.push_back("-v");
  TreeInfo info;
  std::istringstream lines(zephlore(args).out);
  for (std::string line; std::getline(lines, line);) {
    nlohmann::json item = nlohmann::json::parse(line, nullptr, false);
    if (!item.is_object()) continue;
    if (item.value("type", "") == "summary") {
      info.summary = item;
    } else {
      info.files.push_back(item);
    }
  }
  return info;
}

}  // namespace zephlore::e2e
