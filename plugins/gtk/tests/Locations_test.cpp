// What the plug-in does to the windows of Nemo and Caja: the place of its widget, and a menu that is open.
#include <gmock/gmock.h>
#include <gtk/gtk.h>

#include <algorithm>
#include <memory>
#include <optional>

#include "support/DesktopTest.hpp"
#include "support/FakeExtension.hpp"
#include "support/MainContext.hpp"
#include "support/gtk/FakeTab.hpp"
#include "support/gtk/TestHost.hpp"

namespace {

using vornet::gtk::manager::LocationWidgetProvider;
using vornet::test::DesktopTest;
using vornet::test::FakeExtension;
using vornet::test::FakeWindows;
using vornet::test::runUntil;
using vornet::test::TestHost;
using vornet::test::urlOf;

// VORNET_LOCATIONS_SUITE: the suite's name, with the file manager's in it.
class VORNET_LOCATIONS_SUITE : public DesktopTest {
 protected:
  VORNET_LOCATIONS_SUITE() {
    startBus(Extension::none);
    windows.emplace();
    host.emplace();
    window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    gtk_container_set_border_width(GTK_CONTAINER(box), 6);
    gtk_container_add(GTK_CONTAINER(window), box);
    gtk_widget_show_all(window);
  }
  ~VORNET_LOCATIONS_SUITE() override { gtk_widget_destroy(window); }

  GtkWidget* place(const std::string& url = "file:///folder") {
    GtkWidget* widget = VORNET_CALL(location_widget_provider_get_widget)(
        reinterpret_cast<LocationWidgetProvider*>(host->provider()), url.c_str(), window);
    gtk_box_pack_start(GTK_BOX(box), widget, TRUE, TRUE, 0);
    return widget;
  }
  guint border() const { return gtk_container_get_border_width(GTK_CONTAINER(box)); }

  std::optional<FakeWindows> windows;
  std::optional<TestHost> host;
  GtkWidget* window = nullptr;
  GtkWidget* box = nullptr;
};

TEST_F(VORNET_LOCATIONS_SUITE, TakesNoRoomAboveTheItems) {
  GtkWidget* widget = place();
  int height = -1;
  gtk_widget_get_preferred_height(box, nullptr, &height);
  EXPECT_EQ(height, 0);
  gtk_widget_destroy(widget);
  EXPECT_EQ(border(), 6u) << "for the next one";
}

TEST_F(VORNET_LOCATIONS_SUITE, LeavesTheRoomOfOtherWidgets) {
  gtk_container_add(GTK_CONTAINER(box), gtk_drawing_area_new());
  GtkWidget* widget = place();
  EXPECT_EQ(border(), 6u);
  gtk_widget_destroy(widget);
  EXPECT_EQ(border(), 6u);
}

TEST_F(VORNET_LOCATIONS_SUITE, TheFolderOfANewWindowIsObservedBeforeTheWindowIsToBeSeen) {
  FakeExtension fake(bus->address(), {urlOf(root)});
  gtk_widget_hide(window);
  place(urlOf(root));
  EXPECT_TRUE(runUntil([&] { return fake.observed.count(urlOf(root)) == 1; }));
  gtk_widget_show(window);
  EXPECT_TRUE(runUntil([&] { return gtk_widget_get_mapped(window) != FALSE; }));
  EXPECT_EQ(fake.count("BeginObserving"), 1u) << "the same goes on";
}

#if defined(VORNET_FOR_NEMO)
G_GNUC_BEGIN_IGNORE_DEPRECATIONS  // Nemo's menus are made of these

TEST_F(VORNET_LOCATIONS_SUITE, AnOpenMenuTakesTheAnswerThatCameLater) {
  FakeExtension fake(bus->address(), {urlOf(root)});
  fake.menu = FakeExtension::ALL;
  fake.hold("GetMenu");
  const auto file = host->watchedFile(root + "/file");
  std::vector<TestHost::Entry> entries;
  ASSERT_TRUE(runUntil([&] {
    entries = host->menu({file.get()});
    return !entries.empty() && !fake.menuRequests.empty();
  }));

  GtkWidget* menu = gtk_menu_new();
  std::vector<std::unique_ptr<GtkAction, decltype(&g_object_unref)>> actions;
  const auto add = [&](const std::string& name, bool sensitive) {
    actions.emplace_back(gtk_action_new(name.c_str(), name.c_str(), nullptr, nullptr), g_object_unref);
    gtk_action_set_sensitive(actions.back().get(), sensitive);
    gtk_menu_shell_append(GTK_MENU_SHELL(menu), gtk_action_create_menu_item(actions.back().get()));
  };
  for (const auto& entry : entries) add(entry.name, entry.sensitive);
  add("Another::share:", false);
  gtk_menu_shell_append(GTK_MENU_SHELL(menu), gtk_separator_menu_item_new());
  gtk_widget_show_all(menu);
  gtk_menu_attach_to_widget(GTK_MENU(menu), window, nullptr);
  gtk_menu_popup(GTK_MENU(menu), nullptr, nullptr, nullptr, nullptr, 0, GDK_CURRENT_TIME);
  ASSERT_TRUE(runUntil([&] { return gtk_widget_get_mapped(menu) != FALSE; }));

  fake.release("GetMenu");
  const auto isSensitive = [](const auto& action) { return gtk_action_get_sensitive(action.get()) != FALSE; };
  ASSERT_TRUE(runUntil([&] { return std::ranges::any_of(actions, isSensitive); }));
  std::vector<bool> sensitive;
  std::ranges::transform(actions, std::back_inserter(sensitive), isSensitive);
  EXPECT_THAT(sensitive, testing::ElementsAre(true, true, true, false, true, false));
  gtk_widget_destroy(menu);
}

G_GNUC_END_IGNORE_DEPRECATIONS
#endif

}  // namespace
