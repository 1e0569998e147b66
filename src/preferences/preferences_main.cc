// zephlore-preferences: the preference window of the Zephlore helper.
// One instance per session: a second start presents the first window.
#include <adwaita.h>
#include <glib/gi18n.h>
#include <gtkmm/application.h>

#include <clocale>
#include <memory>

#include "preferences/fake_pane_model_for_tests.h"
#include "preferences/preferences_window.h"

int main(int argc, char** argv) {
  using namespace zephlore::preferences;
  setlocale(LC_ALL, "");
  bindtextdomain(GETTEXT_PACKAGE, ZEPHLORE_LOCALE_DIR);
  bind_textdomain_codeset(GETTEXT_PACKAGE, "UTF-8");
  textdomain(GETTEXT_PACKAGE);

  auto app = Gtk::Application::create(kApplicationId);
  // Declared before the window: the window uses the model to its end.
  std::unique_ptr<FakePaneModel> model;
  std::unique_ptr<PreferencesWindow> window;
  // libadwaita's styles, and its style manager following the desktop's
  // dark or light preference.
  app->signal_startup().connect([] { adw_init(); });
  app->signal_activate().connect([&] {
    if (!window) {
      model = std::make_unique<FakePaneModel>(mainLoopDeliver());
      window = std::make_unique<PreferencesWindow>(*model);
      model->setListener(window.get());
      app->add_window(*window);
    }
    window->present();
  });
  return app->run(argc, argv);
}
