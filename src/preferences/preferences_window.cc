#include "preferences/preferences_window.h"

#include <glib/gi18n.h>
#include <glibmm/main.h>
#include <gtkmm/box.h>
#include <gtkmm/button.h>
#include <gtkmm/label.h>

#include "preferences/accessible.h"
#include "preferences/rows.h"

namespace zephlore::preferences {

pane::Deliver mainLoopDeliver() {
  return [](std::function<void()> call) {
    auto* held = new std::function<void()>(std::move(call));
    g_idle_add_full(
        G_PRIORITY_DEFAULT,
        [](gpointer data) -> gboolean {
          (*static_cast<std::function<void()>*>(data))();
          return G_SOURCE_REMOVE;
        },
        held, [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
  };
}

PreferencesWindow::PreferencesWindow(pane::PaneModel& model, unsigned foldersDelayMs)
    : model_(model), foldersDelayMs_(foldersDelayMs), folders_(model, *this), general_(model, *this), exclusions_(model, *this) {
  set_title(_("Zephlore"));
  set_default_size(760, 680);
  set_icon_name("com.quorvane.ZephlorePreferences");

  stack_ = adw_view_stack_new();
  gtk_widget_set_vexpand(stack_, TRUE);
  struct Page {
    GtkWidget* widget;
    const char* name;
    const char* title;
    const char* icon;
  };
  const Page pages[] = {
      {folders_.widget(), "folders", _("_Folders"), "folder-symbolic"},
      {general_.widget(), "general", _("_General"), "preferences-system-symbolic"},
      {exclusions_.widget(), "exclusions", _("_Exclusions"), "action-unavailable-symbolic"},
  };
  for (const Page& page : pages) {
    AdwViewStackPage* added = adw_view_stack_add_titled(ADW_VIEW_STACK(stack_), page.widget, page.name, page.title);
    adw_view_stack_page_set_icon_name(added, page.icon);
    adw_view_stack_page_set_use_underline(added, TRUE);
  }

  GtkWidget* header = adw_header_bar_new();
  GtkWidget* switcher = adw_view_switcher_new();
  adw_view_switcher_set_policy(ADW_VIEW_SWITCHER(switcher), ADW_VIEW_SWITCHER_POLICY_WIDE);
  adw_view_switcher_set_stack(ADW_VIEW_SWITCHER(switcher), ADW_VIEW_STACK(stack_));
  adw_header_bar_set_title_widget(ADW_HEADER_BAR(header), switcher);
  gtk_window_set_titlebar(GTK_WINDOW(gobj()), header);

  banner_ = Gtk::make_managed<Gtk::InfoBar>();
  banner_->set_message_type(Gtk::MessageType::WARNING);
  auto* message = Gtk::make_managed<Gtk::Label>(_("The Zephlore helper is not running: nothing is compressed."));
  message->set_wrap(true);
  message->set_xalign(0);
  message->set_hexpand(true);
  banner_->add_child(*message);
  auto* start = newButton(_("_Start Helper"), _("Start helper"));
  start->add_css_class("suggested-action");
  start->signal_clicked().connect([this] {
    pane::Outcome outcome = model_.startHelper();
    report(outcome);
    if (outcome.empty()) letGo_ = false;
    scheduleReload();
  });
  banner_->add_action_widget(*start, 0);
  banner_->set_revealed(false);

  auto* content = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::VERTICAL);
  content->append(*banner_);
  gtk_box_append(GTK_BOX(content->gobj()), stack_);
  overlay_ = adw_toast_overlay_new();
  adw_toast_overlay_set_child(ADW_TOAST_OVERLAY(overlay_), GTK_WIDGET(content->gobj()));
  gtk_window_set_child(GTK_WINDOW(gobj()), overlay_);

  reloadAll();
}

PreferencesWindow::~PreferencesWindow() {
  pendingReload_.disconnect();
  pendingFolders_.disconnect();
}

void PreferencesWindow::foldersChanged() { scheduleFoldersReload(); }

void PreferencesWindow::helperStateChanged() {
  // The helper came back or left for good: either way it is read again.
  letGo_ = false;
  refreshHelper();
  // A folder's sweep and view come from the helper's status too.
  scheduleFoldersReload();
}

void PreferencesWindow::scheduleFoldersReload() {
  // A working helper announces savings and states many times a second, and
  // reading a long folder list takes a while: one read for a burst.
  if (pendingFolders_.connected() || pendingReload_.connected()) return;
  pendingFolders_ = Glib::signal_timeout().connect(
      [this] {
        folders_.reload();
        return false;
      },
      foldersDelayMs_);
}

void PreferencesWindow::showHistory() {
  adw_view_stack_set_visible_child_name(ADW_VIEW_STACK(stack_), "folders");
  present();
}

void PreferencesWindow::helperQuitting() {
  letGo_ = true;
  refreshHelper();
}

void PreferencesWindow::reloadEverything() {
  // The helper restarts after an update: it is reachable again.
  letGo_ = false;
  reloadAll();
}

void PreferencesWindow::reloadAll() {
  pendingReload_.disconnect();
  pendingFolders_.disconnect();
  folders_.reload();
  general_.reloadSettings();
  exclusions_.reload();
  refreshHelper();
}

void PreferencesWindow::report(const pane::Outcome& outcome) {
  if (outcome.empty()) return;
  gchar* escaped = g_markup_escape_text(outcome.c_str(), -1);
  AdwToast* toast = adw_toast_new(escaped);
  g_free(escaped);
  adw_toast_set_timeout(toast, 8);
  adw_toast_overlay_add_toast(ADW_TOAST_OVERLAY(overlay_), toast);
}

void PreferencesWindow::scheduleReload() {
  if (pendingReload_.connected()) return;
  pendingReload_ = Glib::signal_idle().connect([this] {
    reloadAll();
    return false;
  });
}

void PreferencesWindow::refreshHelper() {
  pane::HelperState state;  // not running
  if (!letGo_) state = model_.helperState();
  if (letGo_ || state.kind == pane::HelperState::Kind::kNotRunning) {
    state = pane::HelperState{};
  }
  general_.showHelper(state);
  banner_->set_revealed(state.kind == pane::HelperState::Kind::kNotRunning);
}

}  // namespace zephlore::preferences
