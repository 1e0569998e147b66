// A pane model held in memory for the window's tests: it answers from its
// fields and writes down every action asked of it.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "pane/pane_model.h"

namespace zephlore::preferences {

class FakePaneModel : public pane::PaneModel {
 public:
  std::vector<pane::PaneFolder> folderList;
  std::vector<pane::SavingsSample> samples;
  pane::PaneSettings values;
  pane::HelperState state;
  std::vector<std::string> paths, extensions;
  pane::Outcome failWith;        // what every action answers ("" done)
  std::vector<std::string> calls;  // "setActive 0", "removeFolder /a", ...
  int helperStateReads = 0;

  std::vector<pane::PaneFolder> folders(std::string*) override { return folderList; }
  uint64_t totalSaved() override {
    uint64_t total = 0;
    for (const auto& folder : folderList) total += folder.savedBytes;
    return total;
  }
  std::vector<pane::SavingsSample> savingsOverTime() override { return samples; }
  pane::PaneSettings settings() override { return values; }
  pane::HelperState helperState() override {
    ++helperStateReads;
    return state;
  }
  std::vector<std::string> excludedPaths() override { return paths; }
  std::vector<std::string> excludedExtensions() override { return extensions; }

  pane::Outcome addFolder(const std::string& path) override { return did("addFolder " + path); }
  pane::Outcome removeFolder(const std::string& path) override {
    std::erase_if(folderList, [&](const pane::PaneFolder& folder) { return folder.path == path; });
    return did("removeFolder " + path);
  }
  pane::Outcome setFolderEnabled(const std::string& path, bool on) override {
    for (auto& folder : folderList)
      if (folder.path == path) folder.enabled = on;
    return did("setFolderEnabled " + path + " " + std::to_string(on));
  }
  pane::Outcome setActive(bool on) override { return set(values.active, on, "setActive"); }
  pane::Outcome setVisible(bool on) override { return set(values.visible, on, "setVisible"); }
  pane::Outcome setRunAtLogin(bool on) override { return set(values.runAtLogin, on, "setRunAtLogin"); }
  pane::Outcome setTransparentView(bool on) override { return set(values.transparentView, on, "setTransparentView"); }
  pane::Outcome setCheckUpdates(bool on) override { return set(values.checkUpdates, on, "setCheckUpdates"); }
  pane::Outcome addExcludedPath(const std::string& path) override { return did("addExcludedPath " + path); }
  pane::Outcome removeExcludedPath(const std::string& path) override { return did("removeExcludedPath " + path); }
  pane::Outcome addExcludedExtension(const std::string& extension) override {
    if (failWith.empty()) extensions.push_back(extension);
    return did("addExcludedExtension " + extension);
  }
  pane::Outcome removeExcludedExtension(const std::string& extension) override {
    return did("removeExcludedExtension " + extension);
  }
  pane::Outcome startHelper() override { return did("startHelper"); }
  pane::Outcome pause() override { return did("pause"); }
  pane::Outcome resume() override { return did("resume"); }
  pane::Outcome quit() override { return did("quit"); }

 private:
  pane::Outcome did(std::string call) {
    calls.push_back(std::move(call));
    return failWith;
  }
  pane::Outcome set(bool& field, bool on, const char* name) {
    if (failWith.empty()) field = on;
    return did(std::string(name) + " " + std::to_string(on));
  }
};

}  // namespace zephlore::preferences
