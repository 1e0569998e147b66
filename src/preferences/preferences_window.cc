#include "preferences/preferences_window.h"

#include <glib/gi18n.h>
#include <glibmm/main.h>
#include <gtkmm/box.h>
#include <gtkmm/button.h>
#include <gtkmm/label.h>

#include <memory>
#include <utility>

#include "preferences/accessible.h"
#include "preferences/rows.h"

namespace zephlore::preferences {

// What one re-read found, gathered on the worker in one call.
struct PreferencesWindow::Reading {
  unsigned parts = 0;
  std::vector<pane::PaneFolder> folders;
  std::string problem;
  uint64_t totalSaved = 0;
  std::vector<pane::SavingsSample> samples;
  pane::PaneSettings settings;
  bool helperAsked = false;  // false while the window had let go of the helper
  pane::HelperState state;
  std::vector<std::string> paths, extensions;
};

namespace {

// A control's hold on itself while its action runs: a re-read may replace
// the control meanwhile, so it is held weakly.
class Busy {
 public:
  explicit Busy(Gtk::Widget* control) {
    g_weak_ref_init(&ref_, control ? control->gobj() : nullptr);
    if (control) control->set_sensitive(false);
  }
  ~Busy() { g_weak_ref_clear(&ref_); }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;
  void over() {
    if (gpointer control = g_weak_ref_get(&ref_)) {
      gtk_widget_set_sensitive(GTK_WIDGET(control), TRUE);
      g_object_unref(control);
    }
  }

 private:
  GWeakRef ref_;
};

}  // namespace

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
    : foldersDelayMs_(foldersDelayMs),
      folders_(*this),
      general_(*this),
      exclusions_(*this),
      worker_(model, mainLoopDeliver()) {
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
  start->signal_clicked().connect([this, start] {
    act(
        start, [](pane::PaneModel& pane) { return pane.startHelper(); },
        [this](const pane::Outcome& outcome) {
          if (outcome.empty()) letGo_ = false;
        });
  });
  banner_->add_action_widget(*start, 0);
  banner_->set_revealed(false);

  auto* content = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::VERTICAL);
  content->append(*banner_);
  gtk_box_append(GTK_BOX(content->gobj()), stack_);
  overlay_ = adw_toast_overlay_new();
  adw_toast_overlay_set_child(ADW_TOAST_OVERLAY(overlay_), GTK_WIDGET(content->gobj()));
  gtk_window_set_child(GTK_WINDOW(gobj()), overlay_);

  requestReload(kEverything);
}

PreferencesWindow::~PreferencesWindow() {
  pendingFolders_.disconnect();
  // Waits for the call in flight (and the user's actions still queued):
  // the model outlives the window, and the helper must hear what was asked.
  worker_.stop();
}

void PreferencesWindow::foldersChanged() { scheduleFoldersReload(); }

void PreferencesWindow::helperStateChanged() {
  // The helper came back or left for good: either way it is read again.
  letGo_ = false;
  requestReload(kHelper);
  // A folder's sweep and view come from the helper's status too.
  scheduleFoldersReload();
}

void PreferencesWindow::scheduleFoldersReload() {
  // A working helper announces savings and states many times a second, and
  // reading a long folder list takes a while: one read for a burst.
  if (pendingFolders_.connected()) return;
  pendingFolders_ = Glib::signal_timeout().connect(
      [this] {
        requestReload(kFolders);
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
  showHelper(pane::HelperState{});
}

void PreferencesWindow::reloadEverything() {
  // The helper restarts after an update: it is reachable again.
  letGo_ = false;
  requestReload(kEverything);
}

void PreferencesWindow::requestReload(unsigned parts) {
  if (reading_) {
    // Read after the one under way: what changed may have been missed by it.
    readAgain_ |= parts;
    return;
  }
  if (parts & kFolders) pendingFolders_.disconnect();
  reading_ = true;
  const bool askHelper = (parts & kHelper) && !letGo_;
  worker_.run<Reading>(
      [parts, askHelper](pane::PaneModel& model) {
        Reading reading;
        reading.parts = parts;
        if (parts & kFolders) {
          reading.folders = model.folders(&reading.problem);
          reading.totalSaved = model.totalSaved();
          reading.samples = model.savingsOverTime();
        }
        if (parts & kSettings) reading.settings = model.settings();
        if (parts & kExclusions) {
          reading.paths = model.excludedPaths();
          reading.extensions = model.excludedExtensions();
        }
        reading.helperAsked = askHelper;
        if (askHelper) reading.state = model.helperState();
        return reading;
      },
      [this](Reading reading) {
        reading_ = false;
        apply(reading);
        if (const unsigned again = std::exchange(readAgain_, 0)) requestReload(again);
      });
}

void PreferencesWindow::apply(const Reading& reading) {
  if (reading.parts & kFolders) folders_.show(reading.folders, reading.problem, reading.totalSaved, reading.samples);
  if (reading.parts & kSettings) general_.showSettings(reading.settings);
  if (reading.parts & kExclusions) exclusions_.showLists(reading.paths, reading.extensions);
  // Let go since it was asked for: the helper said it quits. Back since
  // then: the read asked for meanwhile shows it.
  if (reading.parts & kHelper) {
    if (letGo_) {
      showHelper(pane::HelperState{});
    } else if (reading.helperAsked) {
      showHelper(reading.state);
    }
  }
}

void PreferencesWindow::act(Gtk::Widget* control, Action action, std::function<void(const pane::Outcome&)> then) {
  auto busy = std::make_shared<Busy>(control);
  worker_.run<pane::Outcome>(
      std::move(action),
      [this, busy, then = std::move(then)](pane::Outcome outcome) {
        busy->over();
        report(outcome);
        if (then) then(outcome);
        requestReload(kEverything);
      },
      PaneWorker::Kind::kAction);
}

void PreferencesWindow::report(const pane::Outcome& outcome) {
  if (outcome.empty()) return;
  gchar* escaped = g_markup_escape_text(outcome.c_str(), -1);
  AdwToast* toast = adw_toast_new(escaped);
  g_free(escaped);
  adw_toast_set_timeout(toast, 8);
  adw_toast_overlay_add_toast(ADW_TOAST_OVERLAY(overlay_), toast);
}

void PreferencesWindow::showHelper(const pane::HelperState& read) {
  pane::HelperState state = read;
  if (state.kind == pane::HelperState::Kind::kNotRunning) state = pane::HelperState{};
  general_.showHelper(state);
  banner_->set_revealed(state.kind == pane::HelperState::Kind::kNotRunning);
}

}  // namespace zephlore::preferences
