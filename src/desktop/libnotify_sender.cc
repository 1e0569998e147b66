#include "desktop/libnotify_sender.h"

#include <libnotify/notify.h>

#include <string>

#include "base/log.h"
#include "platform/session_bus_address.h"

namespace zephlore {

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
  // Without a known bus GLib would try to start one through X11.
  if (!sessionBusAddressKnown()) {
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
