// The client retries what the extension refuses, fails at, or has no room for.
#include "PluginTest.hpp"
#include "support/BusClient.hpp"

namespace vornet::test {
namespace {

using std::chrono::milliseconds;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Matcher;
using testing::Not;
using testing::SizeIs;
using Batches = std::vector<std::vector<std::string>>;

class PluginRefusals : public PluginTest {
 protected:
  PluginRefusals() {
    makePlugin({.firstRetry = milliseconds(20), .lastRetry = milliseconds(160)});
    startExtension();
  }

  /// Shows the folder `root` with so many items, whose badges are all known to the extension.
  void show(int count) {
    Items items;
    for (int i = 0; i < count; ++i) items[std::to_string(i)] = "SYNCED";
    openWindow("", items);
  }

  bool waitForAll(std::size_t count) {
    return runUntil([&] { return manager.withEmblem(SYNCED) == count; });
  }
};

using Error = std::pair<std::string, bool>;  ///< the name, and whether the extension is too busy

class PluginRefusedBatches : public PluginRefusals, public testing::WithParamInterface<Error> {};

TEST_P(PluginRefusedBatches, AreAskedForAgainUntilTheyAreAnsweredAndUndividedIfTheExtensionIsBusy) {
  const auto& [error, isBusy] = GetParam();
  extension->refusals["RequestBadges"] = error;
  show(1200);
  ASSERT_TRUE(waitForRequests(5)) << "more than were in flight";
  EXPECT_EQ(manager.withEmblem(SYNCED), 0u);
  extension->refusals.clear();
  EXPECT_TRUE(waitForAll(1200));
  const auto isUndivided = AnyOf(SizeIs(500), SizeIs(200));
  EXPECT_THAT(extension->badgeRequests, isBusy ? Matcher<Batches>(Each(isUndivided)) : Contains(Not(isUndivided)));
  EXPECT_EQ(logLines, 0);
}

INSTANTIATE_TEST_SUITE_P(Errors, PluginRefusedBatches,
                         testing::Values(Error("Busy", true), Error("org.freedesktop.DBus.Error.LimitsExceeded", true),
                                         Error("Failed", false), Error("org.freedesktop.DBus.Error.NoMemory", false),
                                         Error("org.example.Unheard", false)));

TEST_F(PluginRefusals, AnswersOfAnotherTypeOrLengthAreAskedForAgain) {
  for (const char* nonsense : {"('text',)", "([1, 2],)", "(@as [],)", "(['SYNCED'],)", "@(as) (['', '', ''],)", "()",
                               "(['SYNCED', 'SYNCED'], 7)"}) {
    const auto before = extension->badgeRequests.size();
    extension->nonsense["RequestBadges"] = [nonsense] { return g_variant_new_parsed(nonsense); };
    const std::string first = std::string("first of ") + nonsense[1] + std::to_string(before);
    const std::string second = std::string("second of ") + nonsense[1] + std::to_string(before);
    openWindow("", {{first, "SYNCED"}, {second, "SYNCED"}});
    ASSERT_TRUE(waitForRequests(before + 2)) << nonsense;
    EXPECT_EQ(manager.emblem(path(first)), "") << nonsense;
    extension->nonsense.clear();
    EXPECT_TRUE(waitForEmblem(first, SYNCED) && waitForEmblem(second, SYNCED)) << nonsense;
  }
  EXPECT_EQ(logLines, 0);
}

TEST_F(PluginRefusals, AnExtensionThatKeepsFailingIsRetriedWithBackoff) {
  // The waits: 20, 40, 80, 160, 160, … ms; after each, at most one batch for each of the four that may be in flight.
  extension->refusals["RequestBadges"] = "Failed";
  show(1);
  std::vector<std::chrono::steady_clock::time_point> moments;
  ASSERT_TRUE(runUntil([&] {
    if (extension->badgeRequests.size() > moments.size()) moments.push_back(std::chrono::steady_clock::now());
    return moments.size() == 5;
  }));
  // From the first to the fifth 20 + 40 + 80 + 160 ms; without doubling it were 80 ms.
  EXPECT_GE(moments[4] - moments[0], milliseconds(250));
  EXPECT_EQ(extension->badgeRequests.size(), 5u);
}

TEST_F(PluginRefusals, AnExtensionThatFailsWithManyItemsGetsFewRequests) {
  makePlugin({.firstRetry = std::chrono::seconds(60), .lastRetry = std::chrono::seconds(60)});
  extension->refusals["RequestBadges"] = "Failed";
  show(5000);
  ASSERT_TRUE(runUntil([&] { return extension->badgeRequests.size() == 10; })) << "each batch once";
  roundTrip();  // comes after any other request that is due
  EXPECT_EQ(extension->badgeRequests.size(), 10u);
}

TEST_F(PluginRefusals, ASuccessResetsTheBackoff) {
  makePlugin({.firstRetry = milliseconds(20), .lastRetry = std::chrono::seconds(60)});
  manager.plugin->folderShown(root);
  // Eight failures without a reset in between would already wait for five seconds; sixteen for twenty minutes.
  for (const std::string error : {"Failed", "Busy"}) {
    for (int i = 0; i < 8; ++i) {
      const auto name = error + std::to_string(i);
      const auto before = extension->badgeRequests.size();
      extension->refusals["RequestBadges"] = error;
      extension->badges[url(name)] = "SYNCED";
      manager.show(path(name));
      ASSERT_TRUE(waitForRequests(before + 2)) << name;
      extension->refusals.clear();
      ASSERT_TRUE(waitForEmblem(name, SYNCED)) << name;
    }
  }
}

TEST_F(PluginRefusals, AFolderThatIsObservedResetsTheBackoff) {
  makePlugin({.firstRetry = milliseconds(20), .lastRetry = std::chrono::seconds(60)});
  for (std::size_t i = 1; i <= 8; ++i) {  // as above
    const auto before = extension->count("BeginObserving");
    extension->refusals["BeginObserving"] = "Busy";
    manager.plugin->folderShown(path(std::to_string(i)));
    ASSERT_TRUE(runUntil([&] { return extension->count("BeginObserving") >= before + 2; }));
    extension->refusals.clear();
    ASSERT_TRUE(waitForObserved(i));
  }
}

TEST_F(PluginRefusals, AnItemThatMakesTheExtensionRefuseItsBatchCostsNoOtherItsBadge) {
  extension->invalidItems = {url("17"), url("701")};
  show(1200);
  EXPECT_TRUE(waitForAll(1198));
  EXPECT_EQ(manager.emblem(path("17")), "");
  EXPECT_LE(extension->badgeRequests.size(), 60u) << "by halves";
  // Alone, they are not requested again.
  for (int i = 0; i < 30; ++i) roundTrip();
  EXPECT_LE(extension->badgeRequests.size(), 60u);
}

TEST_F(PluginRefusals, AnItemThatTheExtensionFailsAtCostsNoOtherItsBadge) {
  makePlugin({.firstRetry = milliseconds(5), .lastRetry = milliseconds(40)});
  show(600);
  extension->hold("RequestBadges");
  ASSERT_TRUE(waitForHeld("RequestBadges", 2));
  // Batches with item 17 fail with another error than the one for an invalid item.
  extension->nonsense["RequestBadges"] = [this]() -> GVariant* {
    const auto& items = extension->answering;
    if (std::find(items.begin(), items.end(), url("17")) != items.end()) return g_variant_new("(s)", "nonsense");
    return g_variant_new("(@as)", textList(std::vector<std::string>(items.size(), "SYNCED")));
  };
  extension->release("RequestBadges");
  EXPECT_TRUE(waitForAll(599));
  EXPECT_EQ(manager.emblem(path("17")), "");
}

TEST_F(PluginRefusals, FailedBatchesAreForgottenWithTheirFolder) {
  extension->refusals["RequestBadges"] = "Failed";
  show(10);
  ASSERT_TRUE(waitForRequests(2));
  closeWindow();  // whatever was asked before has come
  extension->refusals.clear();
  extension->badgeRequests.clear();
  openWindow("other", {{"other/a", "SYNCED"}});
  ASSERT_TRUE(waitForEmblem("other/a", SYNCED));
  EXPECT_THAT(extension->badgeRequests, ElementsAre(ElementsAre(url("other/a"))));
}

TEST_F(PluginRefusals, AFolderThatTheExtensionIsTooBusyToObserveIsObservedLater) {
  for (const char* error : {"Busy", "org.freedesktop.DBus.Error.LimitsExceeded", "Failed"}) {
    extension->calls.clear();
    extension->refusals["BeginObserving"] = error;
    const std::string folder = std::string("folder ") + error;
    openWindow(folder, {{folder + "/a", "SYNCED"}});
    ASSERT_TRUE(runUntil([&] { return extension->count("BeginObserving") >= 2; })) << error;
    extension->refusals.clear();
    EXPECT_TRUE(waitForEmblem(folder + "/a", SYNCED)) << error;
    closeWindow(folder);
  }
}

TEST_F(PluginRefusals, ALateRefusalOfAFolderThatHasLeftTheScreenDoesNotCountWhenItComesBack) {
  extension->badges[url("a")] = "SYNCED";
  extension->refusals["BeginObserving"] = "NotAFolder";
  extension->hold("BeginObserving");
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForHeld("BeginObserving"));
  manager.plugin->folderHidden(root);
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  extension->release("BeginObserving");  // the first; the second has not come yet
  extension->refusals.clear();
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

// --- Folders that the extension has no room for ---------------------------------------------------------------------

class PluginUnobserved : public PluginTest {
 protected:
  PluginUnobserved() {
    EXPECT_EQ(client::Plugin::Options().unobservedRefresh, std::chrono::seconds(5));  // in the file managers
    makePlugin({.unobservedRefresh = milliseconds(50)});
    startExtension();
    extension->places = 1;
    openObserved("first");
    openWindow("second", {{"second/a", "SYNCED"}});
    EXPECT_TRUE(waitForEmblem("second/a", SYNCED));
  }
};

TEST_F(PluginUnobserved, TheirBadgesAppearAndAreUpdatedByRequests) {
  extension->badges[url("second/a")] = "PENDING";  // no signal
  EXPECT_TRUE(waitForEmblem("second/a", PENDING));
  EXPECT_TRUE(appears("second/new", "SKIPPED"));
  EXPECT_THAT(extension->observed, ElementsAre(url("first")));
  EXPECT_EQ(manager.redraws(path("second/a")), 2u);
}

TEST_F(PluginUnobserved, TheyAreObservedWhenAPlaceBecomesFreeAndNoLongerRequested) {
  manager.plugin->folderShown(path("second"));  // two windows
  extension->places = 3;
  ASSERT_TRUE(runUntil([&] { return extension->observed.count(url("second")) == 2; }));
  extension->badges[url("second/a")] = "PENDING";
  ASSERT_TRUE(changes("second/a", "PENDING"));
  extension->calls.clear();
  pass(milliseconds(200));  // four times the pace
  EXPECT_LE(extension->calls.size(), 2u) << "those in flight";
  manager.plugin->folderHidden(path("second"));
  manager.plugin->folderHidden(path("second"));
  EXPECT_TRUE(waitForObserved(1)) << "an observation did not end";
}

TEST_F(PluginUnobserved, TheyAreAskedForWhileObservingIsNotAnswered) {
  extension->hold("BeginObserving");
  ASSERT_TRUE(waitForHeld("BeginObserving"));
  const auto asked = extension->badgeRequests.size();
  ASSERT_TRUE(waitForRequests(asked + 2));
  EXPECT_EQ(extension->heldCalls("BeginObserving"), 1u) << "not repeated";
}

TEST_F(PluginUnobserved, ChangesFromBeforeTheyWereObservedAreRequestedThen) {
  manager.plugin->folderHidden(path("second"));
  closeWindow("first");
  makePlugin({.unobservedRefresh = std::chrono::seconds(1)});
  openObserved("first");
  openWindow("second", {{"second/a", "SYNCED"}});
  ASSERT_TRUE(waitForEmblem("second/a", SYNCED));
  extension->hold("BeginObserving");
  const auto asked = extension->badgeRequests.size();
  ASSERT_TRUE(waitForHeld("BeginObserving"));
  ASSERT_TRUE(waitForRequests(asked + 1));
  settle();
  extension->badges[url("second/a")] = "PENDING";  // without a signal, and it was requested just now
  extension->places = 2;
  extension->release("BeginObserving");
  EXPECT_TRUE(waitForEmblem("second/a", PENDING));
}

TEST_F(PluginUnobserved, TheyAreLeftAloneWhenTheyLeaveTheScreen) {
  manager.plugin->folderHidden(path("second"));
  EXPECT_EQ(FakeFileManager::keptItems(), 0u);
  settle();
  extension->calls.clear();
  pass(milliseconds(200));  // four times the pace
  EXPECT_LE(extension->calls.size(), 2u) << "those in flight";
}

TEST_F(PluginUnobserved, ANewExtensionObservesThemAtOnce) {
  extension.reset();
  startExtension();
  ASSERT_TRUE(waitForObserved(2));
}

// Another process may have the name already when a folder is tried again. It would observe the folder twice.
TEST_F(PluginUnobserved, TheyAreTriedAgainOnlyWithTheProcessThatRefused) {
  const auto tried = extension->count("BeginObserving");
  ASSERT_TRUE(runUntil([&] { return extension->count("BeginObserving") > tried; }));
  manager.plugin->folderHidden(path("first"));
  ASSERT_TRUE(waitForCalls("EndObserving", 1));
  for (const auto* method : {"BeginObserving", "RequestBadges", "EndObserving"})
    EXPECT_FALSE(extension->methodsByBusName.contains(method)) << method;
}

}  // namespace
}  // namespace vornet::test
