#include "engine/file_content_reader.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "engine/fd_io.h"
#include "engine/attribute_fork_source.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_refusals.h"

namespace zephlore {
namespace {

bool readFailure(Error* error) {
  return fail(error, kHFSErrorDomain, kHFSErrorCouldNotRead,
              std::string("Could not read source data: ") + std::strerror(errno));
}

}  // namespace

FileContentReader::~FileContentReader() = default;

std::unique_ptr<FileContentReader> FileContentReader::open(Env& env, const std::string& path, Error* error) {
  struct stat st;
  if (env.lstat(path, &st) != 0) {
    fail(error, kHFSErrorDomain, kHFSErrorCouldNotOpen,
         "Could not stat source file at " + path + ": " + std::strerror(errno));
    return nullptr;
  }
  if (!S_ISREG(st.st_mode)) {
    refuse(error, kHFSErrorNotRegularFile, path);
    return nullptr;
  }
  std::unique_ptr<FileContentReader> reader(new FileContentReader(env));
  reader->fd_.reset(env.open(path, O_RDONLY | O_NONBLOCK));
  if (!reader->fd_ || env.fstat(reader->fd_.get(), &st) != 0) {
    fail(error, kHFSErrorDomain, kHFSErrorCouldNotOpen,
         "Could not open source file at " + path + ": " + std::strerror(errno));
    return nullptr;
  }
  if (!CompressedFileInfo::inspect(env, reader->fd_.get(), st, &reader->info_, error, false)) return nullptr;
  const CompressedFileInfo& info = reader->info_;
  switch (info.state) {
    case CompressionState::kPlain:
      reader->size_ = info.dataForkSize;
      return reader;
    case CompressionState::kCompressed:
      break;
    case CompressionState::kMixed:
      refuse(error, kHFSErrorWrittenAfterCompression, path);
      return nullptr;
    case CompressionState::kIncomplete:
    case CompressionState::kNotOurs:
      fail(error, kHFSErrorDomain, kHFSErrorNotCompressed,
           "Source file is not compressed at " + path + ": " + info.problem);
      return nullptr;
  }
  reader->fork_ = AttributeForkSource::open(env, FileRef::descriptor(reader->fd_.get()), path, error);
  if (!reader->fork_) return nullptr;
  reader->reader_ = CompressedForkReader::open(env, *reader->fork_, info.uncompressedSize, error);
  if (!reader->reader_) return nullptr;
  reader->size_ = info.uncompressedSize;
  reader->info_.forkSize = reader->fork_->size();
  reader->info_.blockCount = reader->reader_->blockCount();
  return reader;
}

bool FileContentReader::read(uint64_t offset, void* buf, size_t n, size_t* got, Error* error) {
  if (reader_) return reader_->read(offset, buf, n, got, error);
  // A plain file is read to its end, whatever its size said (a file of
  // /proc says 0 and has content).
  ssize_t result = env_.preadFully(fd_.get(), buf, n, offset);
  if (result < 0) return readFailure(error);
  *got = static_cast<size_t>(result);
  return true;
}

bool FileContentReader::copyTo(int outFd, int workers, Error* error) {
  if (reader_) return reader_->expandTo(outFd, workers, error);
  std::vector<uint8_t> buf(1 << 20);
  for (uint64_t offset = 0;;) {
    size_t got = 0;
    if (!read(offset, buf.data(), buf.size(), &got, error)) return false;
    if (got == 0) break;
    if (!writeFull(outFd, buf.data(), got)) {
      return fail(error, kHFSErrorDomain, kHFSErrorCouldNotWrite,
                  std::string("Could not write the content: ") + std::strerror(errno));
    }
    offset += got;
  }
  return true;
}

}  // namespace zephlore
