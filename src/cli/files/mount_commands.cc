// zephlore mount / unmount: the view in which every program reads compressed
// files at their full content.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/files/commands.h"
#include "cli/files/conversion_safety.h"
#include "cli/files/display_name.h"
#include "cli/files/file_actions.h"
#include "cli/files/tree_run.h"
#include "view/mount_table.h"
#include "view/stored_files.h"
#include "view/underlying_tree.h"
#include "view/view_mount.h"
#include "view/view_mounter.h"

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

struct UnmountOptions {
  std::string mountPoint;
  bool lazy = false;
  bool expand = false;
  bool force = false;
};

int unmountFailed(const std::string& message) {
  fprintf(stderr, "zephlore unmount: %s\n", escapeForTerminal(message).c_str());
  return 1;
}

int unmountNow(const std::string& mountPoint, bool lazy) {
  Error error;
  if (!view::unmountView(mountPoint, lazy, &error)) return unmountFailed(error.message);
  return 0;
}

std::string filesCount(size_t n) { return std::to_string(n) + (n == 1 ? " compressed file" : " compressed files"); }

// Expands the compressed files stored in `beneath`, as zephlore
// decompress -r does; how many are left.
size_t expandBeneath(Env& env, Clock& clock, const FoundDataFolder& dataFolder, const std::string& beneath) {
  RunOptions run;
  run.op = Operation::kDecompress;
  run.recursive = true;
  run.progress = isatty(STDOUT_FILENO) && isatty(STDERR_FILENO);
  ConversionSafety safety(env, dataFolder);
  std::unique_ptr<FileAction> action = makeDecompressAction(env, &safety);
  runFiles(env, clock, {beneath}, run, *action);
  return view::compressedFilesIn(env, beneath).count;
}

int runUnmount(Env& env, Clock& clock, const FoundDataFolder& dataFolder, const UnmountOptions& options) {
  const std::string folder = view::absolutePath(options.mountPoint);
  std::optional<view::ViewMountEntry> mounted;
  for (view::ViewMountEntry& entry : view::viewMounts()) {
    if (entry.mountPoint == folder) mounted = std::move(entry);
  }
  if (!mounted) return unmountFailed("no view is mounted on " + folder);
  const bool dead = view::isViewDisconnected(folder);
  // Only a view over its own folder hides stored files that programs would
  // then read as empty.
  if (!view::isOverView(*mounted) || options.force) return unmountNow(folder, options.lazy || dead);

  if (dead) {
    if (!options.expand) {
      unmountFailed("the view on " + folder + " has stopped (its process is gone). Detaching it shows the files "
                    "stored in " + folder + ", where programs read every compressed file as empty and an edit "
                    "can destroy one; they cannot be counted while the stopped view hides them");
      return unmountFailed("put the view back with: zephlore mount --over " + folder + " (zephlore unmount --expand " +
                           folder + " puts it back, expands the files and unmounts; --force detaches it anyway)");
    }
    Error error;
    if (!view::ViewMounter(env, view::ViewMounter::defaultCommand()).mountOver(folder, &error)) return unmountFailed(error.message);
  }
  // The stored files are reached through the view's own descriptor.
  const std::optional<view::ViewCover> cover = view::viewCovering(folder);
  if (!cover || cover->mountPoint != folder) {
    return unmountFailed("the files stored beneath the view on " + folder +
                         " cannot be reached to count its compressed files (its process is not one of yours); "
                         "--force unmounts anyway");
  }
  const std::string beneath = cover->beneath + "/.";
  size_t left = view::compressedFilesIn(env, beneath).count;
  if (left > 0 && !options.expand) {
    unmountFailed(folder + " holds " + filesCount(left) + ": without the view, programs read " +
                  (left == 1 ? "it" : "them") + " as empty, and saving one from a program writes an empty file "
                  "over it");
    return unmountFailed("to end the view, expand them first: zephlore unmount --expand " + folder +
                         " (or zephlore decompress -r " + folder + ", then zephlore unmount " + folder +
                         "); --force unmounts anyway");
  }
  if (left > 0) left = expandBeneath(env, clock, dataFolder, beneath);
  if (left > 0) {
    return unmountFailed(filesCount(left) + " in " + folder + " could not be expanded; the view stays");
  }
  return unmountNow(folder, options.lazy);
}

}  // namespace

void addMountCommands(CLI::App& app, Env& env, Clock& clock, const FoundDataFolder& dataFolder, int* exit_code) {
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
      "Other users, and the system's services that run as root, enter the view as they would the folder, the "
      "kernel checking owners and modes as beneath: always in a view mounted by root, and in a user's view where "
      "/etc/fuse.conf has the line user_allow_other. Without it a user's view is theirs alone (zephlore status "
      "says so). What another user creates in a view mounted by root is theirs; a user's view refuses other "
      "users' creations (EACCES), as it could not make them theirs.\n"
      "-o takes mount options separated by commas, as mount(8) does, and may be given more than once.\n"
      "A view left on the mount point by a killed process (ENOTCONN) is detached first and replaced, so "
      "zephlore mount --over FOLDER is the one command that puts a stopped view back.\n"
      "Exit status: 0 mounted (or, with -f, cleanly unmounted), 1 when it cannot be mounted, 2 on usage errors.\n");
  mount->add_option("PATH", options->paths, "SOURCE MOUNTPOINT, or FOLDER with --over")->required()->expected(1, 2);
  mount->add_flag("--over", options->over, "Mount the view on the folder itself");
  mount->add_flag("-f,--foreground", options->foreground, "Stay in the foreground until unmounted");
  mount->add_option("--cache-size", options->cacheMiB, "MiB of inflated blocks kept for all open files (default 64)")
      ->check(CLI::Range(1, 65536));
  // As mount(8) takes it: one list per -o, repeatable; the paths after it
  // stay the command's.
  mount->add_option("-o", options->fuseOptions, "Further FUSE mount options, separated by commas (ro, noatime, ...)")
      ->allow_extra_args(false)
      ->delimiter(',');
  mount->callback([&env, options, exit_code] { *exit_code = runMount(env, *options); });

  auto unmountOptions = std::make_shared<UnmountOptions>();
  CLI::App* unmount = app.add_subcommand("unmount", "Unmount a view mounted by zephlore mount");
  unmount->footer(
      "A view over a folder (mount --over) is what shows its compressed files at full content: without it, "
      "programs read each of them as an empty file, and saving one from a program writes an empty file over "
      "it. So unmounting such a folder while compressed files are stored in it is refused, with their count; "
      "--expand expands them first with the engine's expander (as zephlore decompress -r FOLDER does) and then "
      "unmounts; --force unmounts anyway. A view on another mount point (mount SOURCE MOUNTPOINT) is unmounted "
      "as asked: the folder shown keeps its files as stored.\n"
      "A view whose process was killed (where programs get ENOTCONN, \"Transport endpoint is not connected\") "
      "hides the files beneath it until it is detached, and they cannot be counted meanwhile: unmounting such a "
      "view over a folder is refused as well. zephlore mount --over FOLDER puts it back; --expand puts it back, "
      "expands the files and unmounts; --force detaches it.\n"
      "Exit status: 0 unmounted, 1 otherwise (no view there, compressed files in the folder, files in the view "
      "still open), 2 on usage errors.\n");
  unmount->add_option("MOUNTPOINT", unmountOptions->mountPoint, "Where the view is mounted")->required();
  unmount->add_flag("-z,--lazy", unmountOptions->lazy, "Detach the view now even while files in it are open");
  CLI::Option* expand = unmount->add_flag("--expand", unmountOptions->expand,
                                          "Expand the compressed files stored in the folder first, then unmount");
  unmount->add_flag("--force", unmountOptions->force,
                    "Unmount even though programs would then read the folder's compressed files as empty")
      ->excludes(expand);
  unmount->callback([&env, &clock, &dataFolder, unmountOptions, exit_code] {
    *exit_code = runUnmount(env, clock, dataFolder, *unmountOptions);
  });
}

}  // namespace zephlore::cli
