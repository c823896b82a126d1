// Messages of an extension that make no sense, or too many of them, cost the file manager little.
#include <time.h>

#include <algorithm>
#include <fstream>

#include "PluginTest.hpp"
#include "support/StartedProgram.hpp"

namespace vornet::test {
namespace {

using std::chrono::milliseconds;
using namespace std::string_literals;
using testing::SizeIs;

// --- Messages of another type or shape ------------------------------------------------------------------------------

class PluginNonsense : public PluginTest {
 protected:
  PluginNonsense() {
    g_log_set_handler("GLib", G_LOG_LEVEL_CRITICAL, countLine, nullptr);
    g_log_set_handler("GLib-GIO", G_LOG_LEVEL_CRITICAL, countLine, nullptr);
    makePlugin({.firstRetry = milliseconds(20), .lastRetry = milliseconds(160)});
    startExtension();
  }

  static void countLine(const gchar*, GLogLevelFlags, const gchar*, gpointer) { ++logLines; }

  /// The extension answers what is asked, a method or property, with this; counts how often.
  void answer(const std::string& asked, const char* text) {
    extension->nonsense[asked] = [this, text] {
      ++answers_;
      return g_variant_new_parsed(text);
    };
  }

  /// The menu of an item, for which the extension sends these entries.
  client::Menu menuOf(const std::string& name, const client::Menu& entries) {
    extension->nonsense["GetMenu"] = [&] {
      GVariantBuilder list;
      g_variant_builder_init(&list, G_VARIANT_TYPE("a(ssbs)"));
      for (const auto& entry : entries)
        g_variant_builder_add(&list, "(ssbs)", entry.title.c_str(), entry.action.c_str(), TRUE, entry.icon.c_str());
      return g_variant_new("(a(ssbs))", &list);
    };
    const auto before = manager.menuChanges;
    manager.plugin->menu({path(name)});
    EXPECT_TRUE(runUntil([&] { return manager.menuChanges > before; }));
    return manager.plugin->menu({path(name)});
  }

  int answers_ = 0;
};

TEST_F(PluginNonsense, SignalsOfAnotherTypeAreIgnored) {
  open({{"a", "SYNCED"}});
  for (const char* values : {"('text',)", "([1],)", "()", "(@a(sss) [('a', 'b', 'c')],)", "([('a', 'b')], 1)"})
    extension->send("com.vornet.FinderSync1", "BadgesChanged", g_variant_new_parsed(values));
  for (const char* values : {"('text',)", "()", "('x', @a{ss} {}, @as [])",
                             "('com.vornet.FinderSync1', {'ObservedFolders': <7>}, @as [])"}) {
    extension->send("org.freedesktop.DBus.Properties", "PropertiesChanged", g_variant_new_parsed(values));
  }
  EXPECT_TRUE(changes("a", "PENDING"));
  EXPECT_EQ(logLines, 0);
}

TEST_F(PluginNonsense, ObservedFoldersOfAnotherTypeAreAskedForAgain) {
  answer("ObservedFolders", "'nonsense'");
  openWindow("", {{"a", "SYNCED"}});
  ASSERT_TRUE(runUntil([&] { return answers_ >= 3; }));
  EXPECT_EQ(manager.emblem(path("a")), "");
  extension->nonsense.clear();
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
  EXPECT_EQ(logLines, 0);
}

TEST_F(PluginNonsense, ObservedFoldersOfTheRightTypeResetTheBackoff) {
  makePlugin({.firstRetry = milliseconds(20), .lastRetry = std::chrono::seconds(60)});
  manager.plugin->folderShown(root);
  // Without a reset the last of these would wait for twenty minutes.
  for (int times = 2; times <= 16; times += 2) {
    extension.reset();
    startExtension();
    answer("ObservedFolders", "'nonsense'");
    ASSERT_TRUE(runUntil([&] { return answers_ >= times; }));
    extension->nonsense.clear();
    ASSERT_TRUE(waitForObserved(1));
  }
}

TEST_F(PluginNonsense, AMenuOfAnotherTypeStaysGreyed) {
  open({{"a", "SYNCED"}});
  answer("GetMenu", "(@a(sss) [('a', 'b', 'c')],)");
  manager.plugin->menu({path("a")});
  ASSERT_TRUE(runUntil([&] { return answers_ == 1; }));
  settle();
  EXPECT_THAT(manager.plugin->menu({path("a")}), SizeIs(5));
  EXPECT_EQ(logLines, 0);
}

TEST_F(PluginNonsense, OnlyTheFirstHundredEntriesOfAMenuAreShown) {
  open({{"a", "SYNCED"}});
  client::Menu sent;
  for (int i = 0; i < 5000; ++i) sent.push_back({std::to_string(i), "share:", true, ""});
  const auto menu = menuOf("a", sent);
  ASSERT_EQ(menu.size(), 100u);
  EXPECT_EQ(menu.front().title, "0");
  EXPECT_EQ(menu.back().title, "99");
}

TEST_F(PluginNonsense, OnlyTheFirstTwoHundredCharactersOfATitleAreShown) {
  open({{"a", "SYNCED"}});
  for (const std::string character : {"x", "\xc3\xa9", "\xe2\x98\x80", "\xf0\x9f\x98\x80"}) {
    std::string cut;
    for (int i = 0; i < 200; ++i) cut += character;
    client::Menu sent;
    for (const auto& title : {cut, cut + character, cut + cut + cut, std::string(), character})
      sent.push_back({title, "share:", true, ""});
    sent.push_back({"action", std::string(100'000, 'a'), true, ""});
    sent.push_back({"image", "notes:", true, std::string(100'000, 'i')});
    const auto menu = menuOf(character, sent);
    std::vector<std::string> titles;
    for (const auto& entry : menu) titles.push_back(entry.title);
    EXPECT_TRUE((titles == std::vector<std::string>{cut, cut, cut, "", character, "image"})) << titles.size();
    EXPECT_EQ(menu.back().icon, "vornet-vi");
  }
}

TEST_F(PluginNonsense, AnEndlessNameOfAnItemOrABadgeHidesNoOther) {
  open({{"a", "SYNCED"}});
  extension->sendChanges(
      {{"file:///" + std::string(1'000'000, 'x'), "PENDING"}, {url("a"), std::string(1'000'000, 'x')}});
  EXPECT_TRUE(waitForEmblem("a", ""));
  extension->sendChanges({{"file:///" + std::string(1'000'000, 'x'), "PENDING"}, {url("a"), "PENDING"}});
  EXPECT_TRUE(waitForEmblem("a", PENDING));
}

TEST_F(PluginNonsense, ChangesBeyondTheLimitOfAMessageAreRequested) {
  open({{"a", "SYNCED"}});
  std::vector<std::pair<std::string, std::string>> changes(20'000, {url("stranger"), "PENDING"});
  changes.emplace_back(url("a"), "PENDING");
  extension->badges[url("a")] = "PENDING";
  extension->sendChanges(changes);
  EXPECT_TRUE(waitForEmblem("a", PENDING));
  EXPECT_THAT(extension->badgeRequests, SizeIs(2));
}

// --- Floods ---------------------------------------------------------------------------------------------------------

/// An extension in another process, which floods the plug-in when a test says so.
class PluginFlood : public PluginTest {
 protected:
  static constexpr int ITEMS = 100;

  PluginFlood()
      : flooding_({VORNET_FLOODING_EXTENSION, bus.address(), url("")}, {}, environment.folder() / "flood.output") {
    makePlugin({.firstRetry = milliseconds(50), .lastRetry = milliseconds(400)});
    manager.plugin->folderShown(root);
    for (int i = 0; i < ITEMS; ++i) manager.show(path(std::to_string(i)));
    EXPECT_TRUE(runUntil([&] { return manager.withEmblem(SYNCED) == ITEMS; }));
  }

  /// Has the extension send what `order` says; all of it has arrived when this returns.
  void flood(const std::string& order) {
    const int before = logLines;
    manager.plugin->perform(order, {path("0")});
    ASSERT_TRUE(runUntil([&] { return logLines > before; }));
  }

  /// Peak and present size of this process, in kibibytes.
  static long memory(const std::string& field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
      if (line.starts_with(field + ":")) return std::stol(line.substr(field.size() + 1));
    return -1;
  }

  static void forgetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

  static double cpuMilliseconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
  }

  /// The longest iteration of the main loop until `condition` holds, in milliseconds of this thread's CPU time: other
  /// programs do not count.
  double longestTurn(const std::function<bool()>& condition) {
    double longest = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition() && std::chrono::steady_clock::now() < end) {
      const double begun = cpuMilliseconds();
      g_main_context_iteration(nullptr, TRUE);
      longest = std::max(longest, cpuMilliseconds() - begun);
    }
    EXPECT_TRUE(condition());
    return longest;
  }

 private:
  StartedProgram flooding_;
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool COST_IS_MEASURED = false;  // the sanitizers keep what is freed, and free it on whatever thread
#else
constexpr bool COST_IS_MEASURED = true;
#endif

TEST_F(PluginFlood, OfChangesCostsNoMoreMemoryThanAFewMessagesAndEndsWithTheRightBadges) {
  const auto peak = [&](int messages) {
    forgetPeak();
    // A window that paints without a pause delays everything that the library leaves for later.
    const auto paint = +[](gpointer) -> gboolean { return G_SOURCE_CONTINUE; };
    const guint painting = g_idle_add_full(G_PRIORITY_HIGH_IDLE + 20, paint, nullptr, nullptr);
    flood("changes " + std::to_string(messages) + " 10000");
    g_source_remove(painting);
    settle();  // the changes that were kept are read
    EXPECT_TRUE(runUntil([&] { return manager.withEmblem(PENDING) == ITEMS; })) << "the others are asked for";
    return memory("VmHWM");
  };
  const long before = memory("VmRSS");
  // Ten thousand changes are thirty thousand values of 80 bytes and more; some of that may have been free before.
  const long one = std::max(peak(1) - before, 2500L);
  const long many = peak(60) - before;
  std::printf("one message: %ld KiB, sixty: %ld KiB\n", one, many);
  if (!COST_IS_MEASURED) GTEST_SKIP() << "the sanitizer keeps what is freed";
  EXPECT_LT(many, 30 * one);
}

TEST_F(PluginFlood, OfChangesRedrawsAnItemNoMoreOftenThanItIsRead) {
  const auto before = manager.redraws(path("0"));
  flood("changes 100 2000");
  ASSERT_TRUE(runUntil([&] { return manager.withEmblem(PENDING) == ITEMS; }));
  // It has changed a thousand times.
  EXPECT_LE(manager.redraws(path("0")) - before, 101u);
}

TEST_F(PluginFlood, OfAnyKindNeverHoldsUpTheFileManagerForLong) {
  constexpr int MANY = 100'000;
  // The control: one such message as the bus library delivers it, and the cost of reading and freeing it.
  GVariantBuilder list;
  g_variant_builder_init(&list, G_VARIANT_TYPE("a(ssbs)"));
  for (int i = 0; i < MANY; ++i) g_variant_builder_add(&list, "(ssbs)", "title", "share:", TRUE, "QMT");
  GVariant* values = g_variant_ref_sink(g_variant_builder_end(&list));
  const double begun = cpuMilliseconds();
  std::vector<std::string> titles;
  for (int i = 0; i < MANY; ++i) {
    const gchar* title = nullptr;
    g_variant_get_child(values, static_cast<gsize>(i), "(&s&sb&s)", &title, nullptr, nullptr, nullptr);
    titles.emplace_back(title);
  }
  g_variant_unref(values);
  const double control = cpuMilliseconds() - begun;

  // The longest turn until what `order` makes the extension send has arrived, and `condition` holds.
  const auto expectBounded = [&](const std::string& order, double bound, const std::function<bool()>& condition) {
    const int before = logLines;
    manager.plugin->perform(order, {path("0")});
    const double longest = longestTurn([&] { return logLines > before && condition(); });
    std::printf("%s: longest turn %.1f ms, control %.1f ms\n", order.c_str(), longest, control);
    EXPECT_TRUE(!COST_IS_MEASURED || longest < bound) << order;
  };
  // Changes are read in slices of some milliseconds, of the others only the beginning.
  const auto always = [] { return true; };
  for (const auto& kind : {"changes", "strangers"}) expectBounded(kind + " 2 100000"s, control / 8, always);
  for (const auto& kind : {"folders", "wrong"}) expectBounded(kind + " 2 100000"s, control / 16, always);
  flood("menu 100000");
  manager.plugin->menu({path("0")});
  const auto changes = manager.menuChanges;
  // Its answer comes after the menu's has been freed.
  expectBounded("nothing", control / 8, [&] { return manager.menuChanges > changes; });
  EXPECT_EQ(manager.plugin->menu({path("0")}).size(), 100u);
}

}  // namespace
}  // namespace vornet::test
