// single_copy_probe: a stand-in for the helper in the single-copy test. Runs
// the check on the session bus and prints "running" or "second copy"; a
// running one stays until its standard input closes.
#include <unistd.h>

#include <cstdio>

#include "helper/bus/distributed_notification_center.h"
#include "helper/lifecycle/single_copy.h"
#include "protocol/bus_names.h"

int main() {
  using namespace zephlore;
  DistributedNotificationCenter bus;
  SingleCopyVerdict verdict = checkSingleCopy(Env::system(), bus.connection(), kHelperBusName);
  printf("%s copies=%d primary=%d\n", verdict.terminate ? "second copy" : "running", verdict.copies,
         verdict.primaryOwner ? 1 : 0);
  fflush(stdout);
  if (verdict.terminate) return 0;
  char c;
  while (read(0, &c, 1) > 0) {
  }
  return 0;
}
