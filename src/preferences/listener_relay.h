// The model is made before the window that hears it: the relay stands in as
// the model's listener and passes each call on once the window exists.
#pragma once

#include "pane/pane_model.h"

namespace zephlore::preferences {

class ListenerRelay : public pane::PaneListener {
 public:
  void setTarget(pane::PaneListener* target) { target_ = target; }

  void foldersChanged() override {
    if (target_) target_->foldersChanged();
  }
  void helperStateChanged() override {
    if (target_) target_->helperStateChanged();
  }
  void showHistory() override {
    if (target_) target_->showHistory();
  }
  void helperQuitting() override {
    if (target_) target_->helperQuitting();
  }
  void reloadEverything() override {
    if (target_) target_->reloadEverything();
  }

 private:
  pane::PaneListener* target_ = nullptr;
};

}  // namespace zephlore::preferences
