#include "view/stored_files.h"

#include <atomic>

#include "engine/tree_walker.h"
#include "platform/attribute_names.h"

namespace zephlore::view {
namespace {

class CompressedFileCounter final : public WalkVisitor {
 public:
  CompressedFileCounter(Env& env, const std::string& root, size_t enough) : env_(env), root_(root), enough_(enough) {}

  void visit(const WalkEntry& entry, WalkSkip) override {
    if (!S_ISREG(entry.st->st_mode) || entry.st->st_size != 0) return;
    if (env_.getxattr(FileRef::atPath(std::string(entry.path)), attr::kDecmpfs, nullptr, 0) < 0) return;
    if (found.count++ == 0) found.first = std::string(entry.path.substr(root_.size() + 1));
    if (found.count >= enough_) done.store(true);
  }
  void walkError(std::string_view, int, const char*, bool) override {}  // unreadable folders are passed by

  CompressedFiles found;
  std::atomic<bool> done{false};

 private:
  Env& env_;
  const std::string& root_;
  const size_t enough_;
};

}  // namespace

CompressedFiles compressedFilesIn(Env& env, const std::string& root, size_t enough) {
  if (enough == 0) return {};
  CompressedFileCounter counter(env, root, enough);
  TreeWalker(env, WalkOptions{.recursive = true, .cross_volumes = true}, &counter.done).walk(root, counter);
  return counter.found;
}

}  // namespace zephlore::view
