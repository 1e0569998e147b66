// `zephlore preferences` starts the window found beside the command, else on
// PATH, without waiting for it; without one it says so and fails.
#include <gtest/gtest.h>

#include <filesystem>

#include "testing/child.h"
#include "testing/files.h"
#include "testing/scoped_env.h"
#include "testing/scratch_dir.h"
#include "testing/zephlore_command.h"

namespace zephlore {
namespace {

TEST(WindowCommandTest, StartsTheWindowBesideTheCommandElseOnPathElseSaysItIsMissing) {
  // A copy of the command in a folder of its own: /proc/self/exe names the
  // copy, so "beside" is that folder and not the build's.
  testkit::ScratchDir dir;
  const std::string installed = dir / "bin";
  const std::string elsewhere = dir / "path";
  std::filesystem::create_directories(installed);
  std::filesystem::create_directories(elsewhere);
  const std::string command = installed + "/zephlore";
  std::filesystem::copy_file(testkit::zephloreBinary(), command);
  // The window's stand-in says where it was found; it holds the command's
  // output open until it ends, so reading that output waits for it.
  auto window = [](const std::string& folder) {
    testkit::writeFile(folder + "/zephlore-preferences", "#!/bin/sh\necho \"window from $0 $*\"\n", 0755);
  };
  // Nothing else on PATH: an installed window must not answer for the copy.
  testkit::ScopedEnvVar path("PATH", elsewhere);

  auto missing = testkit::runProcess({command, "preferences"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("the preference window is not installed"), std::string::npos) << missing.err;

  window(elsewhere);
  auto onPath = testkit::runProcess({command, "preferences"});
  EXPECT_EQ(onPath.status, 0) << onPath.err;
  EXPECT_EQ(onPath.out, "window from " + elsewhere + "/zephlore-preferences \n");

  window(installed);
  auto beside = testkit::runProcess({command, "preferences"});
  EXPECT_EQ(beside.status, 0) << beside.err;
  EXPECT_EQ(beside.out, "window from " + installed + "/zephlore-preferences \n");
}

}  // namespace
}  // namespace zephlore
