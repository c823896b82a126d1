#include "platform/FinderSync.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/linux/FinderSyncHost.hpp"
#include "platform/linux/Host.hpp"
#include "support/TemporaryFolder.hpp"
#include "support/Threads.hpp"

namespace vornet::platform {
namespace {

using testing::ElementsAre;
using testing::FieldsAre;
using testing::IsEmpty;
using testing::Pair;

FileURL at(std::string_view path) {
  return FileURL::fileURLWithPath(path);
}

// --- The base class of extensions

class Plain : public FIFinderSync {
 public:
  using FIFinderSync::initBase;
};

TEST(FIFinderSync, AnswersNothingWhereNothingIsOverridden) {
  Plain plain;
  const auto url = at("/a");
  plain.beginObservingDirectoryAtURL(url);
  plain.endObservingDirectoryAtURL(url);
  plain.requestBadgeIdentifierForURL(url);
  EXPECT_FALSE(plain.menuForMenuKind(FIMenuKind::contextualMenuForItems));
  EXPECT_EQ(plain.toolbarItemName(), "");
  EXPECT_EQ(plain.toolbarItemToolTip(), "");
  EXPECT_TRUE(plain.toolbarItemImage().isEmpty());
  EXPECT_TRUE(plain.initBase());
}

TEST(FIMenuKind, HasTheFrameworksValues) {
  EXPECT_EQ(static_cast<std::uint64_t>(FIMenuKind::contextualMenuForItems), 0u);
  EXPECT_EQ(static_cast<std::uint64_t>(FIMenuKind::contextualMenuForContainer), 1u);
  EXPECT_EQ(static_cast<std::uint64_t>(FIMenuKind::contextualMenuForSidebar), 2u);
  EXPECT_EQ(static_cast<std::uint64_t>(FIMenuKind::toolbarItemMenu), 3u);
}

// --- The controller

/// Records its calls.
class NotingListener : public host::Listener {
 public:
  bool badgeChanged(const FileURL& url, const std::string& identifier) override {
    badges.emplace_back(url.path().value_or("none"), identifier);
    return hasRoom;
  }
  void badgeAnswered(const FileURL& url, const std::string& identifier) override {
    answers.emplace_back(*url.path(), identifier);
  }
  void badgesInvalidated(const FileURL& folder) override { invalidated.push_back(*folder.path()); }
  void directoriesChanged() override { ++directories; }

  std::vector<std::pair<std::string, std::string>> badges;
  std::vector<std::pair<std::string, std::string>> answers;
  bool hasRoom = true;
  std::vector<std::string> invalidated;
  int directories = 0;
};

/// The folder "/a" is on screen.
class FinderSyncController : public testing::Test {
 protected:
  FinderSyncController() {
    host::setListener(&listener);
    host::folderShown("/a");
  }
  ~FinderSyncController() override {
    host::folderHidden("/a");
    host::setListener(nullptr);
  }

  /// Requests the badge of `item`, which gets no answer; false when that may be outdated.
  static bool ask(const FileURL& item) { return host::BadgeRequest(item).apply(); }

  /// Requests the badge of `item` and answers with `badge`; false when the answer may be outdated.
  bool answer(const FileURL& item, std::string_view badge) {
    host::BadgeRequest request(item);
    controller.setBadgeIdentifier(badge, item);
    return request.apply();
  }

  FIFinderSyncController& controller = FIFinderSyncController::defaultController();
  NotingListener listener;
  const FileURL url = at("/a/file");
};

TEST_F(FinderSyncController, IsOne) {
  EXPECT_EQ(&FIFinderSyncController::defaultController(), &controller);
}

// --- Registered badges

TEST_F(FinderSyncController, RegistersBadgesInTheOrderOfTheirFirstRegistration) {
  const test::TemporaryFolder folder;
  test::writeFile(folder / "16/sync.png", "");
  host::setMainBundle({.identifier = "", .version = "", .build = "", .imageFolders = {folder.path().string()}});
  const auto image = Image::named("sync");
  ASSERT_TRUE(image);
  EXPECT_THAT(host::registeredBadges(), IsEmpty());
  controller.setBadgeImage(Image(), "Synced", "SYNCED");
  controller.setBadgeImage(Image(), "Not synced", "SKIPPED");
  controller.setBadgeImage(*image, "Synced again", "SYNCED");
  EXPECT_THAT(host::registeredBadges(),
              ElementsAre(FieldsAre("SYNCED", "Synced again", *image), FieldsAre("SKIPPED", "Not synced", Image())));
}

// --- Badges of items

TEST_F(FinderSyncController, KeepsABadgeWhileItsFolderIsOnScreen) {
  controller.setBadgeIdentifier("SYNCED", url);
  EXPECT_EQ(host::badgeIdentifier(url), "SYNCED");
  host::folderShown("/a");
  EXPECT_EQ(host::badgeIdentifier(url), "SYNCED") << "shown in a second window";
  host::folderHidden("/a");
  EXPECT_EQ(host::badgeIdentifier(url), std::nullopt);
  host::folderShown("/a");
  EXPECT_EQ(host::badgeIdentifier(url), std::nullopt) << "forgotten";
}

TEST_F(FinderSyncController, KeepsAndReportsNoBadgeOfAFolderThatIsNotOnScreen) {
  for (const char* path : {"/b/file", "/a/folder/file", "/a", "/ab/file"}) {
    controller.setBadgeIdentifier("SYNCED", at(path));
    EXPECT_EQ(host::badgeIdentifier(at(path)), std::nullopt) << path;
  }
  EXPECT_THAT(listener.badges, IsEmpty());
}

TEST_F(FinderSyncController, KnowsNoBadgeThatWasNotSet) {
  EXPECT_EQ(host::badgeIdentifier(url), std::nullopt);
  EXPECT_EQ(host::badgeIdentifier(FileURL()), std::nullopt);
}

TEST_F(FinderSyncController, ShowsBadgesInTheRootFolder) {
  host::folderShown("/");
  controller.setBadgeIdentifier("SYNCED", at("/file"));
  EXPECT_EQ(host::badgeIdentifier(at("/file")), "SYNCED");
  EXPECT_THAT(host::itemsOnScreen("/"), ElementsAre(at("/file")));
}

TEST_F(FinderSyncController, ReportsEachChangeOnce) {
  for (const char* badge : {"PENDING", "PENDING", "SYNCED", "", ""}) controller.setBadgeIdentifier(badge, url);
  controller.setBadgeIdentifier("SYNCED", at("/a/other"));
  EXPECT_THAT(listener.badges, ElementsAre(Pair("/a/file", "PENDING"), Pair("/a/file", "SYNCED"), Pair("/a/file", ""),
                                           Pair("/a/other", "SYNCED")));
  EXPECT_EQ(host::badgeIdentifier(url), "");
}

TEST_F(FinderSyncController, ReportsABadgeAgainAfterItsFolderWasAway) {
  controller.setBadgeIdentifier("SYNCED", url);
  host::folderHidden("/a");
  controller.setBadgeIdentifier("SYNCED", url);
  host::folderShown("/a");
  controller.setBadgeIdentifier("SYNCED", url);
  EXPECT_EQ(listener.badges.size(), 2u);
}

TEST_F(FinderSyncController, HidesAFolderThatWasNotShown) {
  host::folderHidden("/never");
  EXPECT_THAT(listener.badges, IsEmpty());
}

TEST_F(FinderSyncController, IgnoresURLsWithoutPath) {
  host::folderShown("/");
  host::folderShown("");
  controller.setBadgeIdentifier("SYNCED", FileURL());
  EXPECT_THAT(listener.badges, IsEmpty());
}

// --- Answers to requests

TEST_F(FinderSyncController, TakesABadgeOfTheAskedItemAsTheAnswer) {
  host::BadgeRequest request(url);
  EXPECT_EQ(request.answer(), std::nullopt);
  controller.setBadgeIdentifier("SYNCED", at("/a/file"));
  EXPECT_EQ(request.answer(), "SYNCED");
  EXPECT_EQ(host::badgeIdentifier(url), std::nullopt) << "not yet";
  EXPECT_TRUE(request.apply());
  EXPECT_EQ(host::badgeIdentifier(url), "SYNCED");
  EXPECT_THAT(listener.badges, IsEmpty()) << "the asker knows it";
}

TEST_F(FinderSyncController, TakesNoAnswerThatMayBeOlderThanTheBadge) {
  host::BadgeRequest overtaken(url);
  std::thread([&] { controller.setBadgeIdentifier("SYNCED", url); }).join();
  controller.setBadgeIdentifier("PENDING", url);
  EXPECT_FALSE(overtaken.apply());
  EXPECT_EQ(host::badgeIdentifier(url), "SYNCED");
  EXPECT_THAT(listener.badges, ElementsAre(Pair("/a/file", "SYNCED")));

  host::BadgeRequest again(url);
  EXPECT_TRUE(answer(url, "SYNCED"));
  controller.setBadgeIdentifier("PENDING", url);
  EXPECT_FALSE(again.apply()) << "the same badge was set meanwhile, but later";
}

TEST_F(FinderSyncController, TakesNoAnswerFromBeforeTheFolderWasShownAgain) {
  host::folderHidden("/a");
  host::BadgeRequest before(url);
  controller.setBadgeIdentifier("PENDING", url);
  host::folderShown("/a");
  EXPECT_TRUE(before.apply()) << "nothing is known of the item";
  EXPECT_EQ(host::badgeIdentifier(url), std::nullopt);

  host::BadgeRequest meanwhile(url);
  controller.setBadgeIdentifier("PENDING", url);
  host::folderHidden("/a");
  host::folderShown("/a");
  std::thread([&] { controller.setBadgeIdentifier("SYNCED", url); }).join();
  EXPECT_FALSE(meanwhile.apply());
  EXPECT_EQ(host::badgeIdentifier(url), "SYNCED");
}

TEST_F(FinderSyncController, RemembersRequestedItemsWhateverTheAnswer) {
  const auto unknown = at("/a/unknown");
  const auto withdrawn = at("/a/withdrawn");
  const auto pending = at("/a/pending");
  const auto elsewhere = at("/b/file");
  const host::BadgeRequest running(pending);
  for (const auto* item : {&unknown, &withdrawn, &elsewhere}) {
    host::BadgeRequest request(*item);
    if (item == &withdrawn) controller.setBadgeIdentifier("", *item);
    request.withdraw();
    EXPECT_EQ(request.answer(), std::nullopt);
    EXPECT_TRUE(request.apply());
  }
  controller.setBadgeIdentifier("SYNCED", at("/a/pushed"));
  EXPECT_THAT(host::itemsOnScreen("/a"), testing::UnorderedElementsAre(unknown, withdrawn, pending, at("/a/pushed")));
  EXPECT_EQ(host::badgeIdentifier(withdrawn), std::nullopt);
  EXPECT_THAT(host::itemsOnScreen("/b"), IsEmpty());
  host::folderHidden("/a");
  EXPECT_THAT(host::itemsOnScreen("/a"), IsEmpty());
}

TEST_F(FinderSyncController, ReportsTheFirstBadgeOfAnItemThatWasAnsweredWithoutOne) {
  EXPECT_TRUE(ask(url));
  EXPECT_THAT(listener.badges, IsEmpty());
  EXPECT_TRUE(answer(url, "SYNCED"));
  EXPECT_THAT(listener.badges, ElementsAre(Pair("/a/file", "SYNCED")));
}

TEST_F(FinderSyncController, RemembersABoundedNumberOfItemsThatWereAskedFor) {
  host::folderShown("/b");
  for (std::size_t i = 0; i < host::MAX_ITEMS_ASKED_FOR; ++i) ask(at("/a/" + std::to_string(i)));
  ask(at("/b/file"));
  EXPECT_THAT(host::itemsOnScreen("/b"), IsEmpty());
  controller.setBadgeIdentifier("SYNCED", at("/b/file"));
  EXPECT_EQ(host::badgeIdentifier(at("/b/file")), "SYNCED") << "a pushed badge is no question";
  host::folderHidden("/a");
  ask(at("/b/other"));
  EXPECT_EQ(host::itemsOnScreen("/b").size(), 2u);
}

TEST_F(FinderSyncController, RemembersABoundedNumberOfItemsThatNobodyAskedFor) {
  host::folderShown("/b");
  constexpr std::size_t COUNT = 10 * host::MAX_ITEMS_ONLY_SET;
  for (std::size_t i = 0; i < COUNT; ++i) controller.setBadgeIdentifier("SYNCED", at("/a/" + std::to_string(i)));
  EXPECT_EQ(host::itemsOnScreen("/a").size(), host::MAX_ITEMS_ONLY_SET);
  EXPECT_EQ(listener.badges.size(), COUNT) << "each was reported";

  const auto item = at("/b/file");
  controller.setBadgeIdentifier("PENDING", item);
  EXPECT_EQ(host::badgeIdentifier(item), std::nullopt);
  EXPECT_TRUE(host::isOverlooked(item));
  ask(item);
  EXPECT_FALSE(host::isOverlooked(item)) << "somebody asked";
  controller.setBadgeIdentifier("SYNCED", item);
  EXPECT_EQ(host::badgeIdentifier(item), "SYNCED");

  ask(at("/a/0"));
  controller.setBadgeIdentifier("SYNCED", at("/b/other"));
  EXPECT_EQ(host::badgeIdentifier(at("/b/other")), "SYNCED") << "one of the others was asked for, which leaves room";
  host::folderHidden("/a");
  controller.setBadgeIdentifier("SYNCED", at("/b/third"));
  EXPECT_EQ(host::badgeIdentifier(at("/b/third")), "SYNCED");
  EXPECT_FALSE(host::isOverlooked(at("/a/1"))) << "not on screen";
}

TEST_F(FinderSyncController, ReportsAnAnswerThatAWaitingChangeMustNotFollow) {
  for (std::size_t i = 0; i < host::MAX_ITEMS_ONLY_SET; ++i)
    controller.setBadgeIdentifier("", at("/a/" + std::to_string(i)));
  const auto gone = at("/a/gone");
  const auto locked = at("/a/locked");
  for (const auto* item : {&url, &gone, &locked}) controller.setBadgeIdentifier("PENDING", *item);
  for (const char* badge : {"SYNCED", "SKIPPED"}) EXPECT_TRUE(answer(url, badge));
  EXPECT_TRUE(ask(gone));
  host::BadgeRequest inDoubt(locked);
  inDoubt.withdraw();
  EXPECT_TRUE(inDoubt.apply());
  EXPECT_THAT(listener.answers, ElementsAre(Pair("/a/file", "SYNCED"), Pair("/a/gone", "")));
  EXPECT_THAT(listener.badges.back(), Pair("/a/file", "SKIPPED")) << "a change";
}

TEST_F(FinderSyncController, ReportsNoAnswerThatMayBeOlderThanAWaitingChange) {
  for (std::size_t i = 0; i < host::MAX_ITEMS_ASKED_FOR; ++i) ask(at("/a/" + std::to_string(i)));
  for (std::size_t i = 0; i < host::MAX_ITEMS_ONLY_SET; ++i)
    controller.setBadgeIdentifier("", at("/a/set" + std::to_string(i)));
  listener.answers.clear();
  {
    host::BadgeRequest overtaken(url);
    controller.setBadgeIdentifier("PENDING", url);
    std::thread([&] { controller.setBadgeIdentifier("SYNCED", url); }).join();
    EXPECT_TRUE(overtaken.apply()) << "nothing is remembered of the item";
  }
  EXPECT_THAT(listener.answers, IsEmpty()) << "the waiting change would become what was before it";
  EXPECT_TRUE(answer(url, "SYNCED"));
  EXPECT_THAT(listener.answers, ElementsAre(Pair("/a/file", "SYNCED")));
}

TEST_F(FinderSyncController, MakesTheSettingOfBadgesWaitForRoom) {
  listener.hasRoom = false;
  controller.setBadgeIdentifier("SYNCED", at("/a/1"));
  std::atomic<int> set = 0;
  std::thread setter([&] {
    for (const char* path : {"/a/2", "/a/3", "/a/4"}) {
      controller.setBadgeIdentifier("SYNCED", at(path));
      ++set;
    }
  });
  for (const char* badge : {"PENDING", "SYNCED"}) EXPECT_TRUE(answer(url, badge)) << "an answer does not wait";
  EXPECT_EQ(set, 0);
  host::listenerHasRoom();
  while (set < 1) std::this_thread::yield();
  EXPECT_EQ(set, 1);
  NotingListener second;
  host::setListener(&second);
  setter.join();
  EXPECT_THAT(second.badges, ElementsAre(Pair("/a/3", "SYNCED"), Pair("/a/4", "SYNCED")));
}

TEST_F(FinderSyncController, ReportsWhichFoldersBadgesAreInvalid) {
  controller.invalidateBadges(at("/a"));
  controller.invalidateBadges(FileURL());
  EXPECT_THAT(listener.invalidated, ElementsAre("/a"));
}

TEST_F(FinderSyncController, AnswersForFoldersThatAreNotOnScreenAndWithTheEmptyIdentifierToo) {
  host::folderHidden("/a");
  for (const char* badge : {"SYNCED", ""}) {
    const host::BadgeRequest request(url);
    controller.setBadgeIdentifier(badge, url);
    EXPECT_EQ(request.answer(), badge);
    EXPECT_EQ(host::badgeIdentifier(url), std::nullopt);
  }
  EXPECT_THAT(listener.badges, IsEmpty());
}

TEST_F(FinderSyncController, ReportsAnAnswerThatDiffersFromTheBadgeBefore) {
  controller.setBadgeIdentifier("PENDING", url);
  listener.badges.clear();
  EXPECT_TRUE(answer(url, "PENDING"));
  EXPECT_THAT(listener.badges, IsEmpty());
  EXPECT_TRUE(answer(url, "SYNCED"));
  EXPECT_THAT(listener.badges, ElementsAre(Pair("/a/file", "SYNCED")));
}

TEST_F(FinderSyncController, TakesNoBadgeOfAnotherItemNorFromAnotherThreadAsTheAnswer) {
  const host::BadgeRequest request(url);
  controller.setBadgeIdentifier("SYNCED", at("/a/other"));
  std::thread([&] { controller.setBadgeIdentifier("SYNCED", url); }).join();
  EXPECT_EQ(request.answer(), std::nullopt);
  EXPECT_THAT(listener.badges, ElementsAre(Pair("/a/other", "SYNCED"), Pair("/a/file", "SYNCED")));
}

TEST_F(FinderSyncController, EndsARequestWhenItIsDestroyed) {
  host::BadgeRequest{url};
  controller.setBadgeIdentifier("SYNCED", url);
  EXPECT_THAT(listener.badges, ElementsAre(Pair("/a/file", "SYNCED")));
}

TEST_F(FinderSyncController, GoesBackToTheOuterRequestAfterAnInnerOne) {
  const host::BadgeRequest outer(url);
  {
    const auto innerURL = at("/a/inner");
    const host::BadgeRequest inner(innerURL);
    controller.setBadgeIdentifier("PENDING", innerURL);
    EXPECT_EQ(inner.answer(), "PENDING");
  }
  EXPECT_EQ(outer.answer(), std::nullopt);
  controller.setBadgeIdentifier("SYNCED", url);
  EXPECT_EQ(outer.answer(), "SYNCED");
}

// --- Observed folders

TEST_F(FinderSyncController, ReplacesTheObservedFoldersAndReportsIt) {
  EXPECT_THAT(controller.directoryURLs(), IsEmpty());
  controller.setDirectoryURLs({at("/a"), at("/b")});
  EXPECT_THAT(controller.directoryURLs(), ElementsAre(at("/a"), at("/b")));
  EXPECT_EQ(listener.directories, 1);
  controller.setDirectoryURLs({at("/c")});
  EXPECT_THAT(controller.directoryURLs(), ElementsAre(at("/c")));
  controller.setDirectoryURLs({});
  EXPECT_THAT(controller.directoryURLs(), IsEmpty());
  EXPECT_EQ(listener.directories, 3);
}

// --- Listeners

TEST_F(FinderSyncController, CallsOnlyTheLastListener) {
  NotingListener second;
  host::setListener(&second);
  controller.setBadgeIdentifier("SYNCED", url);
  controller.setDirectoryURLs({});
  EXPECT_THAT(listener.badges, IsEmpty());
  EXPECT_EQ(listener.directories, 0);
  EXPECT_EQ(second.badges.size(), 1u);
  EXPECT_EQ(second.directories, 1);
}

TEST_F(FinderSyncController, WorksWithoutAListener) {
  host::setListener(nullptr);
  controller.setBadgeIdentifier("SYNCED", url);
  controller.setDirectoryURLs({at("/a")});
  EXPECT_EQ(host::badgeIdentifier(url), "SYNCED");
}

TEST_F(FinderSyncController, CallsNoReplacedListener) {
  std::atomic<bool> more = true;
  std::thread setter([&] {
    for (int i = 0; more; ++i) controller.setBadgeIdentifier(std::to_string(i), url);
  });
  for (int i = 0; i < 200; ++i) {
    // Gone after each round: a call to it would be seen by the sanitizers.
    const auto shortLived = std::make_unique<NotingListener>();
    host::setListener(shortLived.get());
    host::setListener(nullptr);
  }
  more = false;
  setter.join();
}

// --- The selection

TEST_F(FinderSyncController, HasTheInnermostSelectionWhileItLives) {
  const std::vector<FileURL> items = {at("/b"), at("/a"), at("/b")};
  const std::vector<FileURL> nothing;
  EXPECT_EQ(controller.selectedItemURLs(), std::nullopt);
  {
    const host::Selection outer(items);
    EXPECT_EQ(controller.selectedItemURLs(), items) << "in the order of the user";
    {
      const host::Selection inner(nothing);
      EXPECT_EQ(controller.selectedItemURLs(), nothing) << "an empty selection is not none";
    }
    EXPECT_EQ(controller.selectedItemURLs(), items) << "back to the outer one";
  }
  EXPECT_EQ(controller.selectedItemURLs(), std::nullopt);
}

TEST_F(FinderSyncController, HasOneSelectionPerThread) {
  const std::vector<FileURL> mine = {at("/mine")};
  const host::Selection selection(mine);
  std::thread([&] {
    EXPECT_EQ(controller.selectedItemURLs(), std::nullopt);
    const std::vector<FileURL> other = {at("/other")};
    const host::Selection otherSelection(other);
    EXPECT_EQ(controller.selectedItemURLs(), other);
  }).join();
  EXPECT_EQ(controller.selectedItemURLs(), mine);
}

// --- Threads

TEST_F(FinderSyncController, MayBeUsedByManyThreadsAtOnce) {
  test::inParallel(4, [&](std::size_t thread) {
    const std::string folder = thread % 2 == 0 ? "/even" : "/odd";
    const auto item = at(folder + "/file");
    for (int round = 0; round < 200; ++round) {
      host::folderShown(folder);
      {
        host::BadgeRequest request(item);
        controller.setBadgeIdentifier("SYNCED", item);
        EXPECT_EQ(request.answer(), "SYNCED");
        request.apply();
      }
      controller.setBadgeIdentifier("PENDING", item);
      host::badgeIdentifier(item);
      controller.setDirectoryURLs({item});
      controller.directoryURLs();
      controller.setBadgeImage(Image(), "label", "SYNCED");
      host::registeredBadges();
      host::folderHidden(folder);
    }
  });
  EXPECT_EQ(listener.directories, 800);
  EXPECT_EQ(host::registeredBadges().size(), 1u);
}

}  // namespace
}  // namespace vornet::platform
