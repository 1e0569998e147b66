// `zephlore status`, `pause` and `resume` as the user runs them, against the
// helper's status object published by this test process on a private bus.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <nlohmann/json.hpp>

#include "base/clock.h"
#include "desktop/helper_status_service.h"
#include "helper/bus/distributed_notification_center.h"
#include "protocol/bus_names.h"
#include "testing/child.h"
#include "testing/files.h"
#include "testing/session_bus.h"
#include "testing/test_home.h"
#include "testing/zephlore_command.h"

namespace zephlore {
namespace {

using testkit::ProcessResult;
using testkit::runProcess;
using testkit::TestHome;
using testkit::TestSessionBus;

// Runs the command while `loop` serves the calls it causes on this thread.
ProcessResult zephloreServedBy(RunLoop& loop, std::vector<std::string> args) {
  ProcessResult result;
  std::atomic<bool> finished{false};
  std::thread command([&] {
    result = testkit::runZephlore(args);
    finished = true;
    loop.post([] {});  // wakes the loop to look again
  });
  loop.runUntil([&] { return finished.load(); });
  command.join();
  return result;
}

TEST(StatusCommands, SayPlainlyWhenNoHelperRuns) {
  TestHome home;
  ProcessResult r = testkit::runZephlore({"status"});  // no bus at all
  EXPECT_EQ(r.status, 3);
  EXPECT_NE(r.out.find("zephlore-helper is not running."), std::string::npos) << r.out;

  TestSessionBus bus(home.root());
  r = testkit::runZephlore({"status", "--json"});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(nlohmann::json::parse(r.out)["running"], false) << r.out;
  for (const char* command : {"pause", "resume"}) {
    r = testkit::runZephlore({command});
    EXPECT_EQ(r.status, 1) << command;
    EXPECT_NE(r.err.find("not running"), std::string::npos) << r.err;
  }
}

class LiveStatus : public ::testing::Test {
 protected:
  LiveStatus() {
    center.ownName(kHelperBusName);
    service.setStatus(4, "Compressing");
    service.setActive(true);
    service.setTotalSavings(1'234'567'890);
    service.setQueuedFiles(12);
  }

  TestHome home;
  TestSessionBus bus{home.root()};
  DistributedNotificationCenter center;  // on this test's bus
  ManualClock clock;
  RunLoop loop{clock};
  KRHelperStatusService service{center.connection(), loop};
};

TEST_F(LiveStatus, StatusShowsThePushedValuesAndPauseResumeReachTheApplication) {
  ASSERT_TRUE(service.isExported());
  service.setFileInProcess("/dev/shm/w/big\xff.bin");  // not UTF-8: travels mended

  ProcessResult r = testkit::runZephlore({"status", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  nlohmann::json status = nlohmann::json::parse(r.out);
  EXPECT_EQ(status["running"], true);
  EXPECT_EQ(status["status"]["value"], 4);
  EXPECT_EQ(status["status"]["text"], "Compressing");
  EXPECT_EQ(status["active"], true);
  EXPECT_EQ(status["paused"], false);
  EXPECT_EQ(status["totalSavings"], 1'234'567'890u);
  EXPECT_EQ(status["queuedFiles"], 12);
  EXPECT_EQ(status["fileInProcess"], "/dev/shm/w/big\xef\xbf\xbd.bin");

  int pauses = 0, resumes = 0;
  service.setPauseHandler([&] {
    ++pauses;
    service.setPaused(true);
    service.setStatus(2, "Paused");
  });
  service.setResumeHandler([&] { ++resumes; });
  r = zephloreServedBy(loop, {"pause"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(pauses, 1) << "the answer comes after the handler ran";

  r = testkit::runZephlore({"status"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("Status:          Paused (2)"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Paused:          yes"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Total savings:   1.23 GB"), std::string::npos) << r.out;

  r = zephloreServedBy(loop, {"resume"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(resumes, 1);
}

}  // namespace
}  // namespace zephlore
