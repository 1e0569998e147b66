#include "preferences/folder_chooser.h"

#include <glib/gi18n.h>
#include <gtkmm/dialog.h>

namespace zephlore::preferences {

Glib::RefPtr<Gtk::FileChooserNative> chooseFolder(Gtk::Window& parent, const std::string& title,
                                                  const std::string& accept,
                                                  std::function<void(const std::string& path)> chosen) {
  auto chooser = Gtk::FileChooserNative::create(title, parent, Gtk::FileChooser::Action::SELECT_FOLDER, accept,
                                                _("_Cancel"));
  chooser->set_modal(true);
  // The chooser holds itself only weakly in its handler; its owner keeps it.
  Gtk::FileChooserNative* raw = chooser.get();
  chooser->signal_response().connect([raw, chosen = std::move(chosen)](int response) {
    if (response == static_cast<int>(Gtk::ResponseType::ACCEPT)) {
      if (auto file = raw->get_file()) chosen(file->get_path());
    }
    raw->hide();
  });
  chooser->show();
  return chooser;
}

}  // namespace zephlore::preferences
