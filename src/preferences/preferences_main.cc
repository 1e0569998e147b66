// zephlore-preferences: the preference window of the Zephlore helper.
// One instance per session: a second start presents the first window.
#include <adwaita.h>
#include <glib/gi18n.h>
#include <gtkmm/application.h>

#include <clocale>
#include <memory>

#include "base/data_folder.h"
#include "helper/bus/distributed_notification_center.h"
#include "pane/helper_pane.h"
#include "preferences/listener_relay.h"
#include "preferences/preferences_window.h"

int main(int argc, char** argv) {
  using namespace zephlore;
  using namespace zephlore::preferences;
  setlocale(LC_ALL, "");
  bindtextdomain(GETTEXT_PACKAGE, ZEPHLORE_LOCALE_DIR);
  bind_textdomain_codeset(GETTEXT_PACKAGE, "UTF-8");
  textdomain(GETTEXT_PACKAGE);

  auto app = Gtk::Application::create(kApplicationId);
  // Declared before the window: the window uses the model to its end.
  ListenerRelay relay;
  SystemClock clock;
  // The window's one session-bus connection, made before the model that uses it.
  DistributedNotificationCenter bus;
  std::unique_ptr<pane::HelperPane> model;
  std::unique_ptr<PreferencesWindow> window;
  // libadwaita's styles, and its style manager following the desktop's
  // dark or light preference.
  app->signal_startup().connect([&app] {
    adw_init();
    app->set_accel_for_action("window.close", "<Primary>w");
  });
  app->signal_activate().connect([&] {
    if (!window) {
      // The one place the window takes the process's Env and finds the data folder.
      model = std::make_unique<pane::HelperPane>(
          pane::PaneParts::standard(Env::system(), clock, bus, findDataFolder().value_or("")), &relay,
          mainLoopDeliver());
      window = std::make_unique<PreferencesWindow>(*model);
      relay.setTarget(window.get());
      app->add_window(*window);
    }
    window->present();
  });
  const int status = app->run(argc, argv);
  relay.setTarget(nullptr);
  return status;
}
