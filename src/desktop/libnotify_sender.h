// Desktop notices through org.freedesktop.Notifications (libnotify): the
// application name "Zephlore", the title as summary, the description as body,
// the type's name as the category hint, critical urgency for the database
// alerts. Sending hands the notice to a GLib thread and returns at once; with
// no notification server (a server, CI) the notice is dropped with one log
// line.
#pragma once

#include <memory>

#include "helper/bus/glib_thread.h"
#include "helper/notices/notice_bridge.h"

namespace zephlore {

class LibnotifySender : public NoticeSender {
 public:
  static constexpr const char* kApplicationName = "Zephlore";

  LibnotifySender();
  ~LibnotifySender() override;

  void send(const Notice& notice) override;
  // Returns once every notice sent before has been delivered or dropped.
  void flush();

 private:
  static void show(const Notice& notice);

  std::unique_ptr<GlibThread> thread_;
};

}  // namespace zephlore
