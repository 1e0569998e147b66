#include "engine/attribute_fork_source.h"

#include <cerrno>

#include "engine/hfs_error_codes.h"

namespace zephlore {

std::unique_ptr<AttributeForkSource> AttributeForkSource::open(Env& env, const FileRef& file,
                                                               const std::string& path,
                                                               Error* error) {
  Error why;
  std::unique_ptr<AttributeForkReader> reader = AttributeForkReader::open(env, file, &why);
  if (!reader) {
    if (why.code == ENODATA) {
      fail(error, kHFSErrorDomain, kHFSErrorNotCompressed,
           "Source file is not compressed at " + path + ": it has no resource fork");
    } else if (why.code == E2BIG) {
      fail(error, kHFSErrorDomain, kHFSErrorCannotUncompress,
           "Source data cannot be uncompressed: " + why.message);
    } else {
      fail(error, kHFSErrorDomain, kHFSErrorCouldNotRead, "Could not read source data: " + why.message);
    }
    return nullptr;
  }
  return std::unique_ptr<AttributeForkSource>(new AttributeForkSource(std::move(reader)));
}

bool AttributeForkSource::readAt(uint64_t off, void* buf, size_t n, Error* error) {
  if (off > size() || n > size() - off) {
    return fail(error, kHFSErrorDomain, kHFSErrorCannotUncompress,
                "Source data cannot be uncompressed: " + std::to_string(n) + " bytes at " +
                    std::to_string(off) + " lie outside the " + std::to_string(size()) +
                    "-byte fork");
  }
  Error why;
  if (reader_->readAt(off, buf, n, &why)) return true;
  return fail(error, kHFSErrorDomain, kHFSErrorCouldNotRead, "Could not read source data: " + why.message);
}

}  // namespace zephlore
