#define FUSE_USE_VERSION 314
#include "view/view_file_system.h"

#include <dirent.h>
#include <fcntl.h>
#include <fuse3/fuse.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "base/log.h"
#include "engine/decmpfs_header.h"
#include "engine/engine_temporaries.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_uncompressor.h"
#include "platform/acting_as.h"
#include "platform/attribute_names.h"
#include "platform/descriptor_paths.h"
#include "platform/file_flags.h"
#include "view/compressed_content.h"
#include "view/layout_attributes.h"
#include "view/reply_pipe.h"

namespace zephlore::view {
namespace {

// What an open file of the view serves: the file beneath, and for a
// compressed file opened for reading, the means to inflate it.
struct Served {
  int fd = -1;
  std::shared_ptr<CompressedContent> compressed;
};

struct OpenFile {
  KeptPages::Ticket shown;  // for regular files
  bool writing = false;     // opened to write
  // Calls on the file hold it shared; release takes it alone before the
  // delete. The kernel already sends the release after the last call has
  // answered, but through /dev/fuse, where thread checkers cannot see it.
  std::shared_mutex inUse;

  Served served(ViewFileSystem& view);
  // Set once at the open.
  void serve(UniqueFd file, std::shared_ptr<CompressedContent> content, bool readOnly) {
    fd = std::move(file);
    compressed = std::move(content);
    follows = readOnly;
  }

 private:
  bool swappedOut(ViewFileSystem& view) const;
  void follow(ViewFileSystem& view);

  std::mutex mutex;  // guards what is served
  UniqueFd fd;
  std::shared_ptr<CompressedContent> compressed;
  // A file swapped beneath the view under the same name (expanded before a
  // write, or compressed) stays one file to the kernel, with one size and
  // one page cache: an open file that only reads follows its name, so that
  // it never puts another file's bytes, or a short read the kernel fills
  // with zeros, among the pages of the file now there.
  bool follows = false;
  std::vector<UniqueFd> replaced;  // a reply may still splice from one
};

// An open file for the length of one call.
struct UsedFile {
  explicit UsedFile(OpenFile* open) : use(open->inUse), file(open) {}
  OpenFile* operator->() const { return file; }
  std::shared_lock<std::shared_mutex> use;
  OpenFile* file;
};

// A directory read in batches of records; offsets handed to the kernel are
// the records' own (d_off), which lseek() goes back to.
struct OpenDirectory {
  explicit OpenDirectory(UniqueFd directory) : fd(std::move(directory)) {}
  UniqueFd fd;
  off_t offset = 0;   // where the next record handed out comes from
  size_t filled = 0;  // bytes of records read
  size_t at = 0;      // the next record not yet handed out
  alignas(struct dirent64) char records[32 * 1024];
};

ViewFileSystem& fs() { return *static_cast<ViewFileSystem*>(fuse_get_context()->private_data); }

// A path of the view relative to the root descriptor.
const char* rel(const char* path) { return path[1] != '\0' ? path + 1 : "."; }

UsedFile openFile(const fuse_file_info* fi) { return UsedFile(reinterpret_cast<OpenFile*>(fi->fh)); }
// What an open file serves now (see OpenFile::follows).
Served served(const fuse_file_info* fi) { return openFile(fi)->served(fs()); }
OpenDirectory& openDirectory(const fuse_file_info* fi) { return *reinterpret_cast<OpenDirectory*>(fi->fh); }

int result(int r) { return r < 0 ? -errno : r; }

// What a program creates through the view is its own, as beneath. A view
// run by root creates it as the calling user, with that user's groups (the
// file system beneath then also checks the access as theirs). A view run by
// a user cannot give a file to anyone else: another user's creations are
// refused, rather than made files of the view's user that their creator
// could not chmod.
class AsCaller {
 public:
  AsCaller() {
    const fuse_context* caller = fuse_get_context();
    if (caller->uid == geteuid()) return;
    if (geteuid() != 0) {
      refused_ = true;
      return;
    }
    std::vector<gid_t> groups(32);
    int n = fuse_getgroups(static_cast<int>(groups.size()), groups.data());
    if (n > static_cast<int>(groups.size())) {
      groups.resize(static_cast<size_t>(n));
      n = fuse_getgroups(n, groups.data());
    }
    // A caller already gone keeps its own user and group alone.
    groups.resize(n > 0 && n <= static_cast<int>(groups.size()) ? static_cast<size_t>(n) : 0);
    acting_.emplace(caller->uid, caller->gid, groups);
  }
  bool refused() const { return refused_; }

 private:
  bool refused_ = false;
  std::optional<ActingAs> acting_;
};

// The content size a compressed file's header gives; none for a file that
// is not in the compressed state (a file without the flag was left half
// converted and is shown as it is).
std::optional<uint64_t> compressedSizeOf(Env& env, const FileRef& file) {
  uint8_t value[kDecmpfsValueSize + 1];
  const ssize_t n = env.getxattr(file, attr::kDecmpfs, value, sizeof value);
  uint64_t size = 0;
  if (n < 0 || !parseDecmpfsValue(value, static_cast<size_t>(n), &size, nullptr)) return std::nullopt;
  std::optional<uint32_t> flags = FileFlags::get(env, file);
  if (!flags || !(*flags & FileFlags::kUFCompressed)) return std::nullopt;
  return size;
}

bool isCandidate(const struct stat& st) { return S_ISREG(st.st_mode) && st.st_size == 0; }

Served OpenFile::served(ViewFileSystem& view) {
  std::lock_guard lock(mutex);
  if (follows && swappedOut(view)) follow(view);
  return Served{fd.get(), compressed};
}

// A swap beneath the view unlinks the file it replaces.
bool OpenFile::swappedOut(ViewFileSystem& view) const {
  struct stat st;
  return view.env().fstat(fd.get(), &st) == 0 && st.st_nlink == 0;
}

void OpenFile::follow(ViewFileSystem& view) {
  // Removed through the view, the file keeps its content, as beneath.
  const std::optional<std::string> path = view.keptPages().pathOf(shown);
  if (!path) return;
  // Without waiting on a swap in progress: this call serves the file it has.
  Env& env = view.env();
  UniqueFd next(env.openAt(view.rootFd(), rel(path->c_str()), O_RDONLY | O_NONBLOCK));
  struct stat st;
  if (!next || env.fstat(next.get(), &st) != 0 || !S_ISREG(st.st_mode)) return;
  std::shared_ptr<CompressedContent> content;
  if (std::optional<uint64_t> size = view.compressedSize(FileRef::descriptor(next.get()), st)) {
    Error error;
    content = CompressedContent::open(view.env(), next.get(), st, *size, view.shownPath(path->c_str()), view.cache(),
                                      view.prefetcher(), &error);
    if (!content) return;
  }
  replaced.push_back(std::move(fd));
  fd = std::move(next);
  compressed = std::move(content);
}


// The kernel's copies of the attributes of the file of `st` under its other
// names are dropped after a change through `path` (or through an open file
// when it is null), which the kernel sees under that name alone.
void tellOtherNames(const struct stat& st, const char* path) {
  for (const std::string& name : fs().linkNames().namesOf(st, path ? path : "")) {
    fuse_invalidate_path(fuse_get_context()->fuse, name.c_str());
  }
}

// After a change to the file at `path` (or open as `fi`).
void changedThrough(const char* path, fuse_file_info* fi) {
  struct stat st;
  Env& env = fs().env();
  const int r = fi ? env.fstat(served(fi).fd, &st) : env.fstatAt(fs().rootFd(), rel(path), &st, AT_SYMLINK_NOFOLLOW);
  if (r == 0 && st.st_nlink > 1) tellOtherNames(st, path);
}

// --- Operations ---------------------------------------------------------------

void* viewInit(fuse_conn_info* conn, fuse_config* cfg) {
  // Real inode numbers keep hard links recognisable to cp -a and rsync -H.
  cfg->use_ino = 1;
  // Open files are served by descriptor, so an unlinked open file needs no
  // hidden rename, and reads and writes need no path.
  cfg->nullpath_ok = 1;
  cfg->hard_remove = 1;
  cfg->entry_timeout = 1.0;
  cfg->attr_timeout = 1.0;
  cfg->negative_timeout = 0;
  // Plain files' data goes from the file beneath to the kernel by splice.
  // Every listing carries the entries' attributes: a program that lists a
  // folder and then looks at its files (find, ls -l, tar, make) then finds
  // them in the kernel's cache instead of asking for each one. Left to the
  // kernel's guess, only the first part of a large folder came with them.
  conn->want &= ~FUSE_CAP_READDIRPLUS_AUTO;
  // Not dropping an open file's pages when its modification time moves: a
  // write through the view moves it, and pages dropped while another write
  // is still on its way beneath are read back short, the kernel filling the
  // rest with zeros. A file changed beneath is read afresh at its next open,
  // or when its size changes.
  conn->want &= ~FUSE_CAP_AUTO_INVAL_DATA;
  conn->want |= conn->capable & (FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE);
  fs().setSplicing(conn->want & FUSE_CAP_SPLICE_WRITE);
  return &fs();
}

int viewGetattr(const char* path, struct stat* st, fuse_file_info* fi) {
  if (fi) {
    const Served file = served(fi);
    if (fs().env().fstat(file.fd, st) != 0) return -errno;
    if (file.compressed) showContentSize(st, file.compressed->size());
    if (path && st->st_nlink > 1) fs().linkNames().seen(path, *st);
    return 0;
  }
  if (fs().env().fstatAt(fs().rootFd(), rel(path), st, AT_SYMLINK_NOFOLLOW) != 0) return -errno;
  if (st->st_nlink > 1) fs().linkNames().seen(path, *st);
  if (isCandidate(*st)) {
    if (std::optional<uint64_t> size = fs().compressedSize(path, *st)) showContentSize(st, *size);
  }
  return 0;
}

int viewReadlink(const char* path, char* buf, size_t size) {
  ssize_t n = fs().env().readLinkAt(fs().rootFd(), rel(path), buf, size - 1);
  if (n < 0) return -errno;
  buf[n] = '\0';
  return 0;
}

int viewMknod(const char* path, mode_t mode, dev_t rdev) {
  AsCaller caller;
  if (caller.refused()) return -EACCES;
  // A FIFO too: mkfifoat is mknodat with S_IFIFO, which `mode` has.
  return result(fs().env().mknodAt(fs().rootFd(), rel(path), mode, S_ISFIFO(mode) ? 0 : rdev));
}

int viewMkdir(const char* path, mode_t mode) {
  AsCaller caller;
  if (caller.refused()) return -EACCES;
  return result(fs().env().mkdirAt(fs().rootFd(), rel(path), mode));
}

int viewUnlink(const char* path) {
  Env& env = fs().env();
  struct stat st;
  const bool linked = env.fstatAt(fs().rootFd(), rel(path), &st, AT_SYMLINK_NOFOLLOW) == 0 && st.st_nlink > 1;
  if (env.unlinkAt(fs().rootFd(), rel(path), 0) != 0) return -errno;
  fs().keptPages().removed(path);
  if (linked) tellOtherNames(st, path);
  return 0;
}

int viewRmdir(const char* path) {
  if (fs().env().unlinkAt(fs().rootFd(), rel(path), AT_REMOVEDIR) != 0) return -errno;
  fs().keptPages().removed(path);
  return 0;
}

int viewSymlink(const char* target, const char* path) {
  AsCaller caller;
  if (caller.refused()) return -EACCES;
  return result(fs().env().symlinkAt(target, fs().rootFd(), rel(path)));
}

int viewRename(const char* from, const char* to, unsigned int flags) {
  // The file moved changes (its change time), and one it replaces loses a link.
  Env& env = fs().env();
  const int root = fs().rootFd();
  struct stat moved, replaced;
  const bool movedLinked = env.fstatAt(root, rel(from), &moved, AT_SYMLINK_NOFOLLOW) == 0 && moved.st_nlink > 1;
  const bool replacedLinked = env.fstatAt(root, rel(to), &replaced, AT_SYMLINK_NOFOLLOW) == 0 && replaced.st_nlink > 1;
  if (env.renameAt(root, rel(from), root, rel(to), flags) != 0) return -errno;
  if (movedLinked) tellOtherNames(moved, from);
  if (replacedLinked) tellOtherNames(replaced, to);
  if (flags & RENAME_EXCHANGE) {
    fs().keptPages().removed(from);
    fs().keptPages().removed(to);
  } else {
    fs().keptPages().renamed(from, to);
  }
  return 0;
}

int viewLink(const char* from, const char* to) {
  if (fs().env().linkAt(fs().rootFd(), rel(from), fs().rootFd(), rel(to), 0) != 0) return -errno;
  // Each name is a file of its own to the kernel: the one linked from (seen
  // perhaps while it was the only one) and the others have a new link count.
  fuse_invalidate_path(fuse_get_context()->fuse, from);
  changedThrough(to, nullptr);
  return 0;
}

int viewChmod(const char* path, mode_t mode, fuse_file_info* fi) {
  Env& env = fs().env();
  const int r = fi ? env.fchmod(served(fi).fd, mode) : env.chmodAt(fs().rootFd(), rel(path), mode);
  if (r != 0) return -errno;
  changedThrough(path, fi);
  return 0;
}

int viewChown(const char* path, uid_t uid, gid_t gid, fuse_file_info* fi) {
  Env& env = fs().env();
  const int r =
      fi ? env.fchown(served(fi).fd, uid, gid) : env.chownAt(fs().rootFd(), rel(path), uid, gid, AT_SYMLINK_NOFOLLOW);
  if (r != 0) return -errno;
  changedThrough(path, fi);
  return 0;
}

int viewTruncate(const char* path, off_t size, fuse_file_info* fi) {
  if (fi) {
    const Served file = served(fi);
    if (file.compressed) return -EBADF;
    if (fs().env().ftruncate(file.fd, static_cast<uint64_t>(size)) != 0) return -errno;
    changedThrough(path, fi);
    return 0;
  }
  if (int r = fs().expandBeforeWriting(path); r != 0) return r;
  Env& env = fs().env();
  UniqueFd fd(env.openAt(fs().rootFd(), rel(path), O_WRONLY | O_NONBLOCK));
  if (!fd) return -errno;
  if (env.ftruncate(fd.get(), static_cast<uint64_t>(size)) != 0) return -errno;
  changedThrough(path, nullptr);
  return 0;
}

int viewUtimens(const char* path, const struct timespec ts[2], fuse_file_info* fi) {
  Env& env = fs().env();
  const int r =
      fi ? env.futimens(served(fi).fd, ts) : env.utimensAt(fs().rootFd(), rel(path), ts, AT_SYMLINK_NOFOLLOW);
  if (r != 0) return -errno;
  changedThrough(path, fi);
  return 0;
}

// Opens the file, creating it as the caller (see AsCaller); with errno set
// on failure.
UniqueFd createAsCaller(const char* path, int flags, mode_t mode) {
  Env& env = fs().env();
  const int root = fs().rootFd();
  AsCaller caller;
  if (!caller.refused()) return UniqueFd(env.openAt(root, rel(path), flags, mode));
  // Another user's open of a file that is there is theirs to make.
  struct stat st;
  if (env.fstatAt(root, rel(path), &st, AT_SYMLINK_NOFOLLOW) == 0) {
    if (flags & O_EXCL) {
      errno = EEXIST;
      return UniqueFd();
    }
    return UniqueFd(env.openAt(root, rel(path), flags & ~O_CREAT, 0));
  }
  errno = EACCES;
  return UniqueFd();
}

// Opens (or creates) a file of the view. A compressed file is expanded
// first when the open may write; a compressed file opened for reading is
// served by inflating its blocks.
int openOrCreate(const char* path, fuse_file_info* fi, bool create, mode_t mode) {
  ViewFileSystem& view = fs();
  const bool writing = (fi->flags & O_ACCMODE) != O_RDONLY || (fi->flags & O_TRUNC);
  const int flags = fi->flags | O_CLOEXEC | O_NOFOLLOW | (create ? O_CREAT : 0);
  // The helper may compress the file between the check and the open: it is
  // looked at again through the opened descriptor.
  for (int attempt = 0; attempt < 3; ++attempt) {
    if (writing) {
      if (int r = view.expandBeforeWriting(path); r != 0) return r;
    }
    auto file = std::make_unique<OpenFile>();
    UniqueFd fd =
        create ? createAsCaller(path, flags, mode) : UniqueFd(view.env().openAt(view.rootFd(), rel(path), flags, mode));
    if (!fd) return -errno;
    struct stat st;
    if (view.env().fstat(fd.get(), &st) != 0) return -errno;
    std::shared_ptr<CompressedContent> compressed;
    if (S_ISREG(st.st_mode)) {
      const FileRef ref = FileRef::descriptor(fd.get());
      // The answer for this inode and change time, read through the
      // descriptor when it is not known yet.
      std::optional<uint64_t> size = view.compressedSize(ref, st);
      if (size && writing) continue;
      if (size) {
        Error error;
        compressed =
            CompressedContent::open(view.env(), fd.get(), st, *size, view.shownPath(path), view.cache(), view.prefetcher(), &error);
        if (!compressed) {
          KRLog("Cannot read %s: %s", view.shownPath(path).c_str(), error.describe().c_str());
          return -EIO;
        }
      } else if (view.isMixed(ref, st)) {
        view.noteMixedFile(path, st);
      }
      bool keep = false;
      file->shown = view.keptPages().opened(path, FileVersion::of(st), size.has_value(), writing, &keep);
      fi->keep_cache = keep;
      file->writing = writing;
    }
    file->serve(std::move(fd), std::move(compressed), !writing && S_ISREG(st.st_mode));
    fi->fh = reinterpret_cast<uint64_t>(file.release());
    return 0;
  }
  return -EBUSY;
}

int viewOpen(const char* path, fuse_file_info* fi) { return openOrCreate(path, fi, false, 0); }
int viewCreate(const char* path, mode_t mode, fuse_file_info* fi) { return openOrCreate(path, fi, true, mode); }

int viewReadBuf(const char*, fuse_bufvec** bufp, size_t size, off_t offset, fuse_file_info* fi) {
  UsedFile used = openFile(fi);
  const Served file = used->served(fs());
  // libfuse frees the vector and any memory in it after replying.
  auto* vec = static_cast<fuse_bufvec*>(std::calloc(1, sizeof(fuse_bufvec)));
  if (!vec) return -ENOMEM;
  vec->count = 1;
  fuse_buf& buf = vec->buf[0];
  buf.fd = -1;
  if (file.compressed) {
    std::vector<CompressedContent::Piece> pieces;
    const ssize_t n = file.compressed->pieces(static_cast<uint64_t>(offset), size, &pieces);
    if (n < 0) {
      std::free(vec);
      return static_cast<int>(n);
    }
    buf.size = static_cast<size_t>(n);
    // libfuse splices replies of two pages and more: those go by reference.
    const int fd = fs().splicing() && buf.size >= 2 * 4096 ? pipeHolding(pieces, buf.size) : -1;
    if (fd >= 0) {
      buf.flags = FUSE_BUF_IS_FD;
      buf.fd = fd;
    } else {
      buf.mem = std::malloc(buf.size > 0 ? buf.size : 1);
      if (!buf.mem) {
        std::free(vec);
        return -ENOMEM;
      }
      size_t done = 0;
      for (const CompressedContent::Piece& piece : pieces) {
        std::memcpy(static_cast<uint8_t*>(buf.mem) + done, piece.block->data() + piece.from, piece.length);
        done += piece.length;
      }
    }
  } else {
    // A plain file's bytes go by reference too, taken before the call ends.
    size_t got = 0;
    const int fd = fs().splicing() ? pipeFromFile(fs().env(), file.fd, offset, size, &got) : -1;
    if (fd >= 0) {
      buf.flags = FUSE_BUF_IS_FD;
      buf.fd = fd;
      buf.size = got;
    } else {
      buf.mem = std::malloc(size > 0 ? size : 1);
      const ssize_t n = buf.mem ? fs().env().pread(file.fd, buf.mem, size, static_cast<uint64_t>(offset)) : -1;
      if (n < 0) {
        const int error = buf.mem ? errno : ENOMEM;
        std::free(buf.mem);
        std::free(vec);
        return -error;
      }
      buf.size = static_cast<size_t>(n);
    }
  }
  *bufp = vec;
  return 0;
}

int viewWriteBuf(const char*, fuse_bufvec* in, off_t offset, fuse_file_info* fi) {
  UsedFile used = openFile(fi);
  const Served file = used->served(fs());
  if (file.compressed) return -EBADF;
  // Without splice reads from the kernel (not asked for) a write arrives in
  // memory: written beneath as a program's write would be, short or failed.
  if (in->count == 1 && !(in->buf[0].flags & FUSE_BUF_IS_FD)) {
    const fuse_buf& from = in->buf[0];
    size_t done = 0;
    while (done < from.size) {
      const ssize_t n = fs().env().pwrite(file.fd, static_cast<const char*>(from.mem) + done, from.size - done,
                                          static_cast<uint64_t>(offset) + done);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return done > 0 ? static_cast<int>(done) : -errno;
      if (n == 0) break;
      done += static_cast<size_t>(n);
    }
    return static_cast<int>(done);
  }
  fuse_bufvec out{};
  out.count = 1;
  out.buf[0].size = fuse_buf_size(in);
  out.buf[0].flags = static_cast<fuse_buf_flags>(FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK);
  out.buf[0].fd = file.fd;
  out.buf[0].pos = offset;
  return static_cast<int>(fuse_buf_copy(&out, in, FUSE_BUF_SPLICE_NONBLOCK));
}

int viewStatfs(const char*, struct statvfs* st) { return result(fs().env().fstatvfs(fs().rootFd(), st)); }

int viewRelease(const char*, fuse_file_info* fi) {
  auto* file = reinterpret_cast<OpenFile*>(fi->fh);
  { std::unique_lock last(file->inUse); }
  if (file->shown) fs().keptPages().closed(file->shown, file->writing);
  delete file;
  return 0;
}

int viewFsync(const char*, int datasync, fuse_file_info* fi) {
  const int fd = served(fi).fd;
  Env& env = fs().env();
  return result(datasync ? env.fdatasync(fd) : env.fsync(fd));
}

int viewSetxattr(const char* path, const char* name, const char* value, size_t size, int flags) {
  // Writing the layout through the view would make a mixed file.
  if (isLayoutAttribute(name)) return -EPERM;
  return result(fs().env().setxattrAt(fs().rootFd(), rel(path), name, value, size, flags));
}

int viewGetxattr(const char* path, const char* name, char* value, size_t size) {
  if (isLayoutAttribute(name)) return -ENODATA;
  ssize_t n = fs().env().getxattrAt(fs().rootFd(), rel(path), name, value, size);
  return n < 0 ? -errno : static_cast<int>(n);
}

int viewListxattr(const char* path, char* list, size_t size) {
  std::vector<char> names(kXattrListMax);
  ssize_t n = fs().env().listxattrAt(fs().rootFd(), rel(path), names.data(), names.size());
  if (n < 0) return -errno;
  const size_t kept = removeLayoutAttributes(names.data(), static_cast<size_t>(n));
  if (size == 0) return static_cast<int>(kept);
  if (kept > size) return -ERANGE;
  std::memcpy(list, names.data(), kept);
  return static_cast<int>(kept);
}

int viewRemovexattr(const char* path, const char* name) {
  if (isLayoutAttribute(name)) return -ENODATA;
  return result(fs().env().removexattrAt(fs().rootFd(), rel(path), name));
}

int viewOpendir(const char* path, fuse_file_info* fi) {
  UniqueFd fd(fs().env().openAt(fs().rootFd(), rel(path), O_RDONLY | O_DIRECTORY));
  if (!fd) return -errno;
  fi->fh = reinterpret_cast<uint64_t>(new OpenDirectory(std::move(fd)));
  return 0;
}

int viewReaddir(const char*, void* buf, fuse_fill_dir_t filler, off_t offset, fuse_file_info* fi,
                fuse_readdir_flags flags) {
  Env& env = fs().env();
  OpenDirectory& d = openDirectory(fi);
  const int dirFd = d.fd.get();
  if (offset != d.offset) {
    if (env.lseek(dirFd, offset, SEEK_SET) < 0) return -errno;
    d.filled = d.at = 0;
    d.offset = offset;
  }
  while (true) {
    if (d.at >= d.filled) {
      const ssize_t n = env.readDirectoryRecords(dirFd, d.records, sizeof d.records);
      if (n <= 0) break;  // the end, or a failure that ends the listing as readdir's did
      d.filled = static_cast<size_t>(n);
      d.at = 0;
    }
    const auto* entry = reinterpret_cast<const struct dirent64*>(d.records + d.at);
    const size_t length = entry->d_reclen;
    const off_t next = entry->d_off;
    // The copy a conversion builds beside a file lives for moments: a
    // program listing the folder (git add -A, a backup) would find it gone
    // when it opens it. Left over after a crash it is still reached by its
    // name, and zephlore repair and info -r show it.
    if (EngineTemporaries::isTemporaryName(entry->d_name)) {
      d.at += length;
      d.offset = next;
      continue;
    }
    struct stat st{};
    fuse_fill_dir_flags fill = static_cast<fuse_fill_dir_flags>(0);
    if ((flags & FUSE_READDIR_PLUS) && env.fstatAt(dirFd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
      fill = FUSE_FILL_DIR_PLUS;
      if (isCandidate(st)) {
        const FileRef file = FileRef::atPath(descriptorPath(dirFd) + "/" + entry->d_name);
        if (std::optional<uint64_t> size = fs().compressedSize(file, st)) {
          showContentSize(&st, *size);
        }
      }
    } else {
      st = {};
      st.st_ino = entry->d_ino;
      st.st_mode = static_cast<mode_t>(entry->d_type) << 12;
    }
    if (filler(buf, entry->d_name, &st, next, fill)) break;
    d.at += length;
    d.offset = next;
  }
  return 0;
}

int viewReleasedir(const char*, fuse_file_info* fi) {
  delete &openDirectory(fi);
  return 0;
}

int viewFsyncdir(const char*, int datasync, fuse_file_info* fi) {
  const int fd = openDirectory(fi).fd.get();
  Env& env = fs().env();
  return result(datasync ? env.fdatasync(fd) : env.fsync(fd));
}

// Asked only of a view without default_permissions: every view has them, and the kernel checks.
int viewAccess(const char* path, int mask) { return result(fs().env().accessAt(fs().rootFd(), rel(path), mask)); }

int viewFlock(const char*, fuse_file_info* fi, int op) { return result(fs().env().flock(served(fi).fd, op)); }

int viewFallocate(const char*, int mode, off_t offset, off_t length, fuse_file_info* fi) {
  const Served file = served(fi);
  if (file.compressed) return -EBADF;
  return result(fs().env().fallocate(file.fd, mode, offset, length));
}

off_t viewLseek(const char*, off_t offset, int whence, fuse_file_info* fi) {
  const Served file = served(fi);
  if (file.compressed) {
    // The content has no holes.
    const off_t size = static_cast<off_t>(file.compressed->size());
    if (offset < 0 || offset >= size) return -ENXIO;
    return whence == SEEK_DATA ? offset : size;
  }
  off_t r = fs().env().lseek(file.fd, offset, whence);
  return r < 0 ? -errno : r;
}

fuse_operations makeOperations() {
  fuse_operations ops{};
  ops.init = viewInit;
  ops.getattr = viewGetattr;
  ops.readlink = viewReadlink;
  ops.mknod = viewMknod;
  ops.mkdir = viewMkdir;
  ops.unlink = viewUnlink;
  ops.rmdir = viewRmdir;
  ops.symlink = viewSymlink;
  ops.rename = viewRename;
  ops.link = viewLink;
  ops.chmod = viewChmod;
  ops.chown = viewChown;
  ops.truncate = viewTruncate;
  ops.utimens = viewUtimens;
  ops.open = viewOpen;
  ops.create = viewCreate;
  ops.read_buf = viewReadBuf;
  ops.write_buf = viewWriteBuf;
  ops.statfs = viewStatfs;
  ops.release = viewRelease;
  ops.fsync = viewFsync;
  ops.setxattr = viewSetxattr;
  ops.getxattr = viewGetxattr;
  ops.listxattr = viewListxattr;
  ops.removexattr = viewRemovexattr;
  ops.opendir = viewOpendir;
  ops.readdir = viewReaddir;
  ops.releasedir = viewReleasedir;
  ops.fsyncdir = viewFsyncdir;
  ops.access = viewAccess;
  ops.flock = viewFlock;
  ops.fallocate = viewFallocate;
  ops.lseek = viewLseek;
  // No lock(): POSIX record locks are then kept by the kernel for the view.
  return ops;
}

}  // namespace

void showContentSize(struct stat* st, uint64_t size) {
  st->st_size = static_cast<off_t>(size);
  st->st_blocks = static_cast<blkcnt_t>((size + 4095) / 4096 * 8);
}

ViewFileSystem::ViewFileSystem(Env& env, UniqueFd root, std::string shownAs, size_t cacheBytes)
    : env_(env),
      root_(std::move(root)),
      base_(descriptorPath(root_.get())),
      shownAs_(std::move(shownAs)),
      cache_(cacheBytes),
      prefetcher_(2) {}

const fuse_operations& ViewFileSystem::operations() {
  static const fuse_operations ops = makeOperations();
  return ops;
}

std::string ViewFileSystem::underlyingPath(const char* path) const {
  return path[1] != '\0' ? base_ + path : base_;
}

std::string ViewFileSystem::shownPath(const char* path) const {
  return path[1] != '\0' ? shownAs_ + path : shownAs_;
}

int64_t ViewFileSystem::layoutOf(const FileRef& file, const struct stat& st) {
  const FileVersion key = FileVersion::of(st);
  {
    std::lock_guard lock(sizesMutex_);
    if (auto found = sizes_.find(key); found != sizes_.end()) return found->second;
  }
  int64_t layout = kPlain;
  if (isCandidate(st)) {
    if (std::optional<uint64_t> size = compressedSizeOf(env_, file)) layout = static_cast<int64_t>(*size);
  } else if (env_.getxattr(file, attr::kDecmpfs, nullptr, 0) >= 0) {
    layout = kMixed;
  }
  constexpr size_t kMostSizes = 1 << 18;
  std::lock_guard lock(sizesMutex_);
  if (sizes_.size() >= kMostSizes) sizes_.clear();
  sizes_[key] = layout;
  return layout;
}

std::optional<uint64_t> ViewFileSystem::compressedSize(const FileRef& file, const struct stat& st) {
  if (!isCandidate(st)) return std::nullopt;
  const int64_t layout = layoutOf(file, st);
  if (layout < 0) return std::nullopt;
  return static_cast<uint64_t>(layout);
}

bool ViewFileSystem::isMixed(const FileRef& file, const struct stat& st) {
  return S_ISREG(st.st_mode) && st.st_size > 0 && layoutOf(file, st) == kMixed;
}

// What the writer is told: the engine's reason carries the system's own
// words for a full volume or quota, so those stay what they were.
static int errnoForExpansionFailure(const Error& error) {
  if (error.code == kHFSErrorOpenForWriting) return -EBUSY;
  if (error.code == kHFSErrorOutOfMemory) return -ENOMEM;
  for (int err : {ENOSPC, EDQUOT, EROFS, EACCES, EPERM}) {
    if (error.message.find(std::strerror(err)) != std::string::npos) return -err;
  }
  return -EIO;
}

int ViewFileSystem::expandBeforeWriting(const char* path) {
  std::lock_guard lock(expandMutex_);
  // A reader opening the file through the view while it is swapped undoes
  // the swap: tried again, a bounded number of times.
  Error error;
  for (int attempt = 0; attempt < 5; ++attempt) {
    struct stat st;
    if (env_.fstatAt(root_.get(), rel(path), &st, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT ? 0 : -errno;
    if (!compressedSize(path, st)) return 0;
    error = Error();
    if (QVHFSUncompressor::expandInPlacePath(env_, underlyingPath(path), &error)) return 0;
    if (error.code != kHFSErrorOpenedDuringSwap) break;
  }
  KRLog("Could not expand %s before writing to it: %s", shownPath(path).c_str(), error.describe().c_str());
  return errnoForExpansionFailure(error);
}

void ViewFileSystem::noteMixedFile(const char* path, const struct stat& st) {
  std::lock_guard lock(mixedMutex_);
  if (!mixedReported_.insert({st.st_dev, st.st_ino}).second) return;
  KRLog("%s was written after it was compressed; the view shows its data fork and keeps its compressed data",
        shownPath(path).c_str());
}

}  // namespace zephlore::view
