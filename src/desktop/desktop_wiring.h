// Connects the parts of this layer with the pipeline below it, in one place
// for the helper's start-up: the compressor asks the watcher, the power
// manager pauses through the status item, the status item's view is the tray
// item, and "Open Zephlore" opens the control surface.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace zephlore {

struct KRDesktopWiring {
  // The history store's total, shown in the menu (none: "Savings: -").
  std::function<uint64_t()> totalSavings;
  // Adds a file's saved bytes to its folder's history (none: dropped).
  std::function<void(uint64_t savedBytes, const std::string& path)> addSavingsForPath;
};

// Main thread, once, before the status item is shown. The tray item lives
// for the rest of the process.
void wireDesktopParts(const KRDesktopWiring& wiring);

}  // namespace zephlore
