// The fork reader's view (ForkSource) of a resource fork kept in attribute
// pieces, with the platform's errors turned into the engine's: a missing
// fork is 705 ("not compressed"), anything unreadable 700, a range outside
// the fork 706 (a table that points past its end).
#pragma once

#include <memory>

#include "base/error.h"
#include "engine/fork_source.h"
#include "platform/attribute_fork.h"

namespace zephlore {

class AttributeForkSource final : public ForkSource {
 public:
  // `path` is only for messages.
  static std::unique_ptr<AttributeForkSource> open(Env& env, const FileRef& file, const std::string& path,
                                                   Error* error);

  uint64_t size() const override { return reader_->size(); }
  bool readAt(uint64_t off, void* buf, size_t n, Error* error) override;

 private:
  explicit AttributeForkSource(std::unique_ptr<AttributeForkReader> reader)
      : reader_(std::move(reader)) {}

  std::unique_ptr<AttributeForkReader> reader_;
};

}  // namespace zephlore
