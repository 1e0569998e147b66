// Whether the kernel may keep the pages it already read of a file when the
// file is opened again through the view (FUSE's keep_cache), instead of
// reading it all again. Only a compressed file qualifies: its content cannot
// change without its change time moving on (the data lives in attributes,
// and a write beside it makes a mixed file), so the same inode with the same
// change time is the same content. Plain files are read afresh at each open,
// as any pass-through does: a write beneath the view need not move the
// change time in step.
//
// The kernel keeps pages per file of the view, that is per path (moved by
// renames through the view). They are trusted only when every file opened at
// that path since the kernel last dropped them was this same version.
// For the same reason an open file follows its path (pathOf()) when the
// file beneath is swapped under that name.
//
// A plain file keeps them too while it is open for writing through the view:
// the kernel's pages then hold what was written, some of it not yet beneath,
// and pages dropped in the middle of a write would be read back from the file
// as it was before the write (a short read the kernel fills with zeros).
// Thread-safe.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "view/file_version.h"

namespace zephlore::view {

class KeptPages {
 public:
  struct Shown;  // one path's history, held by the files open there
  using Ticket = std::shared_ptr<Shown>;

  // At every open of `path`: `version` is the file opened, `fixed` says
  // whether its content is fixed by its version (a compressed file) and
  // `writing` whether the open may write. Sets *keep when the kernel may keep
  // its pages; the ticket goes back to closed() with the same `writing` when
  // the file is released.
  Ticket opened(const std::string& path, const FileVersion& version, bool fixed, bool writing, bool* keep);
  void closed(const Ticket& ticket, bool writing);
  // Where the file opened with `ticket` is now shown; none once its name
  // was removed, or taken by another file, through the view.
  std::optional<std::string> pathOf(const Ticket& ticket);

  // A name removed, or moved, through the view (a folder with everything in it).
  void removed(const std::string& path);
  void renamed(const std::string& from, const std::string& to);

 private:
  void dropUnder(const std::string& path);

  std::mutex mutex_;
  std::map<std::string, Ticket> shown_;  // by path of the view
};

}  // namespace zephlore::view
