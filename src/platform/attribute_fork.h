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
#include <functional>
#include <map>
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
  static bool isPresent(Env& env, const FileRef& file);

  // Replaces the file's fork with `size` bytes, from memory or read with
  // pread from `sourceFd` at offset 0. Higher pieces left by an earlier,
  // longer fork are removed first. On failure no piece remains (the file has
  // no fork then, never a mix of old and new pieces), and the error says
  // why: the volume taking no user attributes (ENOTSUP), a fork too large for
  // the name list (EFBIG) or for the volume (ENOSPC, E2BIG), a short source.
  static bool write(Env& env, const FileRef& file, const void* data, size_t size, Error* error);
  static bool writeFromFd(Env& env, const FileRef& file, int sourceFd, uint64_t size, Error* error);
  // The same with the bytes from `read` (offset, buffer, count; false with
  // errno set when they cannot be had); `verify` reads every piece back.
  using ReadBytes = std::function<bool(uint64_t offset, void* buf, size_t n)>;
  static bool writeFrom(Env& env, const FileRef& file, uint64_t size, const ReadBytes& read, bool verify, Error* error);

  // Removes the fork and every piece. True when none remains.
  static bool remove(Env& env, const FileRef& file, Error* error);

  // Pieces a fork of `size` bytes takes in `pieceSize`-byte values (at least
  // one).
  static uint64_t piecesFor(uint64_t size, size_t pieceSize);
  // The most pieces whose names fit beside names taking `otherListBytes`.
  static uint64_t mostPieces(uint64_t otherListBytes);
  // Bytes `name` (a system name, without "user.") takes in the kernel's list.
  static uint64_t listBytes(const std::string& name);
};

// Writes a new fork into a file piece by piece as its bytes arrive, in any
// order, so that a fork never has to be staged whole anywhere: the fork
// writer streams the blocks while it compresses and adds the header and
// table at the front last. Each byte must be written once; a piece is stored
// as soon as all its bytes are there, the last one by finish(). The file's
// old fork, if any, is removed before the first piece is stored. Until
// finish() succeeds, destroying the writer removes every piece it stored.
// Use from one thread at a time.
class AttributeForkWriter {
 public:
  // Measures the piece size of the file's volume and its attribute list;
  // changes nothing. `verify` reads every stored piece back and compares it.
  // `namesToCome` keeps that many bytes of the list free for attributes the
  // file gets after its fork, so that it stays listable.
  static std::unique_ptr<AttributeForkWriter> open(Env& env, const FileRef& file, bool verify, Error* error,
                                                   uint64_t namesToCome = 0);
  ~AttributeForkWriter();
  AttributeForkWriter(const AttributeForkWriter&) = delete;
  AttributeForkWriter& operator=(const AttributeForkWriter&) = delete;

  // Refuses a fork of `size` bytes whose pieces the file's attribute list
  // could not name (EFBIG), before anything is changed. write() refuses the
  // first byte past that limit the same way.
  bool checkSize(uint64_t size, Error* error);
  bool write(uint64_t offset, const void* data, size_t n, Error* error);
  // Stores the last piece of a fork of `size` bytes, after checking that
  // every byte before it was written.
  bool finish(uint64_t size, Error* error);

  size_t pieceSize() const { return pieceSize_; }
  // The largest fork the attribute list can name.
  uint64_t mostBytes() const { return mostPieces_ * pieceSize_; }
  // Bytes of the pieces stored so far (also after a failure: what the volume
  // took before it refused).
  uint64_t storedBytes() const { return storedBytes_; }

 private:
  struct Pending {
    std::vector<uint8_t> bytes;
    size_t filled = 0;
  };
  AttributeForkWriter(Env& env, FileRef file, size_t pieceSize, uint64_t otherListBytes, bool hadFork, bool verify);
  bool store(uint64_t index, const uint8_t* data, size_t n, Error* error);
  bool fail(int err, const std::string& why, Error* error);
  bool tooManyPieces(uint64_t size, Error* error);
  void abandon();  // removes what was stored; the writer is closed from then on

  Env& env_;
  FileRef file_;
  size_t pieceSize_;
  uint64_t mostPieces_;
  bool hadFork_;  // old pieces to remove before the first store
  bool verify_;
  bool finished_ = false;
  bool failed_ = false;
  bool storedAny_ = false;
  uint64_t storedBytes_ = 0;
  std::map<uint64_t, Pending> pending_;
  std::vector<bool> stored_;
  std::vector<uint8_t> readBack_;
};

// Random access to a fork kept in attribute pieces. Reads go through whole
// piece values (the system reads an attribute only whole); the last two
// pieces read are kept, so sequential reading costs one call per piece, also
// when readers of neighbouring blocks take turns across a piece's end. Use
// from one thread at a time. Prefer a descriptor: a path could be swapped
// meanwhile.
class AttributeForkReader {
 public:
  // None, with the error, when the file has no fork (ENODATA) or its pieces
  // cannot be read.
  static std::unique_ptr<AttributeForkReader> open(Env& env, const FileRef& file, Error* error);

  uint64_t size() const { return size_; }
  size_t pieceCount() const { return sizes_.size(); }
  // Reads exactly `n` bytes at `offset`; fails for a range past the end or a
  // piece that changed since open().
  bool readAt(uint64_t offset, void* buf, size_t n, Error* error);

 private:
  AttributeForkReader(Env& env, FileRef file, std::vector<size_t> sizes);
  // The bytes of piece `index`, read unless kept; null on failure.
  const uint8_t* load(size_t index, Error* error);

  Env& env_;
  FileRef file_;
  std::vector<size_t> sizes_;
  std::vector<uint64_t> starts_;
  uint64_t size_ = 0;
  std::vector<uint8_t> cache_[2];
  size_t cached_[2] = {SIZE_MAX, SIZE_MAX};  // the piece each slot holds
  size_t recent_ = 0;                        // the slot used last
};

}  // namespace zephlore
