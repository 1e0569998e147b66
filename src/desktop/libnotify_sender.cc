#include "desktop/libnotify_sender.h"

#include <libnotify/notify.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "base/log.h"
#include "platform/env.h"

namespace zephlore {
namespace {

// Without a session bus GLib would try to start one through X11; a server
// has none, so that case is told apart first.
bool sessionBusKnown() {
  const char* address = getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address && *address) return true;
  const char* runtime = getenv("XDG_RUNTIME_DIR");
  if (!runtime || !*runtime) return false;
  struct stat st;
  return Env::shared().stat(std::string(runtime) + "/bus", &st) == 0 && S_ISSOCK(st.st_mode);
}

}  // namespace

LibnotifySender::LibnotifySender() : thread_(std::make_unique<GlibThread>()) {}

LibnotifySender::~LibnotifySender() {
  thread_->post([] {
    if (notify_is_initted()) notify_uninit();
  });
  thread_.reset();
}

void LibnotifySender::send(const Notice& notice) {
  thread_->post([notice] { show(notice); });
}

void LibnotifySender::flush() {
  thread_->run([] {});
}

void LibnotifySender::show(const Notice& notice) {
  if (!sessionBusKnown()) {
    KRLog("Notice \"%s\" dropped: no D-Bus session bus", notice.title.c_str());
    return;
  }
  if (!notify_is_initted() && !notify_init(kApplicationName)) {
    KRLog("Notice \"%s\" dropped: libnotify cannot start", notice.title.c_str());
    return;
  }
  NotifyNotification* notification =
      notify_notification_new(notice.title.c_str(), notice.description.c_str(), nullptr);
  if (!notice.name.empty()) notify_notification_set_category(notification, notice.name.c_str());
  notify_notification_set_urgency(notification,
                                  notice.critical ? NOTIFY_URGENCY_CRITICAL : NOTIFY_URGENCY_NORMAL);
  GError* error = nullptr;
  if (!notify_notification_show(notification, &error)) {
    KRLog("Notice \"%s\" dropped: %s", notice.title.c_str(),
          error ? error->message : "no notification server");
    g_clear_error(&error);
  }
  g_object_unref(notification);
}

}  // namespace zephlore
