// The plug-in as Thunar has it: the built library, loaded by Thunar's own one, on a real message bus with
// the real extension and the stand-in sync application. Without a display, so without the menu's widgets.
#include <dlfcn.h>

#include <algorithm>
#include <memory>

#include "Thunarx.hpp"
#include "dbus/GLibPtr.hpp"
#include "support/DesktopTest.hpp"
#include "support/FakeExtension.hpp"
#include "support/MainContext.hpp"
#include "support/thunar/FakeFiles.hpp"

// Thunar's library loads plug-ins with this; the collective header leaves it out.
#define THUNARX_INSIDE_THUNARX_H
extern "C" {
#include <thunarx/thunarx-provider-module.h>
}
#undef THUNARX_INSIDE_THUNARX_H

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using vornet::test::DesktopTest;
using vornet::test::readFile;
using vornet::test::runUntil;
using vornet::test::ScopedVariable;
using vornet::test::settle;
using vornet::test::urlOf;
using vornet::test::writeFile;
using vornet::thunar::FakeFiles;

/// A menu that Thunar shows: the entries, which it frees when the menu closes.
class ShownMenu {
 public:
  explicit ShownMenu(GList* items = nullptr) : items_(items, thunarx_menu_item_list_free) {}

  std::vector<ThunarxMenuItem*> items() const {
    std::vector<ThunarxMenuItem*> result;
    for (auto* entry = items_.get(); entry; entry = entry->next) result.push_back(THUNARX_MENU_ITEM(entry->data));
    return result;
  }
  std::size_t size() const { return items().size(); }
  ThunarxMenuItem* item(const std::string& title) const {
    for (auto* item : items())
      if (text(item, "label") == title) return item;
    return nullptr;
  }
  std::vector<std::string> titles() const {
    std::vector<std::string> result;
    for (auto* item : items()) result.push_back(text(item, "label"));
    return result;
  }
  std::size_t enabled() const {
    return static_cast<std::size_t>(std::ranges::count_if(items(), thunarx_menu_item_get_sensitive));
  }
  void choose(const std::string& title) const {
    ASSERT_NE(item(title), nullptr) << title;
    thunarx_menu_item_activate(item(title));
  }
  static std::string text(ThunarxMenuItem* item, const char* property) {
    gchar* value = nullptr;
    g_object_get(item, property, &value, nullptr);
    const vornet::GCharPtr owned(value);
    return value ? value : "";
  }

 private:
  std::unique_ptr<GList, decltype(&thunarx_menu_item_list_free)> items_;
};

class Thunar : public DesktopTest {
 protected:
  Thunar() : DesktopTest({"/file", "/other", "/folder/"}) {}
  ~Thunar() override {
    if (loaded) g_object_unref(loaded);
    unload();
  }

  /// Everything is synced when this returns; the plug-in is loaded, and has the answer to its first question.
  void start() {
    startApplication();
    startBus(Extension::real);
    load();
    answeredMenuOf({url("file")});
  }
  void load() {
    // Thunar's library looks in its own folder only; the path from there leads through the root folder.
    std::string way;
    for (int i = 0; i < 16; ++i) way += "../";
    auto* module = thunarx_provider_module_new((way + VORNET_THUNAR).c_str());
    ASSERT_TRUE(g_type_module_use(G_TYPE_MODULE(module)));
    ASSERT_TRUE(thunarx_provider_plugin_get_resident(THUNARX_PROVIDER_PLUGIN(module)));
    const GType* types = nullptr;
    int count = 0;
    thunarx_provider_module_list_types(module, &types, &count);
    ASSERT_EQ(count, 1);
    loaded = THUNARX_MENU_PROVIDER(g_object_new(types[0], nullptr));
  }
  /// As Thunar does when it ends.
  static void unload() {
    void* library = dlopen(VORNET_THUNAR, RTLD_NOW | RTLD_NOLOAD);
    if (!library) return;
    reinterpret_cast<void (*)()>(dlsym(library, "thunar_extension_shutdown"))();
    dlclose(library);
  }

  /// Asks the provider itself: without a display there is no window to ask for, as Thunar's library wants.
  ThunarxMenuProviderIface* operations() const { return THUNARX_MENU_PROVIDER_GET_IFACE(loaded); }
  ShownMenu menuOf(const FakeFiles& files) const {
    return ShownMenu(operations()->get_file_menu_items(loaded, nullptr, files.list()));
  }
  ShownMenu menuOf(const std::vector<std::string>& urls) const {
    const FakeFiles files(urls);
    return menuOf(files);
  }
  std::string url(const std::string& name) const { return urlOf(root + "/" + name); }

  /// Asks until the sync application's answer is there, as a user would who opens the menu again.
  ShownMenu answeredMenuOf(const std::vector<std::string>& urls) const {
    ShownMenu menu;
    EXPECT_TRUE(runUntil([&] {
      settle();  // each menu leaves work that comes before the answer
      return (menu = menuOf(urls)).enabled() > 0;
    }));
    return menu;
  }
  /// Waits until the sync application has performed the action on these paths.
  bool performs(const std::string& name, const std::vector<std::string>& paths) const {
    return runUntil([&] {
      return std::ranges::any_of(application->actions(),
                                 [&](const auto& action) { return action.name == name && action.paths == paths; });
    });
  }

  const ScopedVariable display{"DISPLAY", std::nullopt};
  ThunarxMenuProvider* loaded = nullptr;
};

TEST_F(Thunar, ShowsTheEntriesThatTheSyncApplicationOffersAndLeavesTheOthersOut) {
  start();
  EXPECT_THAT(answeredMenuOf({url("file")}).titles(),
              ElementsAre("Share", "Copy Link", "Comments", "View versions", "View in Cloud"));
  EXPECT_THAT(answeredMenuOf({url("folder")}).titles(), ElementsAre("Share", "Copy Link", "Comments", "View in Cloud"));
  const auto both = answeredMenuOf({url("file"), url("folder")});
  EXPECT_THAT(both.titles(), ElementsAre("Share", "View in Cloud"));
  EXPECT_EQ(ShownMenu::text(both.item("Share"), "icon"), "vornet-vi");
}

TEST_F(Thunar, EntriesShownBeforeTheAnswerAreGreyedAndFollowIt) {
  start();
  const auto menu = menuOf({url("folder")});
  EXPECT_EQ(menu.size(), 5u);
  EXPECT_EQ(menu.enabled(), 0u);
  ASSERT_TRUE(runUntil([&] { return menu.enabled() > 0; }));
  EXPECT_EQ(menu.enabled(), 4u);
  EXPECT_FALSE(thunarx_menu_item_get_sensitive(menu.item("View versions")));
}

TEST_F(Thunar, AGreyedEntryHasTheTipThatTheSyncApplicationIsAway) {
  start();
  EXPECT_EQ(ShownMenu::text(answeredMenuOf({url("file")}).item("Share"), "tooltip"), "");
  application->stop();
  EXPECT_TRUE(runUntil([&] {
    settle();  // each menu leaves work that comes before the answer
    const auto menu = menuOf({url("file")});
    return menu.item("Share") && ShownMenu::text(menu.item("Share"), "tooltip") == "Kelvane is not running";
  }));
}

TEST_F(Thunar, AnOlderMenuDoesNotFollowTheAnswerToANewerSelection) {
  start();
  answeredMenuOf({url("other")});
  // The older one may follow its own answer, in which a folder has no versions.
  const auto older = menuOf({url("folder")});
  bool followedNewer = false;
  const auto follow = +[](ThunarxMenuItem* item, GParamSpec*, bool* followed) {
    *followed = *followed || thunarx_menu_item_get_sensitive(item);
  };
  g_signal_connect(older.item("View versions"), "notify::sensitive", G_CALLBACK(follow), &followedNewer);
  const auto newer = answeredMenuOf({url("file")});
  EXPECT_TRUE(thunarx_menu_item_get_sensitive(newer.item("View versions")));
  EXPECT_FALSE(followedNewer);
}

TEST_F(Thunar, AChoiceIsPerformedOnTheSelectionThatTheMenuWasShownFor) {
  start();
  const auto menu = answeredMenuOf({url("file"), url("folder")});
  answeredMenuOf({url("other")});
  menu.choose("Share");
  EXPECT_TRUE(performs("Share", {"/file", "/folder/"}));
  EXPECT_EQ(application->actions().size(), 1u);
}

TEST_F(Thunar, HasNoEntriesOutsideTheSyncedFolderNorForNothingNorForABackground) {
  start();
  EXPECT_EQ(menuOf({"file:///etc/passwd"}).size(), 0u);
  EXPECT_EQ(menuOf({url("file"), "file:///etc/passwd"}).size(), 0u);
  EXPECT_EQ(menuOf({"file://" + root + "-beside/file"}).size(), 0u);
  EXPECT_EQ(menuOf({"trash:///file"}).size(), 0u);
  EXPECT_EQ(menuOf({url("file"), "sftp://host" + root + "/file"}).size(), 0u);
  EXPECT_EQ(menuOf({}).size(), 0u);
  EXPECT_EQ(operations()->get_folder_menu_items, nullptr);
  EXPECT_GT(menuOf({url("file")}).size(), 0u);
}

TEST_F(Thunar, HasNoEntriesForAVeryLargeSelection) {
  start();
  std::vector<std::string> many(1000, url("file"));
  EXPECT_GT(menuOf(many).size(), 0u);
  many.push_back(url("file"));
  EXPECT_EQ(menuOf(many).size(), 0u);
}

TEST_F(Thunar, OddNamesReachTheSyncApplicationAsTheyAre) {
  const std::vector<std::string> names = {
      "with space",       "a:b",         "100%",         "100%25",          "a#b?c",        "two\nlines",
      "\xF0\x9F\x98\x80", "caf\xC3\xA9", "cafe\xCC\x81", "quote\"s & <b>;", "_under_score", std::string(255, 'x')};
  for (const auto& name : names) writeFile(root + "/" + name, "content");
  start();
  for (const auto& name : names) {
    application->setStatus("/" + name, 2);  // it does not sync all of them by itself
    answeredMenuOf({url(name)}).choose("Copy Link");
    EXPECT_TRUE(performs("Copy Link", {"/" + name})) << name;
  }
}

TEST_F(Thunar, HasNoEntriesForANameThatIsNotUtf8) {
  writeFile(root + "/bytes\xFF", "");
  start();
  EXPECT_EQ(menuOf({url("bytes\xFF")}).size(), 0u);
  EXPECT_EQ(menuOf({url("file"), url("bytes\xFF")}).size(), 0u);
}

TEST_F(Thunar, WaitsForNothingWhileTheExtensionIsFrozen) {
  start();
  const int process = client->extensionProcess();
  ASSERT_GT(process, 0);
  ASSERT_EQ(::kill(process, SIGSTOP), 0);
  // Two thousand questions to a frozen process: had one waited for it, the test would not come to its end.
  std::size_t enabled = 0;
  for (int i = 0; i < 1000; ++i) enabled += menuOf({url("folder")}).enabled() + menuOf({url("other")}).enabled();
  EXPECT_EQ(enabled, 0u);
  const auto menu = menuOf({url("folder")});
  menu.choose("Share");
  ASSERT_EQ(::kill(process, SIGCONT), 0);
  EXPECT_TRUE(performs("Share", {"/folder/"}));
  EXPECT_TRUE(runUntil([&] { return menu.enabled() == 4; }));
}

TEST_F(Thunar, SurvivesTheExtensionsDeath) {
  start();
  const int process = client->extensionProcess();
  ASSERT_EQ(::kill(process, SIGKILL), 0);
  ASSERT_TRUE(runUntil([&] { return client->extensionProcess() != process; }));
  answeredMenuOf({url("folder")}).choose("Share");
  EXPECT_TRUE(performs("Share", {"/folder/"}));
  EXPECT_NE(client->extensionProcess(), process);
}

TEST_F(Thunar, IsSilentWhereTheExtensionIsNotInstalled) {
  startBus(Extension::none);
  load();
  ::testing::internal::CaptureStderr();
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(menuOf({url(i % 2 == 0 ? "file" : "folder")}).size(), 0u);
    for (int j = 0; j < 20; ++j) g_main_context_iteration(nullptr, FALSE);
  }
  const auto said = ::testing::internal::GetCapturedStderr();
  EXPECT_LE(std::count(said.begin(), said.end(), '\n'), 2) << said;  // one warning: a line, and an empty one before it
}

TEST_F(Thunar, ObservesNoFolder) {
  start();
  answeredMenuOf({url("folder")}).choose("Share");
  ASSERT_TRUE(performs("Share", {"/folder/"}));
  EXPECT_THAT(readFile(environment.logFile()), Not(IsEmpty()));
  EXPECT_THAT(readFile(environment.logFile()), Not(HasSubstr("ObservingDirectoryAtURL")));
}

TEST_F(Thunar, LeaksNothingThatThunarHandsOut) {
  start();
  int living = 0;
  const auto gone = [](gpointer count, GObject*) { --*static_cast<int*>(count); };
  {
    const FakeFiles files({url("file")});
    const auto menu = menuOf(files);
    ASSERT_EQ(menu.size(), 5u);
    for (auto* item : menu.items()) g_object_weak_ref(G_OBJECT(item), gone, &living);
    g_object_weak_ref(G_OBJECT(files.list()->data), gone, &living);
    living = 6;
  }
  EXPECT_EQ(living, 0);
}

TEST_F(Thunar, AnEntryThatOutlivesThePluginDoesNothing) {
  start();
  const auto menu = answeredMenuOf({url("file")});
  unload();
  menu.choose("Share");
  EXPECT_EQ(menuOf({url("file")}).size(), 0u);
  EXPECT_THAT(application->actions(), IsEmpty());
}

}  // namespace
