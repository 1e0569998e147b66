// The window over a model in memory: what each control asks of the model,
// what the listener's calls change, and that showing the model's values
// never posts anything back. Needs a display (ctest runs it under xvfb-run).
#include <adwaita.h>
#include <gtest/gtest.h>
#include <gtkmm/init.h>

#include <functional>

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

// Runs what is ready on the main loop (the window defers its re-reads).
void settle() {
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
  EXPECT_TRUE(model_.calls.empty());
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
  EXPECT_EQ(model_.calls, (std::vector<std::string>{"setFolderEnabled /w/fat 1", "removeFolder /w/a & b"}));
  EXPECT_EQ(row("/w/a & b"), nullptr);
  EXPECT_TRUE(gtk_switch_get_active(switchIn("/w/fat")));

  // A general switch the model refuses goes back to the model's value.
  model_.failWith = "Cannot write the settings.";
  gtk_switch_set_active(switchIn("Active"), FALSE);
  settle();
  EXPECT_EQ(model_.calls.back(), "setActive 0");
  EXPECT_TRUE(gtk_switch_get_active(switchIn("Active")));
  EXPECT_EQ(model_.calls.size(), 3u);
}

TEST_F(PreferencesWindowTest, AHelperThatQuitsIsLetGoAndStartedAgainFromTheBar) {
  GtkWidget* bar = find(root_, [](GtkWidget* w) { return GTK_IS_INFO_BAR(w); });
  ASSERT_NE(bar, nullptr);
  EXPECT_FALSE(gtk_info_bar_get_revealed(GTK_INFO_BAR(bar)));
  GtkButton* pause = button(root_, "_Pause");
  ASSERT_NE(pause, nullptr);
  EXPECT_TRUE(gtk_widget_get_sensitive(GTK_WIDGET(pause)));

  const int reads = model_.helperStateReads;
  window_->helperQuitting();
  settle();
  EXPECT_TRUE(gtk_info_bar_get_revealed(GTK_INFO_BAR(bar)));
  EXPECT_FALSE(gtk_widget_get_sensitive(GTK_WIDGET(pause)));
  EXPECT_EQ(subtitle("Helper"), "Not running");
  EXPECT_EQ(model_.helperStateReads, reads);  // let go: not asked

  model_.state.kind = pane::HelperState::Kind::kPaused;
  model_.state.words = "Paused: on battery";
  click(button(bar, "_Start Helper"));
  EXPECT_EQ(model_.calls, std::vector<std::string>{"startHelper"});
  EXPECT_FALSE(gtk_info_bar_get_revealed(GTK_INFO_BAR(bar)));
  EXPECT_EQ(subtitle("Helper"), "Paused: on battery");
  click(button(root_, "_Resume"));
  EXPECT_EQ(model_.calls.back(), "resume");
}

TEST_F(PreferencesWindowTest, ExtensionsAreAddedFromTheEntryAndTheHistoryComesToTheFront) {
  GtkWidget* entry = find(root_, [](GtkWidget* w) {
    return GTK_IS_ENTRY(w) && std::string(gtk_entry_get_placeholder_text(GTK_ENTRY(w))) == "e.g. iso";
  });
  ASSERT_NE(entry, nullptr);
  gtk_editable_set_text(GTK_EDITABLE(entry), "  zip ");
  g_signal_emit_by_name(entry, "activate");
  settle();
  EXPECT_EQ(model_.calls, std::vector<std::string>{"addExcludedExtension zip"});
  EXPECT_STREQ(gtk_editable_get_text(GTK_EDITABLE(entry)), "");
  EXPECT_NE(row("zip"), nullptr);
  click(button(row("iso"), "Remove excluded extension iso"));
  EXPECT_EQ(model_.calls.back(), "removeExcludedExtension iso");

  GtkWidget* stack = find(root_, [](GtkWidget* w) { return ADW_IS_VIEW_STACK(w); });
  ASSERT_NE(stack, nullptr);
  adw_view_stack_set_visible_child_name(ADW_VIEW_STACK(stack), "exclusions");
  window_->showHistory();
  EXPECT_STREQ(adw_view_stack_get_visible_child_name(ADW_VIEW_STACK(stack)), "folders");

  // Savings announced by the helper are read again.
  model_.folderList.push_back({"/w/new", true, true, 5, "", std::nullopt, ""});
  window_->foldersChanged();
  settle();
  EXPECT_NE(row("/w/new"), nullptr);
}

}  // namespace
}  // namespace zephlore::preferences
