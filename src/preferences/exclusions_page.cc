#include "preferences/exclusions_page.h"

#include <glib/gi18n.h>
#include <gtkmm/box.h>

#include "preferences/accessible.h"
#include "preferences/folder_chooser.h"
#include "preferences/rows.h"

namespace zephlore::preferences {

ExclusionsPage::ExclusionsPage(PageHost& host) : host_(host) {
  page_ = adw_preferences_page_new();

  paths_.removeName = N_("Remove excluded folder %s");
  paths_.add = &pane::PaneModel::addExcludedPath;
  paths_.remove = &pane::PaneModel::removeExcludedPath;
  build(paths_, _("Excluded Folders"), _("Files under these folders are never compressed."),
        _("No folders are excluded"), _("Folder to exclude"), _("Add excluded folder"), _("/path/to/folder"));
  auto* choose = newButton(_("C_hoose…"), _("Choose folder to exclude"));
  choose->signal_clicked().connect([this] { chooseFolder(); });
  adw_preferences_group_set_header_suffix(ADW_PREFERENCES_GROUP(paths_.group), GTK_WIDGET(choose->gobj()));

  extensions_.removeName = N_("Remove excluded extension %s");
  extensions_.add = &pane::PaneModel::addExcludedExtension;
  extensions_.remove = &pane::PaneModel::removeExcludedExtension;
  build(extensions_, _("Excluded Extensions"), _("Files whose names end in these extensions are never compressed."),
        _("No extensions are excluded"), _("Extension to exclude"), _("Add excluded extension"), _("e.g. iso"));
}

void ExclusionsPage::build(List& list, const std::string& title, const std::string& description,
                           const std::string& emptyText, const std::string& entryName, const std::string& addName,
                           const std::string& placeholder) {
  list.group = newGroup(title, description);
  list.empty = newRow(emptyText);
  adw_preferences_group_add(ADW_PREFERENCES_GROUP(list.group), list.empty);

  // Below the list (a group puts what is not a row under its rows).
  auto* line = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 6);
  line->set_margin_top(6);
  list.entry = Gtk::make_managed<Gtk::Entry>();
  list.entry->set_hexpand(true);
  list.entry->set_placeholder_text(placeholder);
  setAccessibleName(*list.entry, entryName);
  auto* add = newButton(_("Add"), addName);
  list.entry->signal_activate().connect([this, &list, add] { addFromEntry(list, add); });
  add->signal_clicked().connect([this, &list, add] { addFromEntry(list, add); });
  line->append(*list.entry);
  line->append(*add);
  adw_preferences_group_add(ADW_PREFERENCES_GROUP(list.group), GTK_WIDGET(line->gobj()));
  adw_preferences_page_add(ADW_PREFERENCES_PAGE(page_), ADW_PREFERENCES_GROUP(list.group));
}

void ExclusionsPage::showLists(const std::vector<std::string>& paths, const std::vector<std::string>& extensions) {
  show(paths_, paths);
  show(extensions_, extensions);
}

void ExclusionsPage::show(List& list, const std::vector<std::string>& items) {
  gtk_widget_set_visible(list.empty, items.empty());
  if (items == list.shown) return;
  for (GtkWidget* row : list.rows) adw_preferences_group_remove(ADW_PREFERENCES_GROUP(list.group), row);
  list.rows.clear();
  list.shown = items;
  for (const std::string& item : items) {
    GtkWidget* row = newRow(item);
    Gtk::Button* remove = addIconButton(row, "list-remove-symbolic", fill(_(list.removeName), item));
    remove->signal_clicked().connect([this, remove, call = list.remove, item] {
      host_.act(remove, [call, item](pane::PaneModel& model) { return (model.*call)(item); });
    });
    adw_preferences_group_add(ADW_PREFERENCES_GROUP(list.group), row);
    list.rows.push_back(row);
  }
}

void ExclusionsPage::addFromEntry(List& list, Gtk::Widget* control) {
  const std::string typed = list.entry->get_text();
  const auto first = typed.find_first_not_of(" \t");
  const auto last = typed.find_last_not_of(" \t");
  if (first == std::string::npos) return;
  const std::string text = typed.substr(first, last - first + 1);
  host_.act(
      control, [call = list.add, text](pane::PaneModel& model) { return (model.*call)(text); },
      [entry = list.entry, typed](const pane::Outcome& outcome) {
        // Cleared only if nothing else was typed meanwhile.
        if (outcome.empty() && std::string(entry->get_text()) == typed) entry->set_text("");
      });
}

void ExclusionsPage::chooseFolder() {
  chooser_ = preferences::chooseFolder(host_.window(), _("Exclude a Folder"), _("_Exclude"),
                                      [this](const std::string& path) {
                                        if (path.empty()) return;
                                        host_.act(nullptr, [path](pane::PaneModel& model) {
                                          return model.addExcludedPath(path);
                                        });
                                      });
}

}  // namespace zephlore::preferences
