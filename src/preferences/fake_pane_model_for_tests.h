// A pane model held in memory, for running the window without a helper:
// every edit is kept and announced to the listener as the real model would.
#pragma once

#include <algorithm>
#include <ctime>

#include "pane/pane_model.h"

namespace zephlore::preferences {

class FakePaneModel : public pane::PaneModel {
 public:
  explicit FakePaneModel(pane::Deliver deliver) : deliver_(std::move(deliver)) {
    folders_.push_back({"/home/user/Documents", true, true, 734003200, "Sweep done", std::nullopt, "View up at ~/.zephlore/views/Documents"});
    folders_.push_back({"/media/usb/Photos & Music", false, true, 0, "", std::string("FAT file systems keep no extended attributes"), ""});
    const int64_t now = std::time(nullptr);
    for (int day = 0; day <= 20; ++day) samples_.push_back({now - (20 - day) * 86400, uint64_t(day) * day * 1660000});
    paths_ = {"/home/user/Documents/Projects"};
    extensions_ = {"iso", "zip"};
    state_.kind = pane::HelperState::Kind::kIdle;
    state_.words = "Idle";
  }
  void setListener(pane::PaneListener* listener) { listener_ = listener; }

  std::vector<pane::PaneFolder> folders(std::string*) override { return folders_; }
  uint64_t totalSaved() override {
    uint64_t total = 0;
    for (const auto& folder : folders_) total += folder.savedBytes;
    return total;
  }
  std::vector<pane::SavingsSample> savingsOverTime() override { return samples_; }
  pane::PaneSettings settings() override { return settings_; }
  pane::HelperState helperState() override { return state_; }
  std::vector<std::string> excludedPaths() override { return paths_; }
  std::vector<std::string> excludedExtensions() override { return extensions_; }

  pane::Outcome addFolder(const std::string& path) override {
    for (const auto& folder : folders_)
      if (folder.path == path) return "That folder is already watched.";
    folders_.push_back({path, true, true, 0, "Sweeping", std::nullopt, ""});
    return announceFolders();
  }
  pane::Outcome removeFolder(const std::string& path) override {
    std::erase_if(folders_, [&](const pane::PaneFolder& folder) { return folder.path == path; });
    return announceFolders();
  }
  pane::Outcome setFolderEnabled(const std::string& path, bool enabled) override {
    for (auto& folder : folders_)
      if (folder.path == path) folder.enabled = enabled;
    return announceFolders();
  }

  pane::Outcome setActive(bool on) override { return set(settings_.active, on); }
  pane::Outcome setVisible(bool on) override { return set(settings_.visible, on); }
  pane::Outcome setRunAtLogin(bool on) override { return set(settings_.runAtLogin, on); }
  pane::Outcome setTransparentView(bool on) override { return set(settings_.transparentView, on); }
  pane::Outcome setCheckUpdates(bool on) override { return set(settings_.checkUpdates, on); }

  pane::Outcome addExcludedPath(const std::string& path) override { return addTo(paths_, path); }
  pane::Outcome removeExcludedPath(const std::string& path) override { return removeFrom(paths_, path); }
  pane::Outcome addExcludedExtension(const std::string& extension) override { return addTo(extensions_, extension); }
  pane::Outcome removeExcludedExtension(const std::string& extension) override {
    return removeFrom(extensions_, extension);
  }

  pane::Outcome startHelper() override { return becomes(pane::HelperState::Kind::kIdle, "Idle"); }
  pane::Outcome pause() override { return becomes(pane::HelperState::Kind::kPaused, "Paused by you"); }
  pane::Outcome resume() override { return becomes(pane::HelperState::Kind::kIdle, "Idle"); }
  pane::Outcome quit() override {
    state_ = {};
    tell([](pane::PaneListener& listener) { listener.helperQuitting(); });
    return "";
  }

 private:
  void tell(void (*call)(pane::PaneListener&)) {
    if (listener_) deliver_([listener = listener_, call] { call(*listener); });
  }
  pane::Outcome announceFolders() {
    tell([](pane::PaneListener& listener) { listener.foldersChanged(); });
    return "";
  }
  pane::Outcome set(bool& field, bool on) {
    field = on;
    return "";
  }
  pane::Outcome addTo(std::vector<std::string>& list, const std::string& item) {
    if (std::find(list.begin(), list.end(), item) != list.end()) return "It is excluded already.";
    list.push_back(item);
    return "";
  }
  pane::Outcome removeFrom(std::vector<std::string>& list, const std::string& item) {
    std::erase(list, item);
    return "";
  }
  pane::Outcome becomes(pane::HelperState::Kind kind, const char* words) {
    state_.kind = kind;
    state_.words = words;
    tell([](pane::PaneListener& listener) { listener.helperStateChanged(); });
    return "";
  }

  pane::Deliver deliver_;
  pane::PaneListener* listener_ = nullptr;
  std::vector<pane::PaneFolder> folders_;
  std::vector<pane::SavingsSample> samples_;
  pane::PaneSettings settings_;
  pane::HelperState state_;
  std::vector<std::string> paths_;
  std::vector<std::string> extensions_;
};

}  // namespace zephlore::preferences
