// Random access to the bytes of a resource-fork image, wherever they are
// kept: in memory, in a file, or (in the platform layer) in attribute pieces.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/error.h"
#include "platform/env.h"

namespace zephlore {

class ForkSource {
 public:
  virtual ~ForkSource() = default;
  virtual uint64_t size() const = 0;
  // Reads exactly n bytes at off, or fails with an error. Readers call it
  // from one thread at a time.
  virtual bool readAt(uint64_t off, void* buf, size_t n, Error* error) = 0;
};

// Bytes owned by the caller, who keeps them alive.
class MemoryForkSource final : public ForkSource {
 public:
  MemoryForkSource(const void* data, size_t size) : data_(static_cast<const uint8_t*>(data)), size_(size) {}
  uint64_t size() const override { return size_; }
  bool readAt(uint64_t off, void* buf, size_t n, Error* error) override;

 private:
  const uint8_t* data_;
  size_t size_;
};

// A descriptor the caller keeps open; read with pread, so its position is untouched.
class FdForkSource final : public ForkSource {
 public:
  FdForkSource(Env& env, int fd, uint64_t size) : env_(env), fd_(fd), size_(size) {}
  // The size from fstat; fails with 700 when the descriptor cannot be stat'ed.
  static std::unique_ptr<FdForkSource> open(Env& env, int fd, Error* error);
  uint64_t size() const override { return size_; }
  bool readAt(uint64_t off, void* buf, size_t n, Error* error) override;

 private:
  Env& env_;
  int fd_;
  uint64_t size_;
};

}  // namespace zephlore
