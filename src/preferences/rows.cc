#include "preferences/rows.h"

#include "preferences/accessible.h"

namespace zephlore::preferences {

GtkWidget* newGroup(const std::string& title, const std::string& description) {
  GtkWidget* group = adw_preferences_group_new();
  // Group texts are markup: escape what is shown.
  gchar* escaped = g_markup_escape_text(title.c_str(), -1);
  adw_preferences_group_set_title(ADW_PREFERENCES_GROUP(group), escaped);
  g_free(escaped);
  if (!description.empty()) {
    escaped = g_markup_escape_text(description.c_str(), -1);
    adw_preferences_group_set_description(ADW_PREFERENCES_GROUP(group), escaped);
    g_free(escaped);
  }
  return group;
}

GtkWidget* newRow(const std::string& title, const std::string& subtitle) {
  GtkWidget* row = adw_action_row_new();
  adw_preferences_row_set_use_markup(ADW_PREFERENCES_ROW(row), FALSE);
  setRowText(row, title, subtitle);
  return row;
}

void setRowText(GtkWidget* row, const std::string& title, const std::string& subtitle) {
  adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), title.c_str());
  adw_action_row_set_subtitle(ADW_ACTION_ROW(row), subtitle.c_str());
  // Named by its title already; the subtitle says the rest.
  setAccessibleDescription(row, subtitle);
}

Gtk::Switch* addSwitch(GtkWidget* row, const std::string& name) {
  auto* control = Gtk::make_managed<Gtk::Switch>();
  control->set_valign(Gtk::Align::CENTER);
  adw_action_row_add_suffix(ADW_ACTION_ROW(row), GTK_WIDGET(control->gobj()));
  adw_action_row_set_activatable_widget(ADW_ACTION_ROW(row), GTK_WIDGET(control->gobj()));
  setAccessibleName(*control, name);
  return control;
}

Gtk::Button* addIconButton(GtkWidget* row, const char* icon, const std::string& name) {
  auto* button = Gtk::make_managed<Gtk::Button>();
  button->set_icon_name(icon);
  button->set_valign(Gtk::Align::CENTER);
  button->add_css_class("flat");
  button->set_tooltip_text(name);
  setAccessibleName(*button, name);
  adw_action_row_add_suffix(ADW_ACTION_ROW(row), GTK_WIDGET(button->gobj()));
  return button;
}

Gtk::Button* newButton(const std::string& label, const std::string& name) {
  auto* button = Gtk::make_managed<Gtk::Button>(label, true);
  button->set_valign(Gtk::Align::CENTER);
  setAccessibleName(*button, name);
  return button;
}

}  // namespace zephlore::preferences
