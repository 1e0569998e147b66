// zephlore mount / unmount: the view in which every program reads compressed
// files at their full content.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "cli/files/commands.h"
#include "view/mount_table.h"
#include "view/view_mount.h"

namespace zephlore::cli {
namespace {

struct MountOptions {
  std::vector<std::string> paths;
  bool over = false;
  bool foreground = false;
  size_t cacheMiB = 64;
  std::vector<std::string> fuseOptions;
};

int runMount(Env& env, const MountOptions& options) {
  if (options.over != (options.paths.size() == 1)) {
    fprintf(stderr, "zephlore mount: give SOURCE MOUNTPOINT, or --over FOLDER\n");
    return 2;
  }
  view::ViewMountOptions view;
  view.source = options.paths[0];
  view.mountPoint = options.over ? options.paths[0] : options.paths[1];
  view.over = options.over;
  view.foreground = options.foreground;
  view.cacheBytes = options.cacheMiB << 20;
  view.fuseOptions = options.fuseOptions;
  return view::runView(env, view);
}

}  // namespace

void addMountCommands(CLI::App& app, Env& env, int* exit_code) {
  auto options = std::make_shared<MountOptions>();
  CLI::App* mount = app.add_subcommand("mount", "Show a folder with every compressed file at its full content");
  mount->footer(
      "zephlore mount SOURCE MOUNTPOINT shows SOURCE on MOUNTPOINT; zephlore mount --over FOLDER shows FOLDER "
      "on itself, so every program reads the folder's usual paths at full content.\n"
      "In the view, compressed files have their full size and content; the attributes of the compressed layout "
      "are hidden (copies out of the view are plain files); opening a compressed file for writing or truncating "
      "it first expands it in place. Everything else passes through to the files beneath.\n"
      "The view must be mounted before programs open files in the folder: a program that opened a file "
      "beneath earlier still sees it as it is stored.\n"
      "Like other FUSE file systems the command goes into the background once the view is mounted (its log "
      "lines go to syslog) and returns 0; -f keeps it in the foreground (log lines on standard error) until the "
      "view is unmounted. The view runs unprivileged, through fusermount3.\n"
      "Exit status: 0 mounted (or, with -f, cleanly unmounted), 1 when it cannot be mounted, 2 on usage errors.\n");
  mount->add_option("PATH", options->paths, "SOURCE MOUNTPOINT, or FOLDER with --over")->required()->expected(1, 2);
  mount->add_flag("--over", options->over, "Mount the view on the folder itself");
  mount->add_flag("-f,--foreground", options->foreground, "Stay in the foreground until unmounted");
  mount->add_option("--cache-size", options->cacheMiB, "MiB of inflated blocks kept for all open files (default 64)")
      ->check(CLI::Range(1, 65536));
  mount->add_option("-o", options->fuseOptions, "Further FUSE mount options (allow_other, ...)");
  mount->callback([&env, options, exit_code] { *exit_code = runMount(env, *options); });

  auto mountPoint = std::make_shared<std::string>();
  auto lazy = std::make_shared<bool>(false);
  CLI::App* unmount = app.add_subcommand("unmount", "Unmount a view mounted by zephlore mount");
  unmount->footer(
      "Works for a view whose process was killed (where programs get ENOTCONN). The files beneath are never "
      "touched.\nExit status: 0 unmounted, 1 otherwise (no view there, or files in it still open), 2 on usage "
      "errors.\n");
  unmount->add_option("MOUNTPOINT", *mountPoint, "Where the view is mounted")->required();
  unmount->add_flag("-z,--lazy", *lazy, "Detach the view now even while files in it are open");
  unmount->callback([mountPoint, lazy, exit_code] {
    Error error;
    if (view::unmountView(view::absolutePath(*mountPoint), *lazy, &error)) {
      *exit_code = 0;
      return;
    }
    fprintf(stderr, "zephlore unmount: %s\n", error.message.c_str());
    *exit_code = 1;
  });
}

}  // namespace zephlore::cli
