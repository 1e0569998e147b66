// The kernel counters are read from fake /proc and /sys trees: the test needs
// exact numbers, disks of several kinds and a cpufreq folder, which this
// machine (a virtual one with changing load) cannot give.
#include "platform/load_counters.h"

#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

#include "testing/child.h"
#include "testing/files.h"
#include "testing/loop_mount.h"
#include "testing/scratch_dir.h"
#include "platform/power_supplies.h"
#include "platform/thread_priority.h"

namespace zephlore {
namespace {

using testkit::ScratchDir;

void put(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  testkit::writeFile(path, text);
}

TEST(KernelLoadCountersTest, CpuLinesSumTheBusyAndIdleFieldsPerProcessor) {
  ScratchDir root;
  put(root.path() + "/proc/stat",
      "cpu  9 9 9 9 9 9 9 9 0 0\n"
      "cpu0 10 1 5 100 20 2 3 4 0 0\n"
      "cpu1 7 0 3 50\n"  // an old kernel: four fields
      "intr 12345\n");
  KernelLoadCounters counters(root.path() + "/proc", root.path() + "/sys");
  auto ticks = counters.cpuTicks();
  ASSERT_TRUE(ticks);
  ASSERT_EQ(ticks->size(), 2u);
  EXPECT_EQ((*ticks)[0].used, 10u + 1 + 5 + 2 + 3 + 4);
  EXPECT_EQ((*ticks)[0].idle, 120u);
  EXPECT_EQ((*ticks)[1].used, 10u);
  EXPECT_EQ((*ticks)[1].idle, 50u);

  // Truncated, garbled or missing: no reading at all rather than a wrong one.
  put(root.path() + "/proc/stat", "cpu0 10 1\n");
  EXPECT_FALSE(counters.cpuTicks());
  put(root.path() + "/proc/stat", "cpu0 10 1 x 4\n");
  EXPECT_FALSE(counters.cpuTicks());
  put(root.path() + "/proc/stat", "intr 1\n");
  EXPECT_FALSE(counters.cpuTicks());
  std::filesystem::remove(root.path() + "/proc/stat");
  EXPECT_FALSE(counters.cpuTicks());
}

TEST(KernelLoadCountersTest, FrequencyFromCpufreqElseCpuinfo) {
  ScratchDir root;
  KernelLoadCounters counters(root.path() + "/proc", root.path() + "/sys");
  EXPECT_FALSE(counters.cpuFrequencyHz());
  put(root.path() + "/proc/cpuinfo", "processor\t: 0\ncpu MHz\t\t: 2399.998\n");
  EXPECT_EQ(counters.cpuFrequencyHz(), 2399998000u);
  put(root.path() + "/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", "3600000\n");
  EXPECT_EQ(counters.cpuFrequencyHz(), 3600000000u);
}

TEST(KernelLoadCountersTest, DiskBytesCountOnlyWholePhysicalDisks) {
  ScratchDir root;
  const std::string sys = root.path() + "/sys/block/";
  for (const char* disk : {"sda", "nvme0n1", "loop0", "dm-0", "zram0"}) {
    std::filesystem::create_directories(sys + disk + "/device");
  }
  std::filesystem::create_directories(sys + "ram0");  // no device at all
  KernelLoadCounters counters(root.path() + "/proc", root.path() + "/sys");
  const std::vector<std::string> disks = counters.wholeDisks();
  EXPECT_EQ(disks, (std::vector<std::string>{"nvme0n1", "sda"}));

  put(root.path() + "/proc/diskstats",
      "   8       0 sda 100 0 10 5 200 0 20 7 0 0 0\n"
      "   8       1 sda1 100 0 1000 5 200 0 2000 7 0 0 0\n"
      " 259       0 nvme0n1 1 0 3 0 1 0 4 0 0 0 0 0 0 0 0\n"
      "   7       0 loop0 1 0 9999 0 1 0 9999 0\n");
  EXPECT_EQ(counters.diskBytes(disks), (10u + 20 + 3 + 4) * 512);

  put(root.path() + "/proc/diskstats", "   8       0 sda 100 0 1\n");
  EXPECT_FALSE(counters.diskBytes(disks));
  put(root.path() + "/proc/diskstats", "");
  EXPECT_FALSE(counters.diskBytes(disks));
}

// Batteries and chargers are read from a fake tree: this machine has none.
TEST(SysfsPowerSuppliesTest, ReadsTypePresenceAndOnlineState) {
  ScratchDir root;
  EXPECT_TRUE(SysfsPowerSupplies(root.path() + "/missing").list().empty());
  put(root.path() + "/BAT0/type", "Battery\n");
  put(root.path() + "/BAT0/present", "1\n");
  put(root.path() + "/AC/type", "Mains\n");
  put(root.path() + "/AC/online", "0\n");
  put(root.path() + "/hidpp_battery_0/type", "Battery\n");
  put(root.path() + "/hidpp_battery_0/scope", "Device\n");
  auto supplies = SysfsPowerSupplies(root.path()).list();
  ASSERT_EQ(supplies.size(), 3u);
  EXPECT_EQ(supplies[0].name, "AC");
  EXPECT_EQ(supplies[0].type, "Mains");
  EXPECT_FALSE(supplies[0].online);
  EXPECT_TRUE(supplies[1].present);
  EXPECT_FALSE(supplies[1].device);
  EXPECT_TRUE(supplies[2].device);
}

TEST(ThreadPriorityTest, BackgroundThreadYieldsCpuAndDisk) {
  int nice = -1;
  bool idle = false;
  std::thread worker([&] {
    ASSERT_TRUE(setCurrentThreadNice(10));
    ASSERT_TRUE(setCurrentThreadIdleIoPriority());
    nice = currentThreadNice();
    idle = currentThreadHasIdleIoPriority();
  });
  worker.join();
  EXPECT_EQ(nice, 10);
  EXPECT_TRUE(idle);
  EXPECT_FALSE(currentThreadHasIdleIoPriority());  // only that thread
}

}  // namespace
}  // namespace zephlore
