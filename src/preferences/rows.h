// Small builders for libadwaita rows and groups holding gtkmm controls.
#pragma once

#include <adwaita.h>
#include <gtkmm/button.h>
#include <gtkmm/switch.h>

#include <string>

namespace zephlore::preferences {

// A group with a title; texts are plain, never markup.
GtkWidget* newGroup(const std::string& title, const std::string& description = "");
// An action row whose title and subtitle are plain text (paths may hold '&').
GtkWidget* newRow(const std::string& title, const std::string& subtitle = "");
void setRowText(GtkWidget* row, const std::string& title, const std::string& subtitle);

// A switch at the end of `row` that the whole row toggles, named `name`.
Gtk::Switch* addSwitch(GtkWidget* row, const std::string& name);
// A flat icon button at the end of `row`, named `name`.
Gtk::Button* addIconButton(GtkWidget* row, const char* icon, const std::string& name);
// A button with a (mnemonic) label, named `name`.
Gtk::Button* newButton(const std::string& label, const std::string& name);

}  // namespace zephlore::preferences
