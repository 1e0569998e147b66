#include "desktop/app_delegate.h"

#include "helper/pipeline/compressor.h"

namespace zephlore {

KRAppDelegate& KRAppDelegate::sharedAppDelegate() {
  static KRAppDelegate* delegate = new KRAppDelegate();  // never destroyed
  return *delegate;
}

void KRAppDelegate::pauseApp() {
  if (watcherPaused_) watcherPaused_(true);
  KRCompressor::sharedCompressor().pauseCompression();
}

void KRAppDelegate::resumeApp() {
  if (watcherPaused_) watcherPaused_(false);
  KRCompressor::sharedCompressor().resumeCompression();
}

}  // namespace zephlore
