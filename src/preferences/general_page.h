// The General page: the five switches of "defaults.plist" and the helper's
// state in words with Pause/Resume and Quit.
#pragma once

#include <adwaita.h>
#include <gtkmm/button.h>
#include <gtkmm/switch.h>

#include <vector>

#include "pane/pane_model.h"
#include "preferences/page_host.h"

namespace zephlore::preferences {

class GeneralPage {
 public:
  explicit GeneralPage(PageHost& host);
  GtkWidget* widget() const { return page_; }
  void showSettings(const pane::PaneSettings& values);
  void showHelper(const pane::HelperState& state);

 private:
  struct Setting {
    bool pane::PaneSettings::*field;
    pane::Outcome (pane::PaneModel::*set)(bool);
    Gtk::Switch* control;
  };

  PageHost& host_;
  GtkWidget* page_;
  std::vector<Setting> settings_;
  GtkWidget* helperRow_;
  Gtk::Button* pauseResume_;
  Gtk::Button* quit_;
  bool paused_ = false;
  bool updating_ = false;
};

}  // namespace zephlore::preferences
