#define FUSE_USE_VERSION 314
#include "view/view_mount.h"

#include <fcntl.h>
#include <fuse3/fuse.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "base/log.h"
#include "platform/env.h"
#include "platform/fuse_availability.h"
#include "view/mount_table.h"
#include "view/view_file_system.h"

namespace zephlore::view {
namespace {

// Commas and backslashes would split the option list.
std::string escapeOption(const std::string& value) {
  std::string out;
  for (char c : value) {
    if (c == ',' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

int failed(const std::string& message) {
  fprintf(stderr, "zephlore mount: %s\n", message.c_str());
  return 1;
}

struct FuseDeleter {
  void operator()(fuse* f) const { fuse_destroy(f); }
};

}  // namespace

int runView(Env& env, const ViewMountOptions& options) {
  const std::string source = absolutePath(options.source);
  const std::string mountPoint = absolutePath(options.over ? options.source : options.mountPoint);

  if (isViewMounted(mountPoint)) {
    Error error;
    if (!isViewDisconnected(mountPoint)) return failed("a view is already mounted on " + mountPoint);
    // Its process was killed: the view left behind only answers ENOTCONN.
    // Detached even while programs hold files open in it; the mount point
    // then shows the folder itself again, which the view opens below.
    if (!detachDeadView(mountPoint, &error)) return failed(error.message);
  }

  // Opened before the mount covers it: the tree stays reachable through it.
  // Links resolved first: the folder a link names is shown, as open(2) would.
  const std::optional<std::string> resolved = env.realPath(source);
  UniqueFd root(resolved ? env.open(*resolved, O_RDONLY | O_DIRECTORY) : -1);
  if (!root) return failed("cannot open " + source + ": " + strerror(errno));

  // Modes reach us with the caller's umask already applied.
  umask(0);
  ViewFileSystem view(env, std::move(root), mountPoint, options.cacheBytes);

  // The kernel checks every access against the owners and modes shown, as
  // beneath; so other users (and root's services) may enter wherever the
  // system lets this process's mounts admit them.
  std::string mountOptions = "fsname=" + escapeOption(source) + ",subtype=zephlore,default_permissions";
  bool othersAsked = false;
  for (const std::string& extra : options.fuseOptions) {
    mountOptions += "," + extra;
    othersAsked |= extra == "allow_other" || extra == "allow_root";
  }
  if (!othersAsked && othersMayEnterFuseMounts()) {
    mountOptions += ",allow_other";
  } else if (!othersAsked) {
    fprintf(stderr, "zephlore mount: note: %s\n", othersLockedOutAdvice(mountPoint).c_str());
  }
  std::vector<std::string> args = {"zephlore", "-o", mountOptions};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  fuse_args fargs = FUSE_ARGS_INIT(static_cast<int>(argv.size()), argv.data());

  std::unique_ptr<fuse, FuseDeleter> f(
      fuse_new(&fargs, &ViewFileSystem::operations(), sizeof(fuse_operations), &view));
  fuse_opt_free_args(&fargs);
  if (!f) return failed("cannot set up the view (bad options?)");
  if (fuse_mount(f.get(), mountPoint.c_str()) != 0) return failed("cannot mount the view on " + mountPoint);

  printf("zephlore: %s is shown at full content on %s\n", source.c_str(), mountPoint.c_str());
  fflush(stdout);
  if (!options.foreground) {
    if (fuse_daemonize(0) != 0) {
      fuse_unmount(f.get());
      return failed("cannot go into the background");
    }
    setLogTarget(LogTarget::kSyslogAndTerminal);
  }

  fuse_session* session = fuse_get_session(f.get());
  if (fuse_set_signal_handlers(session) != 0) {
    fuse_unmount(f.get());
    return failed("cannot install signal handlers");
  }
  // Each open file and block read takes and frees buffers of 64 KiB and
  // more: they stay in the heap for the next one instead of going back to
  // the system and being faulted in again.
  mallopt(M_MMAP_THRESHOLD, 1 << 20);
  mallopt(M_TRIM_THRESHOLD, 32 << 20);
  fuse_loop_config* config = fuse_loop_cfg_create();
  fuse_loop_cfg_set_max_threads(config, 16);
  const int status = fuse_loop_mt(f.get(), config);
  fuse_loop_cfg_destroy(config);
  fuse_remove_signal_handlers(session);
  fuse_unmount(f.get());
  if (status != 0) KRLog("The view on %s stopped with an error (%d)", mountPoint.c_str(), status);
  return status == 0 ? 0 : 1;
}

}  // namespace zephlore::view
