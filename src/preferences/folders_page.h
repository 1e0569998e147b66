// The first page: the watched folders with what each saved, the state of its
// sweep, its volume and its view; the total and its chart; add, remove,
// enable and disable a folder.
#pragma once

#include <adwaita.h>
#include <gtkmm/dialog.h>
#include <gtkmm/filechoosernative.h>
#include <gtkmm/image.h>
#include <gtkmm/label.h>
#include <gtkmm/switch.h>

#include <map>
#include <string>
#include <vector>

#include "pane/pane_model.h"
#include "preferences/page_host.h"
#include "preferences/savings_chart.h"

namespace zephlore::preferences {

class FoldersPage {
 public:
  explicit FoldersPage(PageHost& host);
  GtkWidget* widget() const { return page_; }
  // Shows what the model answered (read on the window's worker).
  void show(const std::vector<pane::PaneFolder>& folders, const std::string& problem, uint64_t totalSaved,
            const std::vector<pane::SavingsSample>& samples);

 private:
  struct Row {
    GtkWidget* row = nullptr;
    Gtk::Switch* watch = nullptr;
    Gtk::Image* warning = nullptr;
    std::string words;  // shown under the path: set again only when changed
  };

  void rebuild(const std::vector<pane::PaneFolder>& folders);
  Row makeRow(const std::string& path);
  void showRow(Row& row, const pane::PaneFolder& folder);
  void chooseFolder();

  PageHost& host_;
  GtkWidget* page_;
  GtkWidget* list_;        // the group of folder rows
  GtkWidget* empty_;       // the row shown when no folder is watched
  GtkWidget* problem_;     // the row saying why the list could not be read
  GtkWidget* totalRow_;
  Gtk::Label* total_;
  SavingsChart* chart_;
  std::vector<std::string> order_;
  std::map<std::string, Row> rows_;
  bool updating_ = false;  // set while the page shows the model's values
  Glib::RefPtr<Gtk::FileChooserNative> chooser_;
};

}  // namespace zephlore::preferences
