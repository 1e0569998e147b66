// The window over a model in memory: what each control asks of the model,
// what the listener's calls change, and that showing the model's values
// never posts anything back, and that a model call that waits leaves the
// window running. Needs a display (ctest runs it under xvfb-run).
#include <adwaita.h>
#include <gtest/gtest.h>
#include <gtkmm/init.h>

#include <chrono>
#include <functional>
#include <iostream>

#include "preferences/fake_pane_model_for_tests.h"
#include "preferences/preferences_window.h"

namespace zephlore::preferences {
namespace {

bool displayReady() {
  static const bool ready = [] {
    if (!gtk_init_check()) return false;
    adw_init();
    Gtk::init_gtkmm_internals();
    return true;
  }();
  return ready;
}

using namespace std::chrono_literals;

// Runs the main loop until `done` holds, for at most `limit`.
bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 5s) {
  bool expired = false;
  const guint timer = g_timeout_add(
      static_cast<guint>(limit.count()),
      [](gpointer flag) {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &expired);
  while (!done() && !expired) g_main_context_iteration(nullptr, TRUE);
  if (!expired) g_source_remove(timer);
  return done();
}

void runReady() {
  for (int i = 0; i < 10000 && g_main_context_iteration(nullptr, FALSE); ++i) {
  }
}

GtkWidget* find(GtkWidget* root, const std::function<bool(GtkWidget*)>& match) {
  if (match(root)) return root;
  for (GtkWidget* child = gtk_widget_get_first_child(root); child; child = gtk_widget_get_next_sibling(child)) {
    if (GtkWidget* found = find(child, match)) return found;
  }
  return nullptr;
}

class PreferencesWindowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!displayReady()) GTEST_SKIP() << "no display (run under xvfb-run)";
    model_.folderList = {{"/w/a & b", true, true, 2'000'000, "Sweeping", std::nullopt, ""},
                         {"/w/fat", false, true, 0, "", std::string("no extended attributes"), ""}};
    model_.extensions = {"iso"};
    model_.state.kind = pane::HelperState::Kind::kIdle;
    model_.state.words = "Idle";
    window_ = std::make_unique<PreferencesWindow>(model_, 0);
    root_ = GTK_WIDGET(window_->gobj());
    settle();
  }
  void TearDown() override { model_.openGate(); }

  // Until the window's calls came back and their results are shown.
  void settle() {
    ASSERT_TRUE(runUntil([&] {
      runReady();
      return !window_->working();
    })) << "the window's calls to the model did not come back";
  }

  GtkWidget* row(const std::string& title) {
    return find(root_, [&](GtkWidget* w) {
      return ADW_IS_PREFERENCES_ROW(w) && title == adw_preferences_row_get_title(ADW_PREFERENCES_ROW(w));
    });
  }
  std::string subtitle(const std::string& title) {
    GtkWidget* found = row(title);
    return found ? adw_action_row_get_subtitle(ADW_ACTION_ROW(found)) : "";
  }
  GtkSwitch* switchIn(const std::string& title) {
    GtkWidget* found = row(title);
    return found ? GTK_SWITCH(find(found, [](GtkWidget* w) { return GTK_IS_SWITCH(w); })) : nullptr;
  }
  GtkButton* button(GtkWidget* within, const std::string& label) {
    return GTK_BUTTON(find(within, [&](GtkWidget* w) {
      if (!GTK_IS_BUTTON(w)) return false;
      const char* text = gtk_button_get_label(GTK_BUTTON(w));
      const char* tip = gtk_widget_get_tooltip_text(w);
      return (text && label == text) || (tip && label == tip);
    }));
  }
  void click(GtkButton* control) {
    ASSERT_NE(control, nullptr);
    g_signal_emit_by_name(control, "clicked");
    settle();
  }

  FakePaneModel model_;
  std::unique_ptr<PreferencesWindow> window_;
  GtkWidget* root_ = nullptr;
};

TEST_F(PreferencesWindowTest, FolderRowsShowTheModelAndTheirControlsAskItWithoutEchoes) {
  // Showing the model's values (the switches among them) posts nothing.
  EXPECT_TRUE(model_.callsMade().empty());
  gchar* saved = g_format_size(2'000'000);
  EXPECT_EQ(subtitle("/w/a & b"), std::string("Saved ") + saved + "\nSweeping");
  g_free(saved);
  EXPECT_NE(subtitle("/w/fat").find("Not watched\nIts volume cannot hold compressed files: no extended attributes"),
            std::string::npos);
  ASSERT_NE(switchIn("/w/fat"), nullptr);
  EXPECT_FALSE(gtk_switch_get_active(switchIn("/w/fat")));

  gtk_switch_set_active(switchIn("/w/fat"), TRUE);
  settle();
  click(button(row("/w/a & b"), "Remove folder /w/a & b"));
  EXPECT_EQ(model_.callsMade(), (std::vector<std::string>{"setFolderEnabled /w/fat 1", "removeFolder /w/a & b"}));
  EXPECT_EQ(row("/w/a & b"), nullptr);
  EXPECT_TRUE(gtk_switch_get_active(switchIn("/w/fat")));

  // A general switch the model refuses goes back to the model's value.
  model_.locked([&] { model_.failWith = "Cannot write the settings."; });
  gtk_switch_set_active(switchIn("Active"), FALSE);
  settle();
  EXPECT_EQ(model_.callsMade().back(), "setActive 0");
  EXPECT_TRUE(gtk_switch_get_active(switchIn("Active")));
  EXPECT_EQ(model_.callsMade().size(), 3u);
  EXPECT_EQ(model_.locked([&] { return model_.callsOnTestThread; }), 0);
}

TEST_F(PreferencesWindowTest, AHelperThatQuitsIsLetGoAndStartedAgainFromTheBar) {
  GtkWidget* bar = find(root_, [](GtkWidget* w) { return GTK_IS_INFO_BAR(w); });
  ASSERT_NE(bar, nullptr);
  EXPECT_FALSE(gtk_info_bar_get_revealed(GTK_INFO_BAR(bar)));
  GtkButton* pause = button(root_, "_Pause");
  ASSERT_NE(pause, nullptr);
  EXPECT_TRUE(gtk_widget_get_sensitive(GTK_WIDGET(pause)));

  const int reads = model_.locked([&] { return model_.helperStateReads; });
  window_->helperQuitting();
  settle();
  EXPECT_TRUE(gtk_info_bar_get_revealed(GTK_INFO_BAR(bar)));
  EXPECT_FALSE(gtk_widget_get_sensitive(GTK_WIDGET(pause)));
  EXPECT_EQ(subtitle("Helper"), "Not running");
  EXPECT_EQ(model_.locked([&] { return model_.helperStateReads; }), reads);  // let go: not asked

  model_.locked([&] {
    model_.state.kind = pane::HelperState::Kind::kPaused;
    model_.state.words = "Paused: on battery";
  });
  click(button(bar, "_Start Helper"));
  EXPECT_EQ(model_.callsMade(), std::vector<std::string>{"startHelper"});
  EXPECT_FALSE(gtk_info_bar_get_revealed(GTK_INFO_BAR(bar)));
  EXPECT_EQ(subtitle("Helper"), "Paused: on battery");
  click(button(root_, "_Resume"));
  EXPECT_EQ(model_.callsMade().back(), "resume");
}

TEST_F(PreferencesWindowTest, ExtensionsAreAddedFromTheEntryAndTheHistoryComesToTheFront) {
  GtkWidget* entry = find(root_, [](GtkWidget* w) {
    return GTK_IS_ENTRY(w) && std::string(gtk_entry_get_placeholder_text(GTK_ENTRY(w))) == "e.g. iso";
  });
  ASSERT_NE(entry, nullptr);
  gtk_editable_set_text(GTK_EDITABLE(entry), "  zip ");
  g_signal_emit_by_name(entry, "activate");
  settle();
  EXPECT_EQ(model_.callsMade(), std::vector<std::string>{"addExcludedExtension zip"});
  EXPECT_STREQ(gtk_editable_get_text(GTK_EDITABLE(entry)), "");
  EXPECT_NE(row("zip"), nullptr);
  click(button(row("iso"), "Remove excluded extension iso"));
  EXPECT_EQ(model_.callsMade().back(), "removeExcludedExtension iso");

  GtkWidget* stack = find(root_, [](GtkWidget* w) { return ADW_IS_VIEW_STACK(w); });
  ASSERT_NE(stack, nullptr);
  adw_view_stack_set_visible_child_name(ADW_VIEW_STACK(stack), "exclusions");
  window_->showHistory();
  EXPECT_STREQ(adw_view_stack_get_visible_child_name(ADW_VIEW_STACK(stack)), "folders");

  // Savings announced by the helper are read again.
  model_.locked([&] { model_.folderList.push_back({"/w/new", true, true, 5, "", std::nullopt, ""}); });
  window_->foldersChanged();
  settle();
  EXPECT_NE(row("/w/new"), nullptr);
}

TEST_F(PreferencesWindowTest, AModelCallThatWaitsLeavesTheWindowRunningAndItsResultIsShownAfter) {
  model_.closeGate();
  model_.locked([&] { model_.folderList.push_back({"/w/late", true, true, 7, "", std::nullopt, ""}); });
  using Clock = std::chrono::steady_clock;
  const auto asked = Clock::now();
  window_->reloadEverything();
  const auto askTook = Clock::now() - asked;
  ASSERT_TRUE(runUntil([&] { return model_.waitingAtGate() == 1; })) << "the re-read never reached the model";

  // Held inside the model: the main loop still runs, and a control still
  // answers at once, its action queued behind the read.
  bool ran = false;
  g_idle_add(
      [](gpointer flag) {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &ran);
  EXPECT_TRUE(runUntil([&] { return ran; }, 1s));
  const auto toggled = Clock::now();
  gtk_switch_set_active(switchIn("Active"), FALSE);
  const auto toggleTook = Clock::now() - toggled;
  runReady();
  EXPECT_FALSE(gtk_widget_get_sensitive(GTK_WIDGET(switchIn("Active"))));  // busy until done
  EXPECT_TRUE(model_.callsMade().empty());
  EXPECT_EQ(row("/w/late"), nullptr);
  EXPECT_EQ(model_.waitingAtGate(), 1);
  EXPECT_LT(askTook, 100ms);
  EXPECT_LT(toggleTook, 100ms);
  std::cout << "while the model was held: re-read asked in "
            << std::chrono::duration_cast<std::chrono::microseconds>(askTook).count() << " us, switch answered in "
            << std::chrono::duration_cast<std::chrono::microseconds>(toggleTook).count() << " us\n";

  // Let go: the read is shown, then the write runs and its re-read agrees.
  model_.openGate();
  settle();
  EXPECT_NE(row("/w/late"), nullptr);
  EXPECT_EQ(model_.callsMade(), std::vector<std::string>{"setActive 0"});
  EXPECT_FALSE(gtk_switch_get_active(switchIn("Active")));
  EXPECT_TRUE(gtk_widget_get_sensitive(GTK_WIDGET(switchIn("Active"))));
  EXPECT_EQ(model_.locked([&] { return model_.callsOnTestThread; }), 0);

  // A window closed while a read waits: the user's write queued behind it
  // still reaches the model, and no result is shown any more.
  model_.closeGate();
  window_->reloadEverything();
  ASSERT_TRUE(runUntil([&] { return model_.waitingAtGate() == 1; }));
  gtk_switch_set_active(switchIn("Show status icon"), FALSE);
  std::thread opener([&] { model_.openGate(); });
  window_.reset();
  opener.join();
  runReady();
  EXPECT_EQ(model_.callsMade().back(), "setVisible 0");
}

}  // namespace
}  // namespace zephlore::preferences
