#include "helper/history/folder_savings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "engine/compressed_file_info.h"
#include "engine/tree_walker.h"

namespace zephlore {
namespace {

class SavingsVisitor : public WalkVisitor {
 public:
  explicit SavingsVisitor(Env& env) : env_(env) {}
  void visit(const WalkEntry& entry, WalkSkip skip) override {
    // A compressed file keeps an empty data fork: nothing else is opened.
    if (skip != WalkSkip::kNone || !S_ISREG(entry.st->st_mode) || entry.st->st_size != 0) return;
    const int fd = env_.openAt(entry.dir_fd, entry.name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0);
    if (fd < 0) return;
    CompressedFileInfo info;
    Error error;
    if (CompressedFileInfo::inspect(env_, fd, *entry.st, &info, &error, /*checkFork=*/false)) saved += info.savedBytes();
    env_.close(fd);
  }
  void walkError(std::string_view, int, const char*, bool) override {}

  uint64_t saved = 0;

 private:
  Env& env_;
};

}  // namespace

std::optional<uint64_t> measureFolderSavings(Env& env, const std::string& folder, const std::atomic<bool>* stop) {
  struct stat st;
  if (env.lstat(folder, &st) != 0 || !S_ISDIR(st.st_mode)) return std::nullopt;
  SavingsVisitor visitor(env);
  TreeWalker(env, WalkOptions{.recursive = true, .cross_volumes = false}, stop).walk(folder, visitor);
  if (stop && stop->load()) return std::nullopt;
  return visitor.saved;
}

}  // namespace zephlore
