// The Exclusions page: the user's excluded folders and extensions as two
// lists, each with an entry to add to it and a remove button per row.
#pragma once

#include <adwaita.h>
#include <gtkmm/entry.h>
#include <gtkmm/dialog.h>
#include <gtkmm/filechoosernative.h>

#include <functional>
#include <string>
#include <vector>

#include "pane/pane_model.h"
#include "preferences/page_host.h"

namespace zephlore::preferences {

class ExclusionsPage {
 public:
  explicit ExclusionsPage(PageHost& host);
  GtkWidget* widget() const { return page_; }
  void showLists(const std::vector<std::string>& paths, const std::vector<std::string>& extensions);

 private:
  // One editable list.
  struct List {
    GtkWidget* group = nullptr;
    GtkWidget* empty = nullptr;
    Gtk::Entry* entry = nullptr;
    std::vector<GtkWidget*> rows;
    std::vector<std::string> shown;
    const char* removeName = nullptr;  // "Remove excluded folder %s"
    pane::Outcome (pane::PaneModel::*add)(const std::string&) = nullptr;
    pane::Outcome (pane::PaneModel::*remove)(const std::string&) = nullptr;
  };

  void build(List& list, const std::string& title, const std::string& description, const std::string& emptyText,
             const std::string& entryName, const std::string& addName, const std::string& placeholder);
  void show(List& list, const std::vector<std::string>& items);
  void addFromEntry(List& list, Gtk::Widget* control);
  void chooseFolder();

  PageHost& host_;
  GtkWidget* page_;
  List paths_;
  List extensions_;
  Glib::RefPtr<Gtk::FileChooserNative> chooser_;
};

}  // namespace zephlore::preferences
