#include "preferences/folders_page.h"

#include <glib/gi18n.h>

#include "preferences/accessible.h"
#include "preferences/folder_chooser.h"
#include "preferences/rows.h"

namespace zephlore::preferences {
namespace {

// The row's second line: what it saved, then whatever else is worth saying.
std::string folderWords(const pane::PaneFolder& folder) {
  std::string words = fill(_("Saved %s"), sizeText(folder.savedBytes));
  auto line = [&](const std::string& more) {
    if (!more.empty()) words += "\n" + more;
  };
  if (!folder.exists) line(_("The folder is missing"));
  if (!folder.enabled) line(_("Not watched"));
  line(folder.sweep);
  if (folder.cannotHold) line(fill(_("Its volume cannot hold compressed files: %s"), *folder.cannotHold));
  line(folder.view);
  return words;
}

}  // namespace

FoldersPage::FoldersPage(PageHost& host) : host_(host) {
  page_ = adw_preferences_page_new();

  list_ = newGroup(_("Watched Folders"), _("Files in these folders are compressed in the background."));
  auto* add = newButton(_("_Add Folder…"), _("Add folder"));
  add->signal_clicked().connect([this] { chooseFolder(); });
  adw_preferences_group_set_header_suffix(ADW_PREFERENCES_GROUP(list_), GTK_WIDGET(add->gobj()));
  empty_ = newRow(_("No folders are watched"), _("Add a folder to start saving space."));
  // Shown once the first read says so.
  gtk_widget_set_visible(empty_, FALSE);
  adw_preferences_group_add(ADW_PREFERENCES_GROUP(list_), empty_);
  problem_ = newRow(_("The folder list cannot be read"));
  gtk_widget_set_visible(problem_, FALSE);
  adw_preferences_group_add(ADW_PREFERENCES_GROUP(list_), problem_);
  adw_preferences_page_add(ADW_PREFERENCES_PAGE(page_), ADW_PREFERENCES_GROUP(list_));

  GtkWidget* savings = newGroup(_("Savings"));
  totalRow_ = newRow(_("Saved in total"));
  total_ = Gtk::make_managed<Gtk::Label>();
  total_->add_css_class("numeric");
  adw_action_row_add_suffix(ADW_ACTION_ROW(totalRow_), GTK_WIDGET(total_->gobj()));
  adw_preferences_group_add(ADW_PREFERENCES_GROUP(savings), totalRow_);
  chart_ = Gtk::make_managed<SavingsChart>();
  adw_preferences_group_add(ADW_PREFERENCES_GROUP(savings), GTK_WIDGET(chart_->gobj()));
  adw_preferences_page_add(ADW_PREFERENCES_PAGE(page_), ADW_PREFERENCES_GROUP(savings));
}

void FoldersPage::show(const std::vector<pane::PaneFolder>& folders, const std::string& problem, uint64_t totalSaved,
                       const std::vector<pane::SavingsSample>& samples) {
  setRowText(problem_, _("The folder list cannot be read"), problem);
  gtk_widget_set_visible(problem_, !problem.empty());
  gtk_widget_set_visible(empty_, folders.empty() && problem.empty());

  std::vector<std::string> order;
  for (const auto& folder : folders) order.push_back(folder.path);
  if (order != order_) rebuild(folders);
  updating_ = true;
  for (const auto& folder : folders) showRow(rows_[folder.path], folder);
  updating_ = false;

  const std::string total = sizeText(totalSaved);
  total_->set_text(total);
  setAccessibleDescription(totalRow_, total);
  chart_->setSamples(samples);
}

void FoldersPage::rebuild(const std::vector<pane::PaneFolder>& folders) {
  for (auto& [path, row] : rows_) adw_preferences_group_remove(ADW_PREFERENCES_GROUP(list_), row.row);
  rows_.clear();
  order_.clear();
  for (const auto& folder : folders) {
    if (rows_.count(folder.path)) continue;
    rows_[folder.path] = makeRow(folder.path);
    order_.push_back(folder.path);
  }
}

FoldersPage::Row FoldersPage::makeRow(const std::string& path) {
  Row row;
  row.row = newRow(path);
  adw_action_row_set_subtitle_lines(ADW_ACTION_ROW(row.row), 0);
  row.warning = Gtk::make_managed<Gtk::Image>();
  row.warning->set_from_icon_name("dialog-warning-symbolic");
  row.warning->set_visible(false);
  adw_action_row_add_suffix(ADW_ACTION_ROW(row.row), GTK_WIDGET(row.warning->gobj()));
  row.watch = addSwitch(row.row, fill(_("Watch folder %s"), path));
  row.watch->property_active().signal_changed().connect([this, path, control = row.watch] {
    if (updating_) return;
    host_.act(control, [path, on = control->get_active()](pane::PaneModel& model) {
      return model.setFolderEnabled(path, on);
    });
  });
  Gtk::Button* remove = addIconButton(row.row, "user-trash-symbolic", fill(_("Remove folder %s"), path));
  remove->signal_clicked().connect([this, path, remove] {
    host_.act(remove, [path](pane::PaneModel& model) { return model.removeFolder(path); });
  });
  adw_preferences_group_add(ADW_PREFERENCES_GROUP(list_), row.row);
  return row;
}

void FoldersPage::showRow(Row& row, const pane::PaneFolder& folder) {
  std::string words = folderWords(folder);
  if (words != row.words) {
    setRowText(row.row, folder.path, words);
    row.words = std::move(words);
  }
  // A switch whose change is still on its way shows the user's choice; the
  // re-read after it shows what came of it.
  if (row.watch->get_sensitive() && row.watch->get_active() != folder.enabled) row.watch->set_active(folder.enabled);
  row.warning->set_visible(folder.cannotHold.has_value());
  if (folder.cannotHold) {
    row.warning->set_tooltip_text(*folder.cannotHold);
    setAccessibleName(*row.warning, fill(_("Its volume cannot hold compressed files: %s"), *folder.cannotHold));
  }
}

void FoldersPage::chooseFolder() {
  // The native chooser: the desktop's file-chooser portal where there is one.
  chooser_ = preferences::chooseFolder(host_.window(), _("Add a Folder to Watch"), _("_Add"),
                                      [this](const std::string& path) {
                                        if (path.empty()) {
                                          host_.report(_("Only local folders can be watched."));
                                          return;
                                        }
                                        host_.act(nullptr, [path](pane::PaneModel& model) {
                                          return model.addFolder(path);
                                        });
                                      });
}

}  // namespace zephlore::preferences
