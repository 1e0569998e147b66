// The status item in the desktop's tray, as a StatusNotifierItem (the tray
// protocol of KDE, GNOME's AppIndicator extension, XFCE and others) on the
// session bus, with its menu served by libdbusmenu-glib. The item registers
// with org.kde.StatusNotifierWatcher whenever one is on the bus; with none
// (no tray) it stays quietly absent and the helper works on.
//
// Calls from the tray (menu clicks) hop to the main run loop and reach the
// KRMenuBarController there.
#pragma once

#include <gio/gio.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "base/run_loop.h"
#include "desktop/desktop_thread.h"
#include "desktop/menu_bar_controller.h"

typedef struct _DbusmenuServer DbusmenuServer;
typedef struct _DbusmenuMenuitem DbusmenuMenuitem;

namespace zephlore {

class KRStatusNotifierItem final : public KRStatusItemView {
 public:
  static constexpr const char* kItemPath = "/StatusNotifierItem";
  static constexpr const char* kMenuPath = "/MenuBar";
  static constexpr const char* kWatcherName = "org.kde.StatusNotifierWatcher";

  // Menu clicks call `togglePause` and `showHistory` on `mainLoop`. The item
  // lives on `thread`, which must run GLib's global default context.
  KRStatusNotifierItem(RunLoop& mainLoop, std::function<void()> togglePause, std::function<void()> showHistory,
                       GlibThread& thread = desktopThread());
  ~KRStatusNotifierItem() override;
  KRStatusNotifierItem(const KRStatusNotifierItem&) = delete;
  KRStatusNotifierItem& operator=(const KRStatusNotifierItem&) = delete;

  // KRStatusItemView, main thread.
  void show(const KRStatusMenu& menu, const std::string& iconName, const std::string& toolTip) override;
  void hide() override;
  void setIcon(const std::string& iconName) override;
  void setMenu(const KRStatusMenu& menu) override;
  bool onScreen() const override { return trayPresent_; }

  // The bus name the item is known by, "" without a bus.
  std::string serviceName() const { return serviceName_; }
  // Returns once everything asked of the bus thread so far was done (tests).
  void sync();

 private:
  struct BusState;

  static void onMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                           GVariant*, GDBusMethodInvocation* invocation, gpointer self);
  static GVariant* onGetProperty(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* property,
                                 GError**, gpointer self);
  static void onWatcherAppeared(GDBusConnection*, const gchar*, const gchar*, gpointer self);
  static void onWatcherVanished(GDBusConnection*, const gchar*, gpointer self);

  void startOnBusThread();
  void stopOnBusThread();
  void buildMenuOnBusThread();
  void applyMenuOnBusThread(const KRStatusMenu& menu);
  void registerWithWatcher();
  void emit(const char* signal);

  RunLoop& mainLoop_;
  GlibThread& thread_;
  std::function<void()> togglePause_;
  std::function<void()> showHistory_;
  std::string serviceName_;
  std::string iconThemePath_;
  // Whether a tray is on the bus. Without one nobody sees the icon, and the
  // frames of the compressing animation (ten a second, many more under a
  // sped-up clock) are kept, not announced.
  std::atomic<bool> trayPresent_{false};
  mutable std::mutex iconLock_;
  std::string iconName_ = kIconNormal;  // guarded by iconLock_

  // Bus-thread state from here on.
  GDBusConnection* connection_ = nullptr;
  guint objectId_ = 0;
  guint nameId_ = 0;
  guint watchSource_ = 0;
  guint watcherWatchId_ = 0;
  DbusmenuServer* server_ = nullptr;
  DbusmenuMenuitem* root_ = nullptr;
  DbusmenuMenuitem* savingsItem_ = nullptr;
  DbusmenuMenuitem* statusItem_ = nullptr;
  DbusmenuMenuitem* pauseItem_ = nullptr;
  DbusmenuMenuitem* openItem_ = nullptr;
  bool visible_ = false;
  std::string toolTip_ = "Zephlore Menu";
};

}  // namespace zephlore
