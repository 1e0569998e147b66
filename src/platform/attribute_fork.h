// The resource fork kept in extended attributes. One attribute value holds
// at most 64 KiB, and less on some volumes, so a fork is cut into pieces:
// "com.apple.ResourceFork", then "com.apple.ResourceFork.1", ".2", ... each
// as large as the volume takes (measured once per volume). Reading
// concatenates the pieces in order until the next index is missing.
//
// The kernel stops listing a file's attributes once their names pass 64 KiB,
// so a fork that would need more pieces than fit in that list is refused
// before anything is written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "platform/env.h"

namespace zephlore {

class AttributeFork {
 public:
  AttributeFork() = delete;

  // Name of piece `index`; 0 is the fork attribute itself.
  static std::string pieceName(size_t index);
  // The index of a piece name; none for any other name (".01" included).
  static std::optional<size_t> pieceIndex(const std::string& name);

  // "com.apple.ResourceFork" is present.
  static bool isPresent(const FileRef& file);

  // Replaces the file's fork with `size` bytes, from memory or read with
  // pread from `sourceFd` at offset 0. Higher pieces left by an earlier,
  // longer fork are removed first. On failure no piece remains (the file has
  // no fork then, never a mix of old and new pieces), and the error says
  // why: the volume taking no user attributes (ENOTSUP), a fork too large for
  // the name list (E2BIG) or for the volume (ENOSPC, E2BIG), a short source.
  static bool write(const FileRef& file, const void* data, size_t size, Error* error);
  static bool writeFromFd(const FileRef& file, int sourceFd, uint64_t size, Error* error);

  // Removes the fork and every piece. True when none remains.
  static bool remove(const FileRef& file, Error* error);

  // Pieces a fork of `size` bytes takes in `pieceSize`-byte values (at least
  // one), and whether their names fit beside names taking `otherListBytes`.
  static uint64_t piecesFor(uint64_t size, size_t pieceSize);
  static bool namesFit(uint64_t pieces, uint64_t otherListBytes);
};

// Random access to a fork kept in attribute pieces. Reads go through whole
// piece values (the system reads an attribute only whole); the last piece
// read is kept, so sequential reading costs one call per piece. Use from one
// thread at a time. Prefer a descriptor: a path could be swapped meanwhile.
class AttributeForkReader {
 public:
  // None, with the error, when the file has no fork (ENODATA) or its pieces
  // cannot be read.
  static std::unique_ptr<AttributeForkReader> open(const FileRef& file, Error* error);

  uint64_t size() const { return size_; }
  size_t pieceCount() const { return sizes_.size(); }
  // Reads exactly `n` bytes at `offset`; fails for a range past the end or a
  // piece that changed since open().
  bool readAt(uint64_t offset, void* buf, size_t n, Error* error);

 private:
  AttributeForkReader(FileRef file, std::vector<size_t> sizes);
  bool load(size_t index, Error* error);

  FileRef file_;
  std::vector<size_t> sizes_;
  std::vector<uint64_t> starts_;
  uint64_t size_ = 0;
  std::vector<uint8_t> cache_;
  size_t cached_ = SIZE_MAX;
};

}  // namespace zephlore
