#include "platform/session_bus_address.h"

#include <sys/stat.h>

#include <cstdlib>
#include <string>

namespace zephlore {

bool sessionBusAddressKnown() {
  const char* address = getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address && *address) return true;
  const char* runtime = getenv("XDG_RUNTIME_DIR");
  if (!runtime || !*runtime) return false;
  struct stat st;
  return stat((std::string(runtime) + "/bus").c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

}  // namespace zephlore
