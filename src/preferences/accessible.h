// What a screen reader (and a test driving the window through AT-SPI) calls
// a control, set once where the control is made.
#pragma once

#include <gtkmm/widget.h>

#include <cstdint>
#include <string>

namespace zephlore::preferences {

// Replaces whatever names the control otherwise (its text, its row's title).
void setAccessibleName(Gtk::Widget& widget, const std::string& name);
void setAccessibleName(GtkWidget* widget, const std::string& name);
void setAccessibleDescription(GtkWidget* widget, const std::string& description);

// printf-style "%s" filled with `value`, for translated names such as
// "Remove folder %s".
std::string fill(const char* format, const std::string& value);

// A size in bytes as the rest of the desktop shows it ("1.0 MB").
std::string sizeText(uint64_t bytes);

}  // namespace zephlore::preferences
