#include "testing/scratch_dir.h"

#include <ftw.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace zephlore::testkit {

ScratchDir::ScratchDir(const std::string& base) : path_(base + "/zephlore-test-XXXXXX") {
  if (!mkdtemp(path_.data())) throw std::runtime_error("mkdtemp " + path_);
}

ScratchDir::~ScratchDir() {
  // FTW_MOUNT: a file system a test mounted inside is never emptied from here.
  nftw(
      path_.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); },
      16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

}  // namespace zephlore::testkit
