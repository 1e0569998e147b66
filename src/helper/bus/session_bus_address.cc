#include "helper/bus/session_bus_address.h"

#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "platform/env.h"

namespace zephlore {

bool sessionBusAddressKnown() {
  const char* address = getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address && *address) return true;
  const char* runtime = getenv("XDG_RUNTIME_DIR");
  if (!runtime || !*runtime) return false;
  // The runtime folder is the system's, never beneath a view.
  struct stat st;
  return Env::system().stat(std::string(runtime) + "/bus", &st) == 0 && S_ISSOCK(st.st_mode);
}

}  // namespace zephlore
