#include "preferences/general_page.h"

#include <glib/gi18n.h>

#include "preferences/accessible.h"
#include "preferences/rows.h"

namespace zephlore::preferences {

GeneralPage::GeneralPage(PageHost& host) : host_(host) {
  page_ = adw_preferences_page_new();

  GtkWidget* group = newGroup(_("Settings"));
  struct Shown {
    const char* title;
    const char* subtitle;
    bool pane::PaneSettings::*field;
    pane::Outcome (pane::PaneModel::*set)(bool);
  };
  const Shown shown[] = {
      {N_("Active"), N_("Compress files in the watched folders"), &pane::PaneSettings::active, &pane::PaneModel::setActive},
      {N_("Show status icon"), N_("Show the helper in the system tray"), &pane::PaneSettings::visible,
       &pane::PaneModel::setVisible},
      {N_("Start at login"), N_("Start the helper when you log in"), &pane::PaneSettings::runAtLogin,
       &pane::PaneModel::setRunAtLogin},
      {N_("Transparent view"), N_("Show compressed files at full content through a view"),
       &pane::PaneSettings::transparentView, &pane::PaneModel::setTransparentView},
      {N_("Automatic updates"), N_("Check for new versions"), &pane::PaneSettings::checkUpdates,
       &pane::PaneModel::setCheckUpdates},
  };
  for (const Shown& one : shown) {
    GtkWidget* row = newRow(_(one.title), _(one.subtitle));
    Gtk::Switch* control = addSwitch(row, _(one.title));
    settings_.push_back({one.field, one.set, control});
    control->property_active().signal_changed().connect([this, control, set = one.set] {
      if (updating_) return;
      host_.act(control, [set, on = control->get_active()](pane::PaneModel& model) { return (model.*set)(on); });
    });
    adw_preferences_group_add(ADW_PREFERENCES_GROUP(group), row);
  }
  adw_preferences_page_add(ADW_PREFERENCES_PAGE(page_), ADW_PREFERENCES_GROUP(group));

  GtkWidget* helper = newGroup(_("Helper"));
  helperRow_ = newRow(_("Helper"), _("Not running"));
  pauseResume_ = newButton(_("_Pause"), _("Pause"));
  pauseResume_->signal_clicked().connect([this] {
    if (!host_.helperReachable()) return;
    host_.act(pauseResume_, [resume = paused_](pane::PaneModel& model) { return resume ? model.resume() : model.pause(); });
  });
  quit_ = newButton(_("_Quit Helper"), _("Quit helper"));
  quit_->add_css_class("destructive-action");
  quit_->signal_clicked().connect([this] {
    if (!host_.helperReachable()) return;
    host_.act(quit_, [](pane::PaneModel& model) { return model.quit(); });
  });
  adw_action_row_add_suffix(ADW_ACTION_ROW(helperRow_), GTK_WIDGET(pauseResume_->gobj()));
  adw_action_row_add_suffix(ADW_ACTION_ROW(helperRow_), GTK_WIDGET(quit_->gobj()));
  adw_preferences_group_add(ADW_PREFERENCES_GROUP(helper), helperRow_);
  adw_preferences_page_add(ADW_PREFERENCES_PAGE(page_), ADW_PREFERENCES_GROUP(helper));
}

void GeneralPage::showSettings(const pane::PaneSettings& values) {
  updating_ = true;
  for (Setting& setting : settings_) {
    // One still being changed shows the user's choice until its re-read.
    if (!setting.control->get_sensitive()) continue;
    if (setting.control->get_active() != values.*setting.field) setting.control->set_active(values.*setting.field);
  }
  updating_ = false;
}

void GeneralPage::showHelper(const pane::HelperState& state) {
  using Kind = pane::HelperState::Kind;
  std::string words = state.words;
  if (words.empty() || state.kind == Kind::kNotRunning) words = _("Not running");
  if (state.kind == Kind::kWorking && state.queuedFiles > 0) {
    words += "\n" + fill(_("%s files waiting"), std::to_string(state.queuedFiles));
  }
  if (!state.views.empty()) words += "\n" + state.views;
  setRowText(helperRow_, _("Helper"), words);
  adw_action_row_set_subtitle_lines(ADW_ACTION_ROW(helperRow_), 0);

  const bool running = state.kind != Kind::kNotRunning;
  paused_ = state.kind == Kind::kPaused;
  pauseResume_->set_label(paused_ ? _("_Resume") : _("_Pause"));
  setAccessibleName(*pauseResume_, paused_ ? _("Resume") : _("Pause"));
  pauseResume_->set_sensitive(running && state.kind != Kind::kSilent);
  quit_->set_sensitive(running);
}

}  // namespace zephlore::preferences
