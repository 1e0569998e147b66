#include "preferences/savings_chart.h"

#include <glib/gi18n.h>
#include <gtkmm/stylecontext.h>

#include <algorithm>
#include <ctime>

#include "preferences/accessible.h"

namespace zephlore::preferences {
namespace {

// The day; the hour and minute too when the samples span a day or two.
std::string dateText(int64_t unixTime, bool withTime) {
  GDateTime* time = g_date_time_new_from_unix_local(unixTime);
  if (!time) return "";
  gchar* text = g_date_time_format(time, withTime ? "%x %H:%M" : "%x");
  g_date_time_unref(time);
  std::string result = text ? text : "";
  g_free(text);
  return result;
}

}  // namespace

SavingsChart::SavingsChart() {
  set_content_height(140);
  set_hexpand(true);
  set_margin_top(6);
  set_margin_bottom(6);
  setAccessibleName(*this, _("Savings over time"));
  set_draw_func(sigc::mem_fun(*this, &SavingsChart::draw));
}

void SavingsChart::setSamples(std::vector<pane::SavingsSample> samples) {
  std::sort(samples.begin(), samples.end(),
            [](const pane::SavingsSample& a, const pane::SavingsSample& b) { return a.unixTime < b.unixTime; });
  samples_ = std::move(samples);
  // The total holds from the last sample until now, so even one sample draws
  // a line; a sample dated ahead (a sped-up helper clock) gets a minute.
  if (!samples_.empty()) {
    const pane::SavingsSample last = samples_.back();
    const int64_t now = static_cast<int64_t>(std::time(nullptr));
    if (now > last.unixTime) {
      samples_.push_back({now, last.totalSaved});
    } else if (samples_.size() == 1) {
      samples_.push_back({last.unixTime + 60, last.totalSaved});
    }
  }
  withTime_ = !samples_.empty() && samples_.back().unixTime - samples_.front().unixTime < 2 * 86400;
  std::string words;
  if (samples_.empty()) {
    words = _("Nothing saved yet");
  } else {
    words = fill(fill(fill(_("From %s to %s: %s saved"), dateText(samples_.front().unixTime, withTime_)).c_str(),
                      dateText(samples_.back().unixTime, withTime_)).c_str(),
                 sizeText(samples_.back().totalSaved));
  }
  setAccessibleDescription(GTK_WIDGET(gobj()), words);
  queue_draw();
}

void SavingsChart::draw(const Cairo::RefPtr<Cairo::Context>& cr, int width, int height) {
  Gdk::RGBA ink = get_style_context()->get_color();
  auto layoutOf = [&](const std::string& text) {
    auto layout = create_pango_layout(text);
    int w = 0, h = 0;
    layout->get_pixel_size(w, h);
    return std::make_tuple(layout, w, h);
  };
  if (samples_.size() < 2) {
    auto [layout, w, h] = layoutOf(_("Nothing saved yet"));
    cr->set_source_rgba(ink.get_red(), ink.get_green(), ink.get_blue(), 0.55);
    cr->move_to((width - w) / 2.0, (height - h) / 2.0);
    layout->show_in_cairo_context(cr);
    return;
  }
  uint64_t most = 1;
  for (const auto& sample : samples_) most = std::max(most, sample.totalSaved);
  const int64_t first = samples_.front().unixTime;
  const double span = std::max<int64_t>(1, samples_.back().unixTime - first);

  auto [top, topWidth, topHeight] = layoutOf(sizeText(most));
  auto [from, fromWidth, fromHeight] = layoutOf(dateText(first, withTime_));
  auto [to, toWidth, toHeight] = layoutOf(dateText(samples_.back().unixTime, withTime_));
  (void)topWidth;
  (void)fromWidth;
  (void)toHeight;
  const double left = 2, right = width - 2;
  const double plotTop = topHeight + 4, plotBottom = height - fromHeight - 4;
  if (plotBottom <= plotTop + 4 || right <= left + 4) return;
  auto x = [&](int64_t t) { return left + (right - left) * ((t - first) / span); };
  auto y = [&](uint64_t v) { return plotBottom - (plotBottom - plotTop) * (double(v) / double(most)); };

  // The accent blue of the desktop's palette, readable on light and dark.
  cr->move_to(x(samples_.front().unixTime), plotBottom);
  for (const auto& sample : samples_) cr->line_to(x(sample.unixTime), y(sample.totalSaved));
  cr->line_to(x(samples_.back().unixTime), plotBottom);
  cr->close_path();
  cr->set_source_rgba(0.21, 0.52, 0.89, 0.25);
  cr->fill();
  cr->move_to(x(samples_.front().unixTime), y(samples_.front().totalSaved));
  for (const auto& sample : samples_) cr->line_to(x(sample.unixTime), y(sample.totalSaved));
  cr->set_source_rgb(0.21, 0.52, 0.89);
  cr->set_line_width(2);
  cr->stroke();

  cr->set_source_rgba(ink.get_red(), ink.get_green(), ink.get_blue(), 0.3);
  cr->set_line_width(1);
  cr->move_to(left, plotBottom + 0.5);
  cr->line_to(right, plotBottom + 0.5);
  cr->stroke();

  cr->set_source_rgba(ink.get_red(), ink.get_green(), ink.get_blue(), 0.7);
  cr->move_to(left, 0);
  top->show_in_cairo_context(cr);
  cr->move_to(left, height - fromHeight);
  from->show_in_cairo_context(cr);
  cr->move_to(right - toWidth, height - fromHeight);
  to->show_in_cairo_context(cr);
}

}  // namespace zephlore::preferences
