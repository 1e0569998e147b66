// Asking the user for a folder, the way the desktop does it.
#pragma once

#include <gtkmm/filechoosernative.h>
#include <gtkmm/window.h>

#include <functional>
#include <string>

namespace zephlore::preferences {

// Shows the desktop's folder chooser (its file-chooser portal where there
// is one) over `parent`; `chosen` gets the folder's local path, "" for a
// folder that is not local. Keep the returned chooser while it shows.
Glib::RefPtr<Gtk::FileChooserNative> chooseFolder(Gtk::Window& parent, const std::string& title,
                                                  const std::string& accept,
                                                  std::function<void(const std::string& path)> chosen);

}  // namespace zephlore::preferences
