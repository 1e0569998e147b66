#include "engine/opened_file_check.h"

#include <unistd.h>

#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_refusals.h"

namespace zephlore {

bool checkOpenedFile(const struct stat& st, const std::string& path, OwnerRule rule, Error* error) {
  if (!S_ISREG(st.st_mode)) return refuse(error, kHFSErrorNotRegularFile, path);
  // Other names would keep the old data after the swap.
  if (st.st_nlink > 1) return refuse(error, kHFSErrorHardLinks, path);
  const uid_t self = geteuid();
  if (st.st_uid != self && !(rule == OwnerRule::kCallerOrRoot && self == 0)) {
    return refuse(error, kHFSErrorNotOwned, path);
  }
  return true;
}

}  // namespace zephlore
