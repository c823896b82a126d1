// The client retries what the extension refuses, fails at, or has no room for.
#include "PluginTest.hpp"

namespace vornet::test {
namespace {

using std::chrono::milliseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using testing::SizeIs;

class PluginRefusals : public PluginTest {
 protected:
  PluginRefusals() {
    makePlugin({.firstRetry = milliseconds(20), .lastRetry = milliseconds(160)});
    startExtension();
  }

  /// Shows the folder `root` with so many items, whose badges are all known to the extension.
  void show(int count) {
    for (int i = 0; i < count; ++i) extension->badges[url(std::to_string(i))] = "SYNCED";
    manager.plugin->folderShown(root);
    for (int i = 0; i < count; ++i) manager.show(path(std::to_string(i)));
  }

  bool waitForAll(std::size_t count) {
    return runUntil([&] { return manager.withEmblem(SYNCED) == count; });
  }
};

class PluginRefusedBatches : public PluginRefusals, public testing::WithParamInterface<const char*> {};

TEST_P(PluginRefusedBatches, AreAskedForAgainUntilTheyAreAnswered) {
  extension->refusals["RequestBadges"] = GetParam();
  show(1200);
  ASSERT_TRUE(runUntil([&] { return extension->badgeRequests.size() >= 5; })) << "more than were in flight";
  EXPECT_EQ(manager.withEmblem(SYNCED), 0u);
  extension->refusals.clear();
  EXPECT_TRUE(waitForAll(1200));
  EXPECT_EQ(logLines, 0);
}

INSTANTIATE_TEST_SUITE_P(Errors, PluginRefusedBatches,
                         testing::Values("Busy", "Failed", "org.freedesktop.DBus.Error.LimitsExceeded",
                                         "org.freedesktop.DBus.Error.NoMemory", "org.example.Unheard"));

class PluginOverload : public PluginRefusals, public testing::WithParamInterface<const char*> {};

TEST_P(PluginOverload, PausesRequestsAndRepeatsTheSameBatches) {
  extension->refusals["RequestBadges"] = GetParam();
  show(1000);
  ASSERT_TRUE(runUntil([&] { return extension->badgeRequests.size() >= 4; }));
  extension->refusals.clear();
  EXPECT_TRUE(waitForAll(1000));
  for (const auto& request : extension->badgeRequests) EXPECT_EQ(request.size(), 500u);
}

INSTANTIATE_TEST_SUITE_P(Errors, PluginOverload, testing::Values("Busy", "org.freedesktop.DBus.Error.LimitsExceeded"));

TEST_F(PluginRefusals, AnswersOfAnotherTypeOrLengthAreAskedForAgain) {
  for (const char* nonsense : {"('text',)", "([1, 2],)", "(@as [],)", "(['SYNCED'],)", "@(as) (['', '', ''],)", "()",
                               "(['SYNCED', 'SYNCED'], 7)"}) {
    const auto before = extension->badgeRequests.size();
    extension->nonsense["RequestBadges"] = [nonsense] { return g_variant_new_parsed(nonsense); };
    const std::string first = std::string("first of ") + nonsense[1] + std::to_string(before);
    const std::string second = std::string("second of ") + nonsense[1] + std::to_string(before);
    extension->badges[url(first)] = extension->badges[url(second)] = "SYNCED";
    manager.plugin->folderShown(root);
    manager.show(path(first));
    manager.show(path(second));
    ASSERT_TRUE(runUntil([&] { return extension->badgeRequests.size() >= before + 2; })) << nonsense;
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
  const auto moment = [] { return std::chrono::steady_clock::now(); };
  std::vector<std::chrono::steady_clock::time_point> moments;
  ASSERT_TRUE(runUntil([&] {
    if (extension->badgeRequests.size() > moments.size()) moments.push_back(moment());
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
  manager.plugin->menu({path("0")});  // its answer comes after any other that is due
  ASSERT_TRUE(runUntil([&] { return manager.menuChanges > 0; }));
  settle();
  EXPECT_EQ(extension->badgeRequests.size(), 10u);
}

TEST_F(PluginRefusals, ASuccessResetsTheBackoff) {
  makePlugin({.firstRetry = milliseconds(20), .lastRetry = std::chrono::seconds(60)});
  const auto failTimes = [&](const char* error, const std::string& name, std::size_t times) {
    const auto before = extension->badgeRequests.size();
    extension->refusals["RequestBadges"] = error;
    extension->badges[url(name)] = "SYNCED";
    manager.show(path(name));
    ASSERT_TRUE(runUntil([&] { return extension->badgeRequests.size() >= before + times; }));
    extension->refusals.clear();
    ASSERT_TRUE(waitForEmblem(name, SYNCED));
  };
  manager.plugin->folderShown(root);
  // Eight failures without a reset in between would already wait for five seconds; sixteen for twenty minutes.
  for (const char* error : {"Failed", "Busy"})
    for (int i = 0; i < 8; ++i) failTimes(error, error + std::to_string(i), 2);
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
  const auto requests = extension->badgeRequests.size();
  EXPECT_LE(requests, 60u) << "by halves";
  // Alone, they are not requested again.
  for (int i = 0; i < 30; ++i) {
    const auto before = manager.menuChanges;
    extension->menus[url(std::to_string(i))] = {true, true};
    manager.plugin->menu({path(std::to_string(i))});
    ASSERT_TRUE(runUntil([&] { return manager.menuChanges > before; }));
  }
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
    GVariantBuilder identifiers;
    g_variant_builder_init(&identifiers, G_VARIANT_TYPE_STRING_ARRAY);
    for (std::size_t i = 0; i < items.size(); ++i) g_variant_builder_add(&identifiers, "s", "SYNCED");
    return g_variant_new("(as)", &identifiers);
  };
  extension->release("RequestBadges");
  EXPECT_TRUE(waitForAll(599));
  EXPECT_EQ(manager.emblem(path("17")), "");
}

TEST_F(PluginRefusals, FailedBatchesAreForgottenWithTheirFolder) {
  extension->refusals["RequestBadges"] = "Failed";
  show(10);
  ASSERT_TRUE(runUntil([&] { return extension->badgeRequests.size() >= 2; }));
  manager.plugin->folderHidden(root);
  ASSERT_TRUE(waitForObserved(0)) << "whatever was asked before has come";
  extension->refusals.clear();
  extension->badgeRequests.clear();
  extension->badges[url("other/a")] = "SYNCED";
  manager.plugin->folderShown(path("other"));
  manager.show(path("other/a"));
  ASSERT_TRUE(waitForEmblem("other/a", SYNCED));
  EXPECT_THAT(extension->badgeRequests, ElementsAre(ElementsAre(url("other/a"))));
}

TEST_F(PluginRefusals, AFolderThatTheExtensionIsTooBusyToObserveIsObservedLater) {
  for (const char* error : {"Busy", "org.freedesktop.DBus.Error.LimitsExceeded", "Failed"}) {
    const auto begun = [&] { return extension->count("BeginObserving"); };
    extension->calls.clear();
    extension->refusals["BeginObserving"] = error;
    const std::string folder = std::string("folder ") + error;
    extension->badges[url(folder + "/a")] = "SYNCED";
    manager.plugin->folderShown(path(folder));
    manager.show(path(folder + "/a"));
    ASSERT_TRUE(runUntil([&] { return begun() >= 2; })) << error;
    extension->refusals.clear();
    EXPECT_TRUE(waitForEmblem(folder + "/a", SYNCED)) << error;
    manager.plugin->folderHidden(path(folder));
    EXPECT_TRUE(waitForObserved(0)) << error;
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
    manager.plugin->folderShown(path("first"));
    EXPECT_TRUE(waitForObserved(1));
    extension->badges[url("second/a")] = "SYNCED";
    manager.plugin->folderShown(path("second"));
    manager.show(path("second/a"));
  }

  std::size_t begun() const { return extension->count("BeginObserving"); }
};

TEST_F(PluginUnobserved, TheirBadgesAppearAndAreUpdatedByRequests) {
  EXPECT_TRUE(waitForEmblem("second/a", SYNCED));
  extension->badges[url("second/a")] = "PENDING";  // no signal
  EXPECT_TRUE(waitForEmblem("second/a", PENDING));
  extension->badges[url("second/new")] = "SKIPPED";
  manager.show(path("second/new"));
  EXPECT_TRUE(waitForEmblem("second/new", SKIPPED));
  EXPECT_THAT(extension->observed, ElementsAre(url("first")));
  EXPECT_EQ(manager.redraws(path("second/a")), 2u);
}

TEST_F(PluginUnobserved, TheyAreObservedWhenAPlaceBecomesFreeAndNoLongerRequested) {
  manager.plugin->folderShown(path("second"));  // two windows
  ASSERT_TRUE(waitForEmblem("second/a", SYNCED));
  extension->places = 3;
  ASSERT_TRUE(runUntil([&] { return extension->observed.count(url("second")) == 2; }));
  extension->badges[url("second/a")] = "PENDING";
  extension->sendChanges({{url("second/a"), "PENDING"}});
  ASSERT_TRUE(waitForEmblem("second/a", PENDING));
  extension->calls.clear();
  pass(milliseconds(200));  // four times the pace
  EXPECT_LE(extension->calls.size(), 2u) << "those in flight";
  manager.plugin->folderHidden(path("second"));
  manager.plugin->folderHidden(path("second"));
  EXPECT_TRUE(waitForObserved(1)) << "an observation did not end";
}

TEST_F(PluginUnobserved, TheyAreAskedForWhileObservingIsNotAnswered) {
  ASSERT_TRUE(waitForEmblem("second/a", SYNCED));
  extension->hold("BeginObserving");
  ASSERT_TRUE(waitForHeld("BeginObserving"));
  const auto asked = extension->badgeRequests.size();
  ASSERT_TRUE(runUntil([&] { return extension->badgeRequests.size() >= asked + 2; }));
  EXPECT_EQ(extension->heldCalls("BeginObserving"), 1u) << "not repeated";
}

TEST_F(PluginUnobserved, ChangesFromBeforeTheyWereObservedAreRequestedThen) {
  manager.plugin->folderHidden(path("first"));
  manager.plugin->folderHidden(path("second"));
  ASSERT_TRUE(waitForObserved(0));
  makePlugin({.unobservedRefresh = std::chrono::seconds(1)});
  manager.plugin->folderShown(path("first"));
  ASSERT_TRUE(waitForObserved(1));
  manager.plugin->folderShown(path("second"));
  manager.show(path("second/a"));
  ASSERT_TRUE(waitForEmblem("second/a", SYNCED));
  extension->hold("BeginObserving");
  const auto asked = extension->badgeRequests.size();
  ASSERT_TRUE(waitForHeld("BeginObserving"));
  ASSERT_TRUE(runUntil([&] { return extension->badgeRequests.size() > asked; }));
  settle();
  extension->badges[url("second/a")] = "PENDING";  // without a signal, and it was requested just now
  extension->places = 2;
  extension->release("BeginObserving");
  EXPECT_TRUE(waitForEmblem("second/a", PENDING));
}

TEST_F(PluginUnobserved, TheyAreLeftAloneWhenTheyLeaveTheScreen) {
  ASSERT_TRUE(waitForEmblem("second/a", SYNCED));
  manager.plugin->folderHidden(path("second"));
  EXPECT_EQ(FakeFileManager::keptItems(), 0u);
  settle();
  extension->calls.clear();
  pass(milliseconds(200));  // four times the pace
  EXPECT_LE(extension->calls.size(), 2u) << "those in flight";
}

TEST_F(PluginUnobserved, ANewExtensionObservesThemAtOnce) {
  ASSERT_TRUE(waitForEmblem("second/a", SYNCED));
  extension.reset();
  startExtension();
  ASSERT_TRUE(waitForObserved(2));
}

// Another process may have the name already when a folder is tried again. It would observe the folder twice.
TEST_F(PluginUnobserved, TheyAreTriedAgainOnlyWithTheProcessThatRefused) {
  ASSERT_TRUE(waitForEmblem("second/a", SYNCED));
  const auto tried = extension->count("BeginObserving");
  ASSERT_TRUE(runUntil([&] { return extension->count("BeginObserving") > tried; }));
  manager.plugin->folderHidden(path("first"));
  ASSERT_TRUE(runUntil([&] { return extension->count("EndObserving") == 1; }));
  for (const auto* method : {"BeginObserving", "RequestBadges", "EndObserving"})
    EXPECT_FALSE(extension->methodsByBusName.contains(method)) << method;
}

}  // namespace
}  // namespace vornet::test
