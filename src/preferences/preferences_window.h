// The preference window: three pages (Folders, General, Exclusions) over a
// pane model, and a bar saying when the helper is not running with a button
// to start it. It hears the model as its PaneListener, on the main loop.
#pragma once

#include <adwaita.h>
#include <gtkmm/applicationwindow.h>
#include <gtkmm/infobar.h>

#include "pane/pane_model.h"
#include "preferences/exclusions_page.h"
#include "preferences/folders_page.h"
#include "preferences/general_page.h"
#include "preferences/page_host.h"

namespace zephlore::preferences {

inline constexpr const char* kApplicationId = "com.quorvane.ZephlorePreferences";

// A Deliver that runs each call on the default main context, always later
// (never inside the caller's own call), from any thread.
pane::Deliver mainLoopDeliver();

class PreferencesWindow : public Gtk::ApplicationWindow, public pane::PaneListener, public PageHost {
 public:
  explicit PreferencesWindow(pane::PaneModel& model);
  ~PreferencesWindow() override;

  // pane::PaneListener
  void foldersChanged() override;
  void helperStateChanged() override;
  void showHistory() override;
  void helperQuitting() override;
  void reloadEverything() override;

  // PageHost
  void report(const pane::Outcome& outcome) override;
  void scheduleReload() override;
  bool helperReachable() const override { return !letGo_; }
  Gtk::Window& window() override { return *this; }

 private:
  void reloadAll();
  void refreshHelper();

  pane::PaneModel& model_;
  bool letGo_ = false;  // the helper said it quits
  FoldersPage folders_;
  GeneralPage general_;
  ExclusionsPage exclusions_;
  GtkWidget* overlay_;
  GtkWidget* stack_;
  Gtk::InfoBar* banner_;
  sigc::connection pendingReload_;
};

}  // namespace zephlore::preferences
