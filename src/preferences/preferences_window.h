// The preference window: three pages (Folders, General, Exclusions) over a
// pane model, and a bar saying when the helper is not running with a button
// to start it. It hears the model as its PaneListener, on the main loop, and
// calls the model only on a worker thread of its own: a call may wait for
// the helper for seconds, and the window keeps answering meanwhile.
//
// What a screen reader (and a test over AT-SPI) finds, by role and name (in
// English; PATH, EXT stand for the row's own text):
//   frame        "Zephlore"                     the window
//   page tab     "Folders", "General", "Exclusions"   the page switcher
//   push button  "Start helper"                 in the not-running bar
// Folders:
//   push button  "Add folder"                   opens the folder chooser
//   list         "Watched Folders"
//   list item    PATH                           description: "Saved SIZE" then a
//                                               line each for the sweep, the volume
//                                               that cannot hold it, the view
//   check box    "Watch folder PATH"            enabled or not
//   push button  "Remove folder PATH"
//   image        "Its volume cannot hold compressed files: WHY"  (when so)
//   list item    "Saved in total"               description: the total, e.g. "1.2 MB"
//   (a label child of that row holds the same text)
//   filler       "Savings over time"            the chart; description: "From DATE
//                                               to DATE: SIZE saved" or "Nothing saved yet"
// General:
//   check box    "Active", "Show status icon", "Start at login",
//                "Transparent view", "Automatic updates"
//   list item    "Helper"                       description: the helper's state in
//                                               words ("Idle", "Not running", ...)
//   push button  "Pause" or "Resume", "Quit helper"
// Exclusions:
//   list         "Excluded Folders", "Excluded Extensions"
//   list item    PATH / EXT
//   push button  "Remove excluded folder PATH", "Remove excluded extension EXT"
//   text         "Folder to exclude", "Extension to exclude"   the entries
//   push button  "Add excluded folder", "Add excluded extension", "Choose folder to exclude"
// GTK 4.8 reports no screen coordinates over AT-SPI: drive controls through
// their actions ("click" on buttons and page tabs, "toggle" on the switches)
// and set an entry's text through its EditableText, not with the mouse.
#pragma once

#include <adwaita.h>
#include <gtkmm/applicationwindow.h>
#include <gtkmm/infobar.h>

#include <cstddef>

#include "pane/pane_model.h"
#include "preferences/exclusions_page.h"
#include "preferences/folders_page.h"
#include "preferences/general_page.h"
#include "preferences/page_host.h"
#include "preferences/pane_worker.h"

namespace zephlore::preferences {

inline constexpr const char* kApplicationId = "com.quorvane.ZephlorePreferences";

// A Deliver that runs each call on the default main context, always later
// (never inside the caller's own call), from any thread.
pane::Deliver mainLoopDeliver();

class PreferencesWindow : public Gtk::ApplicationWindow, public pane::PaneListener, public PageHost {
 public:
  // A burst of savings and state notices is read once, `foldersDelayMs`
  // after its first.
  explicit PreferencesWindow(pane::PaneModel& model, unsigned foldersDelayMs = 300);
  ~PreferencesWindow() override;

  // pane::PaneListener
  void foldersChanged() override;
  void helperStateChanged() override;
  void showHistory() override;
  void helperQuitting() override;
  void reloadEverything() override;

  // PageHost
  void report(const pane::Outcome& outcome) override;
  void act(Gtk::Widget* control, Action action, std::function<void(const pane::Outcome&)> then = {}) override;
  bool helperReachable() const override { return !letGo_; }
  Gtk::Window& window() override { return *this; }

  // For tests: calls of the window still on its worker or on their way
  // back, or a re-read still waiting for its moment.
  bool working() const { return worker_.pending() > 0 || pendingFolders_.connected(); }

 private:
  // What one re-read asks for.
  enum Part : unsigned { kFolders = 1, kSettings = 2, kExclusions = 4, kHelper = 8, kEverything = 15 };
  struct Reading;

  void requestReload(unsigned parts);
  void apply(const Reading& reading);
  void scheduleFoldersReload();
  void showHelper(const pane::HelperState& state);

  const unsigned foldersDelayMs_;
  bool letGo_ = false;  // the helper said it quits
  // One re-read at a time: what is asked meanwhile is read once after it.
  bool reading_ = false;
  unsigned readAgain_ = 0;
  FoldersPage folders_;
  GeneralPage general_;
  ExclusionsPage exclusions_;
  GtkWidget* overlay_;
  GtkWidget* stack_;
  Gtk::InfoBar* banner_;
  sigc::connection pendingFolders_;
  // Last: stopped first, while everything its results touch is still there.
  PaneWorker worker_;
};

}  // namespace zephlore::preferences
