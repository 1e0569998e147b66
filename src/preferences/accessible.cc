#include "preferences/accessible.h"

#include <gtk/gtk.h>

namespace zephlore::preferences {

void setAccessibleName(Gtk::Widget& widget, const std::string& name) {
  setAccessibleName(widget.gobj(), name);
}

void setAccessibleName(GtkWidget* widget, const std::string& name) {
  gtk_accessible_update_property(GTK_ACCESSIBLE(widget), GTK_ACCESSIBLE_PROPERTY_LABEL, name.c_str(), -1);
  // GTK 4.8 joins a label to the names of whatever labels the control (a
  // button's own text, a row's title): the name given here stands alone.
  gtk_accessible_reset_relation(GTK_ACCESSIBLE(widget), GTK_ACCESSIBLE_RELATION_LABELLED_BY);
}

void setAccessibleDescription(GtkWidget* widget, const std::string& description) {
  gtk_accessible_update_property(GTK_ACCESSIBLE(widget), GTK_ACCESSIBLE_PROPERTY_DESCRIPTION, description.c_str(), -1);
}

std::string fill(const char* format, const std::string& value) {
  std::string text = format;
  size_t at = text.find("%s");
  if (at != std::string::npos) text.replace(at, 2, value);
  return text;
}

std::string sizeText(uint64_t bytes) {
  gchar* text = g_format_size(bytes);
  std::string result = text;
  g_free(text);
  return result;
}

}  // namespace zephlore::preferences
