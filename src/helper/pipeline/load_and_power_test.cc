// Load sampling and power gating on the main loop under a manual clock. The
// counters come from a fake /proc and /sys tree, and the power supplies from
// a fake /sys/class/power_supply: this machine has no battery and its real
// load moves on its own.
#include <filesystem>

#include <gtest/gtest.h>

#include "base/log.h"
#include "helper/notices/notice_bridge.h"
#include "helper/pipeline/power_manager.h"
#include "helper/pipeline/system_load_handler.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::ScratchDir;

void put(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  testkit::writeFile(path, text);
}

class FakeTree {
 public:
  FakeTree() {
    put(root_ / "proc/cpuinfo", "processor\t: 0\ncpu MHz\t\t: 1000.000\n");
    std::filesystem::create_directories(root_ / "sys/block/sda/device");
    setCpu(0, 0, 0, 0);
    setDiskSectors(0);
  }
  // Two processors' busy and idle ticks.
  void setCpu(uint64_t busy0, uint64_t idle0, uint64_t busy1, uint64_t idle1) {
    put(root_ / "proc/stat", "cpu  0 0 0 0\ncpu0 " + std::to_string(busy0) + " 0 0 " + std::to_string(idle0) +
                                 "\ncpu1 0 0 " + std::to_string(busy1) + " " + std::to_string(idle1) + "\n");
  }
  void setDiskSectors(uint64_t sectors) {
    put(root_ / "proc/diskstats", "   8       0 sda 0 0 " + std::to_string(sectors) + " 0 0 0 0 0 0 0 0\n");
  }
  // A process's user and system ticks ("self" for the helper); the name
  // holds the characters that trip a naive split.
  void setProcess(const std::string& pid, uint64_t utime, uint64_t stime) {
    put(root_ / ("proc/" + pid + "/stat"), pid + " (zephlore) mount) S 1 1 1 0 -1 4194560 0 0 0 0 " +
                                           std::to_string(utime) + " " + std::to_string(stime) + " 0 0 20 0 1 0\n");
  }
  std::unique_ptr<LoadCounters> counters() {
    return std::make_unique<KernelLoadCounters>(root_ / "proc", root_ / "sys");
  }
  std::string path(const std::string& name) { return root_ / name; }

 private:
  ScratchDir root_;
};

class SystemLoadHandlerTest : public ::testing::Test {
 protected:
  // One sampling period on, or `s` seconds.
  void tick(double s = 2.0) {
    clock.advance(seconds(s));
    loop.runUntilIdle();
  }

  FakeTree tree;
  ManualClock clock;
  RunLoop loop{clock};
  std::vector<std::string> lines;
  ScopedLogCapture capture{[this](const std::string& line) { lines.push_back(line); }};
};

TEST_F(SystemLoadHandlerTest, SamplesEvery2SecondsFromTheKernelCounters) {
  KRSystemLoadHandler handler(tree.counters(), loop);
  EXPECT_EQ(handler.currentCPULoad(), 0.0f);
  loop.runUntilIdle();
  EXPECT_EQ(handler.currentCPULoad(), 0.0f);  // unchanged counters: idle, not a division by zero
  EXPECT_EQ(handler.currentDiskLoad(), 0.0f);

  // cpu0 fully busy, cpu1 untouched: the average of 1.0 and 0.0.
  tree.setCpu(100, 0, 0, 0);
  tick(1.9);
  EXPECT_EQ(handler.currentCPULoad(), 0.0f);
  tick(0.1);
  EXPECT_FLOAT_EQ(handler.currentCPULoad(), 0.5f);

  // 5120 bytes against the floor of 10000; then a burst becomes the maximum.
  tree.setDiskSectors(10);
  tick();
  EXPECT_FLOAT_EQ(handler.currentDiskLoad(), 0.512f);
  tree.setDiskSectors(10 + 80);  // 40960 bytes
  tick();
  EXPECT_FLOAT_EQ(handler.currentDiskLoad(), 1.0f);
  tick();
  EXPECT_FLOAT_EQ(handler.currentDiskLoad(), 0.0f);

  // Garbled counters end sampling with one line; the loads drop to 0.0.
  tree.setCpu(200, 0, 0, 0);
  tick();
  EXPECT_GT(handler.currentCPULoad(), 0.0f);
  put(tree.path("proc/stat"), "cpu0 12");
  put(tree.path("proc/diskstats"), "garbage");
  for (int i = 0; i < 3; ++i) tick();
  EXPECT_EQ(handler.currentCPULoad(), 0.0f);
  EXPECT_EQ(handler.currentDiskLoad(), 0.0f);
  EXPECT_EQ(lines.size(), 2u);  // one for each counter, once
}

// An ARM board's /proc/cpuinfo has no "cpu MHz", a virtual machine often has
// no cpufreq, a container may lack the processor counters or all of them:
// what is there is sampled, what is missing is no load and one line.
TEST_F(SystemLoadHandlerTest, MissingCountersMeanNoLoadAndTheRestIsStillSampled) {
  put(tree.path("proc/cpuinfo"), "processor\t: 0\nBogoMIPS\t: 48.00\nCPU implementer\t: 0x41\n");
  KRSystemLoadHandler handler(tree.counters(), loop);
  loop.runUntilIdle();
  tree.setCpu(100, 0, 100, 0);
  tree.setDiskSectors(40);
  tick();
  EXPECT_FLOAT_EQ(handler.currentCPULoad(), 1.0f);
  EXPECT_FLOAT_EQ(handler.currentDiskLoad(), 1.0f);  // 20480 bytes, the busiest 2 s so far
  EXPECT_TRUE(lines.empty());

  ScratchDir bare;
  put(bare / "proc/diskstats", "   8       0 sda 0 0 0 0 0 0 0 0 0 0 0\n");
  std::filesystem::create_directories(bare / "sys/block/sda/device");
  KRSystemLoadHandler disksOnly(std::make_unique<KernelLoadCounters>(bare / "proc", bare / "sys"), loop);
  loop.runUntilIdle();
  put(bare / "proc/diskstats", "   8       0 sda 0 0 40 0 0 0 0 0 0 0 0\n");
  tick();
  EXPECT_EQ(disksOnly.currentCPULoad(), 0.0f);
  EXPECT_FLOAT_EQ(disksOnly.currentDiskLoad(), 1.0f);

  lines.clear();
  ScratchDir empty;
  KRSystemLoadHandler nothing(std::make_unique<KernelLoadCounters>(empty / "proc", empty / "sys"), loop);
  tick(10);
  EXPECT_EQ(nothing.currentCPULoad(), 0.0f);
  EXPECT_EQ(nothing.currentDiskLoad(), 0.0f);
  EXPECT_EQ(lines.size(), 2u);  // one for the processors, one for the disks
}

// The gate yields to other programs: the helper's own compression and its
// views' work are taken out of the busy time, or the helper would hold
// itself back whenever it is working.
TEST_F(SystemLoadHandlerTest, TheHelperAndItsViewsAreNotOtherProgramsLoad) {
  tree.setProcess("self", 10, 5);
  tree.setProcess("4242", 100, 0);
  KRSystemLoadHandler handler(tree.counters(), loop);
  loop.runUntilIdle();
  // One 2 s sample: both processors' busy ticks so far, and the helper's
  // and the view's (user + system) by then.
  auto sample = [&](uint64_t busy, uint64_t self, uint64_t view) {
    tree.setCpu(busy, 0, busy, 0);
    tree.setProcess("self", self, self - 5);
    tree.setProcess("4242", view, 0);
    tick();
    return handler.currentCPULoad();
  };

  // Both processors fully busy over 2 s (200 ticks each); the helper used a
  // whole one (200 ticks, as the view is not yet known): half is others'.
  EXPECT_FLOAT_EQ(sample(200, 110, 150), 0.5f);

  // The view's time counts as the helper's from the sample after it is
  // named (its ticks before that are not known): all busy time is theirs.
  handler.setCompanionProcesses({4242});
  EXPECT_FLOAT_EQ(sample(400, 210, 200), 0.5f);
  EXPECT_FLOAT_EQ(sample(600, 310, 400), 0.0f);

  // A view gone (or its pid reused by a younger process) counts nothing; the
  // rest is others' load as before.
  put(tree.path("proc/4242/stat"), "garbled");
  tree.setCpu(800, 0, 700, 100);
  tree.setProcess("self", 330, 325);
  tick();
  EXPECT_FLOAT_EQ(handler.currentCPULoad(), 0.75f - 40.0f / 400.0f);
}

class RecordingSender final : public NoticeSender {
 public:
  void send(const Notice& notice) override { types.push_back(notice.type); }
  std::vector<uint32_t> types;
};

TEST(PowerManagerTest, UnplugPausesOnceAndReplugResumesOnce) {
  ScratchDir supplies;
  auto sender = std::make_shared<RecordingSender>();
  KRGrowlBridge notices(sender);
  ManualClock clock;
  RunLoop loop(clock);
  KRPowerManager manager(std::make_unique<SysfsPowerSupplies>(supplies.path()), loop, notices);
  EXPECT_FALSE(manager.hasBattery());
  EXPECT_TRUE(manager.connectedToPowerSource());

  put(supplies / "AC/type", "Mains");
  put(supplies / "AC/online", "1");
  put(supplies / "BAT0/type", "Battery");
  put(supplies / "BAT0/present", "1");
  EXPECT_TRUE(manager.hasBattery());

  bool paused = false;
  bool active = true;
  int pauses = 0, resumes = 0;
  manager.setHooks({[&] { return active; }, [&] { return paused; },
                    [&] { paused = true; ++pauses; }, [&] { paused = false; ++resumes; }});
  manager.startMonitoringPowerSource();
  loop.runUntilIdle();
  auto poll = [&] {
    clock.advance(seconds(KRPowerManager::kPollingInterval));
    loop.runUntilIdle();
  };

  put(supplies / "AC/online", "0");
  EXPECT_FALSE(manager.connectedToPowerSource());
  poll();
  poll();
  EXPECT_EQ(pauses, 1);
  put(supplies / "AC/online", "1");
  poll();
  poll();
  EXPECT_EQ(resumes, 1);
  EXPECT_EQ(sender->types, (std::vector<uint32_t>{KRGrowlBridge::kPause, KRGrowlBridge::kResume}));

  // Inactive: the change waits for the first poll after activation.
  active = false;
  put(supplies / "AC/online", "0");
  poll();
  EXPECT_EQ(pauses, 1);
  active = true;
  poll();
  EXPECT_EQ(pauses, 2);

  // On battery with the helper already paused by hand: nothing more to do.
  manager.stopMonitoringPowerSource();
  put(supplies / "AC/online", "1");
  poll();
  EXPECT_EQ(resumes, 1);
}

}  // namespace
}  // namespace zephlore
