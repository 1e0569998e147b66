// A fresh home for one test: HOME and the XDG folders point into a scratch
// folder, no session bus is known until a TestSessionBus provides one, and
// the data folder is made there, as a main finds it. Everything is put back
// at the end.
#pragma once

#include <string>

#include "testing/scoped_env.h"
#include "testing/scratch_dir.h"

namespace zephlore::testkit {

class TestHome {
 public:
  TestHome();
  TestHome(const TestHome&) = delete;
  TestHome& operator=(const TestHome&) = delete;

  const std::string& root() const { return root_.path(); }
  // The data folder the helper chooses in this home.
  std::string dataFolder() const { return root() + "/data/Zephlore"; }
  std::string configFolder() const { return root() + "/config"; }

 private:
  ScratchDir root_{"/tmp"};
  ScopedEnvVar home_, data_, config_, system_config_, runtime_, bus_;
};

// Keeps private temporary files ($XDG_RUNTIME_DIR) in a scratch folder
// rather than the real home folder while alive.
class ScopedRuntimeDir {
 public:
  ScopedRuntimeDir();
  const std::string& path() const { return dir_.path(); }

 private:
  ScratchDir dir_;
  ScopedEnvVar runtime_;
};

}  // namespace zephlore::testkit
