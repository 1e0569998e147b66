// A pane model held in memory for the window's tests: it answers from its
// fields and writes down every action asked of it. The window calls it on
// its worker thread: a test changes or reads the fields through locked(),
// and can hold every call at a gate to see the window go on without it.
#pragma once

#include <glib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "pane/pane_model.h"

namespace zephlore::preferences {

class FakePaneModel : public pane::PaneModel {
 public:
  // Changed and read through locked() once a window uses the model.
  std::vector<pane::PaneFolder> folderList;
  std::vector<pane::SavingsSample> samples;
  pane::PaneSettings values;
  pane::HelperState state;
  std::vector<std::string> paths, extensions;
  pane::Outcome failWith;          // what every action answers ("" done)
  std::vector<std::string> calls;  // "setActive 0", "removeFolder /a", ...
  int helperStateReads = 0;
  int callsOnTestThread = 0;       // calls made on the thread that made the model

  template <typename F>
  auto locked(F&& f) {
    std::lock_guard<std::mutex> lock(mutex_);
    return f();
  }
  std::vector<std::string> callsMade() {
    return locked([&] { return calls; });
  }

  // While closed, every call waits at the gate, each at most `kGateLimit`
  // (then the gate opens by itself, so a window that calls on the test's
  // thread fails the test instead of hanging it).
  static constexpr std::chrono::seconds kGateLimit{5};
  void closeGate() {
    std::lock_guard<std::mutex> lock(gateMutex_);
    gateClosed_ = true;
  }
  void openGate() {
    {
      std::lock_guard<std::mutex> lock(gateMutex_);
      gateClosed_ = false;
    }
    gateOpened_.notify_all();
  }
  int waitingAtGate() {
    std::lock_guard<std::mutex> lock(gateMutex_);
    return waiting_;
  }

  std::vector<pane::PaneFolder> folders(std::string*) override {
    return read([&] { return folderList; });
  }
  uint64_t totalSaved() override {
    return read([&] {
      uint64_t total = 0;
      for (const auto& folder : folderList) total += folder.savedBytes;
      return total;
    });
  }
  std::vector<pane::SavingsSample> savingsOverTime() override {
    return read([&] { return samples; });
  }
  pane::PaneSettings settings() override {
    return read([&] { return values; });
  }
  pane::HelperState helperState() override {
    return read([&] {
      ++helperStateReads;
      return state;
    });
  }
  std::vector<std::string> excludedPaths() override {
    return read([&] { return paths; });
  }
  std::vector<std::string> excludedExtensions() override {
    return read([&] { return extensions; });
  }

  pane::Outcome addFolder(const std::string& path) override { return did("addFolder " + path); }
  pane::Outcome removeFolder(const std::string& path) override {
    return did("removeFolder " + path, [&] {
      std::erase_if(folderList, [&](const pane::PaneFolder& folder) { return folder.path == path; });
    });
  }
  pane::Outcome setFolderEnabled(const std::string& path, bool on) override {
    return did("setFolderEnabled " + path + " " + std::to_string(on), [&] {
      for (auto& folder : folderList)
        if (folder.path == path) folder.enabled = on;
    });
  }
  pane::Outcome setActive(bool on) override { return set(values.active, on, "setActive"); }
  pane::Outcome setVisible(bool on) override { return set(values.visible, on, "setVisible"); }
  pane::Outcome setRunAtLogin(bool on) override { return set(values.runAtLogin, on, "setRunAtLogin"); }
  pane::Outcome setTransparentView(bool on) override { return set(values.transparentView, on, "setTransparentView"); }
  pane::Outcome setCheckUpdates(bool on) override { return set(values.checkUpdates, on, "setCheckUpdates"); }
  pane::Outcome addExcludedPath(const std::string& path) override { return did("addExcludedPath " + path); }
  pane::Outcome removeExcludedPath(const std::string& path) override { return did("removeExcludedPath " + path); }
  pane::Outcome addExcludedExtension(const std::string& extension) override {
    return did("addExcludedExtension " + extension, [&] {
      if (failWith.empty()) extensions.push_back(extension);
    });
  }
  pane::Outcome removeExcludedExtension(const std::string& extension) override {
    return did("removeExcludedExtension " + extension);
  }
  pane::Outcome startHelper() override { return did("startHelper"); }
  pane::Outcome pause() override { return did("pause"); }
  pane::Outcome resume() override { return did("resume"); }
  pane::Outcome quit() override { return did("quit"); }

 private:
  void passGate() {
    std::unique_lock<std::mutex> lock(gateMutex_);
    ++waiting_;
    // A test waiting for this runs the main loop: wake it to look.
    g_main_context_wakeup(nullptr);
    if (!gateOpened_.wait_for(lock, kGateLimit, [&] { return !gateClosed_; })) gateClosed_ = false;
    --waiting_;
  }
  template <typename F>
  std::invoke_result_t<F> read(F&& f) {
    passGate();
    std::lock_guard<std::mutex> lock(mutex_);
    if (std::this_thread::get_id() == testThread_) ++callsOnTestThread;
    return f();
  }
  pane::Outcome did(std::string call, const std::function<void()>& change = {}) {
    return read([&] {
      if (change) change();
      calls.push_back(std::move(call));
      return failWith;
    });
  }
  pane::Outcome set(bool& field, bool on, const char* name) {
    return did(std::string(name) + " " + std::to_string(on), [&] {
      if (failWith.empty()) field = on;
    });
  }

  const std::thread::id testThread_ = std::this_thread::get_id();
  std::mutex mutex_;
  std::mutex gateMutex_;
  std::condition_variable gateOpened_;
  bool gateClosed_ = false;
  int waiting_ = 0;
};

}  // namespace zephlore::preferences
