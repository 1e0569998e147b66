#include "engine/hfs_refusals.h"

#include <iterator>

#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"

namespace zephlore {
namespace {

struct Refusal {
  int code;
  const char* says;  // after "File at path P "
};

constexpr Refusal kRefusals[] = {
    {kHFSErrorLocked, "is locked by other process"},
    {kHFSErrorAlreadyCompressed, "already compressed"},
    {kHFSErrorHardLinks, "has more than one hard link"},
    {kHFSErrorWrittenAfterCompression, "was written after it was compressed"},
    {kHFSErrorNotRegularFile, "is not a regular file"},
    {kHFSErrorOpenForWriting, "is open for writing by another process"},
    {kHFSErrorModified, "was modified while compressing"},
    {kHFSErrorNotOwned, "is not owned by this user"},
    {kHFSErrorTooLargeForForm, "is too large for the compressed form"},
};

}  // namespace

std::string refusalMessage(int code, const std::string& path, const std::string& detail) {
  std::string message = "File at path " + path + " ";
  const char* says = "was refused";
  for (const Refusal& refusal : kRefusals) {
    if (refusal.code == code) says = refusal.says;
  }
  message += says;
  if (!detail.empty()) message += " (" + detail + ")";
  return message;
}

bool refuse(Error* error, int code, const std::string& path, const std::string& detail) {
  return fail(error, kHFSErrorDomain, code, refusalMessage(code, path, detail));
}

}  // namespace zephlore
