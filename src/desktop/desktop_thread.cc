#include "desktop/desktop_thread.h"

namespace zephlore {

GlibThread& desktopThread() {
  static GlibThread* thread = new GlibThread(GlibThread::Context::kGlobalDefault);  // never destroyed
  return *thread;
}

}  // namespace zephlore
