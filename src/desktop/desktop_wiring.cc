#include "desktop/desktop_wiring.h"

#include "base/run_loop.h"
#include "desktop/control_surface.h"
#include "desktop/menu_bar_controller.h"
#include "desktop/status_notifier_item.h"
#include "helper/pipeline/compressor.h"
#include "helper/pipeline/power_manager.h"
#include "helper/watching/path_analyzer.h"
#include "helper/watching/path_watcher.h"

namespace zephlore {

void wireDesktopParts(const KRDesktopWiring& wiring) {
  RunLoop& loop = RunLoop::main();
  KRCompressor& compressor = KRCompressor::sharedCompressor();
  compressor.setFolderWatchTest(
      [](const std::string& path) { return KRPathWatcher::sharedWatcher().isWatchingFolderForPath(path); });
  compressor.setSavingsRecorder(wiring.addSavingsForPath);
  // A file refused while being written is looked at again once it settled,
  // not at the next sweep.
  compressor.setRetryHandler([](const std::string& path) { KRPathAnalyzer::startAnalyzerWithPath(path); });

  KRMenuBarController& controller = KRMenuBarController::sharedMenuBarController();
  controller.setShowHistoryAction([&loop] { KRControlSurface::showHistory(loop); });
  if (wiring.totalSavings) controller.setTotalSavingsSource(wiring.totalSavings);
  static KRStatusNotifierItem* item = new KRStatusNotifierItem(
      loop, [] { KRMenuBarController::sharedMenuBarController().togglePause(); },
      [] { KRMenuBarController::sharedMenuBarController().showHistory(); });  // never destroyed
  controller.setView(item);

  KRPowerManager::sharedPowerManager().setHooks({
      nullptr,  // the "active" setting
      [] { return KRMenuBarController::sharedMenuBarController().appStatus() == kStatusPaused; },
      [] { KRMenuBarController::sharedMenuBarController().pause(); },
      [] { KRMenuBarController::sharedMenuBarController().resume(); },
  });
}

}  // namespace zephlore
