// The total saved over time, drawn as a filled line from the history's
// samples, with the largest total and the first and last dates as labels.
#pragma once

#include <gtkmm/drawingarea.h>

#include <vector>

#include "pane/pane_model.h"

namespace zephlore::preferences {

class SavingsChart : public Gtk::DrawingArea {
 public:
  SavingsChart();
  void setSamples(std::vector<pane::SavingsSample> samples);

 private:
  void draw(const Cairo::RefPtr<Cairo::Context>& cr, int width, int height);

  std::vector<pane::SavingsSample> samples_;
  bool withTime_ = false;
};

}  // namespace zephlore::preferences
