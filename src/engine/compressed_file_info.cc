#include "engine/compressed_file_info.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "engine/attribute_fork_source.h"
#include "engine/compressed_fork_reader.h"
#include "engine/decmpfs_header.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_refusals.h"
#include "platform/attribute_names.h"
#include "platform/file_flags.h"

namespace zephlore {
namespace {

bool readError(Error* error, const std::string& what) {
  return fail(error, kHFSErrorDomain, kHFSErrorCouldNotOpen,
              "Could not read the " + what + " of the file: " + std::strerror(errno));
}

// The fork could not be read (as opposed to: it is not a valid fork).
bool isReadFailure(const Error& error) {
  return error.code == kHFSErrorCouldNotRead || error.code == kHFSErrorOutOfMemory;
}

// A volume without user attributes (vfat, /proc) holds plain files only.
bool attributesUnsupported(int err) { return err == ENOTSUP; }  // the same as EOPNOTSUPP here

// Presence of one attribute; false with errno set on a real read error.
bool present(Env& env, int fd, const char* name, bool* has) {
  if (env.getxattr(FileRef::descriptor(fd), name, nullptr, 0) >= 0) {
    *has = true;
    return true;
  }
  *has = false;
  return errno == ENODATA;
}

}  // namespace

const char* compressionStateName(CompressionState state) {
  switch (state) {
    case CompressionState::kPlain: return "plain";
    case CompressionState::kCompressed: return "compressed";
    case CompressionState::kIncomplete: return "incomplete";
    case CompressionState::kMixed: return "mixed";
    case CompressionState::kNotOurs: return "not ours";
  }
  return "unknown";
}

uint64_t CompressedFileInfo::savedBytes() const {
  if (state != CompressionState::kCompressed) return 0;
  auto blocks = [](uint64_t bytes) { return (bytes + 511) / 512 * 512; };
  const uint64_t now = std::max(allocatedBytes, blocks(forkSize + 16));
  const uint64_t before = blocks(uncompressedSize);
  return before > now ? before - now : 0;
}

double CompressedFileInfo::ratio() const {
  if (forkSize == 0 || uncompressedSize == 0) return 0;
  return static_cast<double>(forkSize) / static_cast<double>(uncompressedSize);
}

bool CompressedFileInfo::inspect(Env& env, const std::string& path, CompressedFileInfo* info, Error* error,
                                 bool checkFork) {
  struct stat st;
  if (env.lstat(path, &st) != 0) {
    return fail(error, kHFSErrorDomain, kHFSErrorCouldNotOpen,
                "Could not stat source file at " + path + ": " + std::strerror(errno));
  }
  if (!S_ISREG(st.st_mode)) {
    return refuse(error, kHFSErrorNotRegularFile, path);
  }
  UniqueFd fd(env.open(path, O_RDONLY | O_NONBLOCK));
  if (!fd) {
    return fail(error, kHFSErrorDomain, kHFSErrorCouldNotOpen,
                "Could not open source file at " + path + ": " + std::strerror(errno));
  }
  if (env.fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    return fail(error, kHFSErrorDomain, kHFSErrorCouldNotOpen,
                "Could not stat source file at " + path);
  }
  return inspect(env, fd.get(), st, info, error, checkFork);
}

namespace {

// What the attributes say, before anything is judged.
struct Markers {
  std::optional<std::vector<uint8_t>> decmpfs;
};

bool readMarkers(Env& env, int fd, CompressedFileInfo* info, Markers* markers, Error* error) {
  const FileRef file = FileRef::descriptor(fd);
  std::optional<uint32_t> flags = FileFlags::get(env, file);
  if (!flags && attributesUnsupported(errno)) return true;  // no markers at all
  if (!flags) return readError(error, "compressed flag");
  info->hasCompressedFlag = *flags & FileFlags::kUFCompressed;
  if (!present(env, fd, attr::kExclude, &info->hasExcludeMarker) ||
      !present(env, fd, attr::kSignature, &info->hasSignature)) {
    return readError(error, "attributes");
  }
  markers->decmpfs = env.getxattrValue(file, attr::kDecmpfs);
  if (!markers->decmpfs && errno != ENODATA) return readError(error, "compression header");
  info->hasDecmpfs = markers->decmpfs.has_value();
  ssize_t forkHead = env.getxattr(file, attr::kResourceFork, nullptr, 0);
  if (forkHead < 0 && errno != ENODATA) return readError(error, "resource fork");
  info->hasResourceFork = forkHead >= 0;
  return true;
}

// A state and, for the odd ones, what is wrong; none when the attributes
// could not be read (the error says why).
struct Verdict {
  CompressionState state;
  std::string problem;
};

std::optional<Verdict> judgeCompressedForm(Env& env, int fd, const Markers& markers, bool checkFork, CompressedFileInfo* info,
                                           Error* error) {
  std::unique_ptr<ForkSource> fork;
  if (info->hasResourceFork) {
    Error forkError;
    fork = AttributeForkSource::open(env, FileRef::descriptor(fd), "descriptor " + std::to_string(fd), &forkError);
    if (!fork) {
      if (!isReadFailure(forkError)) return Verdict{CompressionState::kNotOurs, forkError.message};
      if (error) *error = forkError;
      return std::nullopt;
    }
    info->forkSize = fork->size();
  }
  if (!info->hasDecmpfs) {
    if (info->hasResourceFork && !info->hasCompressedFlag) {
      return Verdict{CompressionState::kIncomplete,
                     "it has a resource fork but no compression header (a conversion was cut short)"};
    }
    return Verdict{CompressionState::kNotOurs, info->hasResourceFork
                                                   ? "it has the compressed flag but no compression header"
                                                   : "it has the compressed flag but no compressed data"};
  }
  uint64_t size = 0;
  Error headerError;
  if (!parseDecmpfsValue(markers.decmpfs->data(), markers.decmpfs->size(), &size, &headerError)) {
    return Verdict{CompressionState::kNotOurs, headerError.message};
  }
  info->uncompressedSize = size;
  info->headerSize = size;
  if (!fork) return Verdict{CompressionState::kNotOurs, "it has a compression header but no resource fork"};
  if (checkFork) {
    Error forkError;
    std::unique_ptr<CompressedForkReader> reader = CompressedForkReader::open(env, *fork, size, &forkError);
    if (!reader) {
      if (isReadFailure(forkError)) {
        if (error) *error = forkError;
        return std::nullopt;
      }
      return Verdict{CompressionState::kNotOurs, forkError.message};
    }
    info->blockCount = reader->blockCount();
  }
  if (!info->hasCompressedFlag) {
    return Verdict{CompressionState::kIncomplete,
                   "it has its compressed data but not the compressed flag (a conversion was cut short)"};
  }
  return Verdict{CompressionState::kCompressed, ""};
}

}  // namespace

bool CompressedFileInfo::inspect(Env& env, int fd, const struct stat& st, CompressedFileInfo* out, Error* error,
                                 bool checkFork) {
  CompressedFileInfo info;
  info.dataForkSize = static_cast<uint64_t>(st.st_size);
  info.allocatedBytes = static_cast<uint64_t>(st.st_blocks) * 512;
  info.uncompressedSize = info.dataForkSize;
  Markers markers;
  if (!readMarkers(env, fd, &info, &markers, error)) return false;

  Verdict verdict{CompressionState::kPlain, ""};
  const bool plain = !info.hasCompressedFlag && !info.hasDecmpfs && !info.hasResourceFork;
  if (!plain && info.dataForkSize > 0) {
    uint64_t size = 0;
    if (markers.decmpfs && parseDecmpfsValue(markers.decmpfs->data(), markers.decmpfs->size(), &size, nullptr)) {
      info.headerSize = size;
    }
    verdict = {CompressionState::kMixed,
               "its data fork holds data beside the attributes of the compressed form "
               "(it was written after it was compressed)"};
  } else if (!plain) {
    std::optional<Verdict> judged = judgeCompressedForm(env, fd, markers, checkFork, &info, error);
    if (!judged) return false;
    verdict = std::move(*judged);
  }
  info.state = verdict.state;
  info.problem = std::move(verdict.problem);
  // A damaged header's size is no size at all: it must not be counted.
  if (info.state == CompressionState::kNotOurs) info.uncompressedSize = info.dataForkSize;
  *out = std::move(info);
  return true;
}

}  // namespace zephlore
