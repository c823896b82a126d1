#include "platform/FinderSync.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "platform/linux/FinderSyncHost.hpp"
#include "platform/linux/Host.hpp"
#include "support/TemporaryFolder.hpp"

namespace vornet::platform {
namespace {

using testing::ElementsAre;
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
  const auto url = FileURL::fileURLWithPath("/a");
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

class FinderSyncController : public testing::Test {
 protected:
  FinderSyncController() { host::setListener(&listener); }
  ~FinderSyncController() override { host::setListener(nullptr); }

  FIFinderSyncController& controller = FIFinderSyncController::defaultController();
  NotingListener listener;
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
  const auto badges = host::registeredBadges();
  ASSERT_EQ(badges.size(), 2u);
  EXPECT_EQ(badges[0].identifier, "SYNCED");
  EXPECT_EQ(badges[0].label, "Synced again");
  EXPECT_EQ(badges[0].image, *image);
  EXPECT_EQ(badges[1].identifier, "SKIPPED");
  EXPECT_EQ(badges[1].label, "Not synced");
}

// --- Badges of items

TEST_F(FinderSyncController, KeepsABadgeWhileItsFolderIsOnScreen) {
  host::folderShown("/a");
  controller.setBadgeIdentifier("SYNCED", at("/a/file"));
  EXPECT_EQ(host::badgeIdentifier(at("/a/file")), "SYNCED");
  host::folderHidden("/a");
  EXPECT_EQ(host::badgeIdentifier(at("/a/file")), std::nullopt);
  host::folderShown("/a");
  EXPECT_EQ(host::badgeIdentifier(at("/a/file")), std::nullopt) << "forgotten";
}

TEST_F(FinderSyncController, KeepsAndReportsNoBadgeOfAFolderThatIsNotOnScreen) {
  host::folderShown("/a");
  for (const char* path : {"/b/file", "/a/folder/file", "/a", "/ab/file"}) {
    controller.setBadgeIdentifier("SYNCED", at(path));
    EXPECT_EQ(host::badgeIdentifier(at(path)), std::nullopt) << path;
  }
  EXPECT_THAT(listener.badges, IsEmpty());
}

TEST_F(FinderSyncController, KnowsNoBadgeThatWasNotSet) {
  host::folderShown("/a");
  EXPECT_EQ(host::badgeIdentifier(at("/a/file")), std::nullopt);
  EXPECT_EQ(host::badgeIdentifier(FileURL()), std::nullopt);
}

TEST_F(FinderSyncController, ShowsBadgesInTheRootFolder) {
  host::folderShown("/");
  controller.setBadgeIdentifier("SYNCED", at("/file"));
  EXPECT_EQ(host::badgeIdentifier(at("/file")), "SYNCED");
  EXPECT_THAT(host::itemsOnScreen("/"), ElementsAre(at("/file")));
}

TEST_F(FinderSyncController, ReportsEachChangeOnce) {
  host::folderShown("/a");
  controller.setBadgeIdentifier("PENDING", at("/a/file"));
  controller.setBadgeIdentifier("PENDING", at("/a/file"));
  controller.setBadgeIdentifier("SYNCED", at("/a/file"));
  controller.setBadgeIdentifier("", at("/a/file"));
  controller.setBadgeIdentifier("", at("/a/file"));
  controller.setBadgeIdentifier("SYNCED", at("/a/other"));
  EXPECT_THAT(listener.badges, ElementsAre(Pair("/a/file", "PENDING"), Pair("/a/file", "SYNCED"), Pair("/a/file", ""),
                                           Pair("/a/other", "SYNCED")));
  EXPECT_EQ(host::badgeIdentifier(at("/a/file")), "");
}

TEST_F(FinderSyncController, ReportsABadgeAgainAfterItsFolderWasAway) {
  host::folderShown("/a");
  controller.setBadgeIdentifier("SYNCED", at("/a/file"));
  host::folderHidden("/a");
  controller.setBadgeIdentifier("SYNCED", at("/a/file"));
  host::folderShown("/a");
  controller.setBadgeIdentifier("SYNCED", at("/a/file"));
  EXPECT_EQ(listener.badges.size(), 2u);
}

TEST_F(FinderSyncController, KeepsItsBadgesWhenAFolderIsShownAgain) {
  host::folderShown("/a");
  controller.setBadgeIdentifier("SYNCED", at("/a/file"));
  host::folderShown("/a");
  EXPECT_EQ(host::badgeIdentifier(at("/a/file")), "SYNCED");
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
  host::folderShown("/a");
  const auto url = at("/a/file");
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
  host::folderShown("/a");
  const auto url = at("/a/file");
  host::BadgeRequest overtaken(url);
  std::thread([&] { controller.setBadgeIdentifier("SYNCED", url); }).join();
  controller.setBadgeIdentifier("PENDING", url);
  EXPECT_FALSE(overtaken.apply());
  EXPECT_EQ(host::badgeIdentifier(url), "SYNCED");
  EXPECT_THAT(listener.badges, ElementsAre(Pair("/a/file", "SYNCED")));

  host::BadgeRequest again(url);
  {
    host::BadgeRequest other(url);
    controller.setBadgeIdentifier("SYNCED", url);
    EXPECT_TRUE(other.apply());
  }
  controller.setBadgeIdentifier("PENDING", url);
  EXPECT_FALSE(again.apply()) << "the same badge was set meanwhile, but later";
}

TEST_F(FinderSyncController, TakesNoAnswerFromBeforeTheFolderWasShownAgain) {
  const auto url = at("/a/file");
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
  host::folderShown("/a");
  const auto unknown = at("/a/unknown");
  const auto withdrawn = at("/a/withdrawn");
  const auto pending = at("/a/pending");
  const auto elsewhere = at("/b/file");
  const host::BadgeRequest running(pending);
  for (const auto* url : {&unknown, &withdrawn, &elsewhere}) {
    host::BadgeRequest request(*url);
    if (url == &withdrawn) controller.setBadgeIdentifier("", *url);
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
  host::folderShown("/a");
  const auto url = at("/a/file");
  {
    EXPECT_TRUE(host::BadgeRequest(url).apply());
  }
  EXPECT_THAT(listener.badges, IsEmpty());
  host::BadgeRequest second(url);
  controller.setBadgeIdentifier("SYNCED", url);
  EXPECT_TRUE(second.apply());
  EXPECT_THAT(listener.badges, ElementsAre(Pair("/a/file", "SYNCED")));
}

TEST_F(FinderSyncController, RemembersABoundedNumberOfItemsThatWereAskedFor) {
  host::folderShown("/a");
  host::folderShown("/b");
  for (std::size_t i = 0; i < host::MAX_ITEMS_ASKED_FOR; ++i) {
    const auto url = at("/a/" + std::to_string(i));
    host::BadgeRequest(url).apply();
  }
  const auto url = at("/b/file");
  host::BadgeRequest(url).apply();
  EXPECT_THAT(host::itemsOnScreen("/b"), IsEmpty());
  controller.setBadgeIdentifier("SYNCED", url);
  EXPECT_EQ(host::badgeIdentifier(url), "SYNCED") << "a pushed badge is no question";
  host::folderHidden("/a");
  const auto other = at("/b/other");
  host::BadgeRequest(other).apply();
  EXPECT_EQ(host::itemsOnScreen("/b").size(), 2u);
}

TEST_F(FinderSyncController, RemembersABoundedNumberOfItemsThatNobodyAskedFor) {
  host::folderShown("/a");
  host::folderShown("/b");
  constexpr std::size_t COUNT = 10 * host::MAX_ITEMS_ONLY_SET;
  for (std::size_t i = 0; i < COUNT; ++i) controller.setBadgeIdentifier("SYNCED", at("/a/" + std::to_string(i)));
  EXPECT_EQ(host::itemsOnScreen("/a").size(), host::MAX_ITEMS_ONLY_SET);
  EXPECT_EQ(listener.badges.size(), COUNT) << "each was reported";

  const auto url = at("/b/file");
  controller.setBadgeIdentifier("PENDING", url);
  EXPECT_EQ(host::badgeIdentifier(url), std::nullopt);
  EXPECT_TRUE(host::isOverlooked(url));
  host::BadgeRequest(url).apply();
  EXPECT_FALSE(host::isOverlooked(url)) << "somebody asked";
  controller.setBadgeIdentifier("SYNCED", url);
  EXPECT_EQ(host::badgeIdentifier(url), "SYNCED");

  host::BadgeRequest(at("/a/0")).apply();
  controller.setBadgeIdentifier("SYNCED", at("/b/other"));
  EXPECT_EQ(host::badgeIdentifier(at("/b/other")), "SYNCED") << "one of the others was asked for, which leaves room";
  host::folderHidden("/a");
  controller.setBadgeIdentifier("SYNCED", at("/b/third"));
  EXPECT_EQ(host::badgeIdentifier(at("/b/third")), "SYNCED");
  EXPECT_FALSE(host::isOverlooked(at("/a/1"))) << "not on screen";
}

TEST_F(FinderSyncController, ReportsAnAnswerThatAWaitingChangeMustNotFollow) {
  host::folderShown("/a");
  for (std::size_t i = 0; i < host::MAX_ITEMS_ONLY_SET; ++i)
    controller.setBadgeIdentifier("", at("/a/" + std::to_string(i)));
  const auto url = at("/a/file");
  const auto gone = at("/a/gone");
  const auto locked = at("/a/locked");
  for (const auto* item : {&url, &gone, &locked}) controller.setBadgeIdentifier("PENDING", *item);
  for (const char* badge : {"SYNCED", "SKIPPED"}) {
    host::BadgeRequest request(url);
    controller.setBadgeIdentifier(badge, url);
    EXPECT_TRUE(request.apply());
  }
  EXPECT_TRUE(host::BadgeRequest(gone).apply());
  host::BadgeRequest inDoubt(locked);
  inDoubt.withdraw();
  EXPECT_TRUE(inDoubt.apply());
  EXPECT_THAT(listener.answers, ElementsAre(Pair("/a/file", "SYNCED"), Pair("/a/gone", "")));
  EXPECT_EQ(listener.badges.back(), std::pair(std::string("/a/file"), std::string("SKIPPED"))) << "a change";
}

TEST_F(FinderSyncController, ReportsNoAnswerThatMayBeOlderThanAWaitingChange) {
  host::folderShown("/a");
  for (std::size_t i = 0; i < host::MAX_ITEMS_ASKED_FOR; ++i) {
    const auto asked = at("/a/" + std::to_string(i));
    host::BadgeRequest(asked).apply();
  }
  for (std::size_t i = 0; i < host::MAX_ITEMS_ONLY_SET; ++i)
    controller.setBadgeIdentifier("", at("/a/set" + std::to_string(i)));
  listener.answers.clear();
  const auto url = at("/a/file");
  {
    host::BadgeRequest overtaken(url);
    controller.setBadgeIdentifier("PENDING", url);
    std::thread([&] { controller.setBadgeIdentifier("SYNCED", url); }).join();
    EXPECT_TRUE(overtaken.apply()) << "nothing is remembered of the item";
  }
  EXPECT_THAT(listener.answers, IsEmpty()) << "the waiting change would become what was before it";
  host::BadgeRequest again(url);
  controller.setBadgeIdentifier("SYNCED", url);
  EXPECT_TRUE(again.apply());
  EXPECT_THAT(listener.answers, ElementsAre(Pair("/a/file", "SYNCED")));
}

TEST_F(FinderSyncController, MakesTheSettingOfBadgesWaitForRoom) {
  host::folderShown("/a");
  listener.hasRoom = false;
  controller.setBadgeIdentifier("SYNCED", at("/a/1"));
  std::atomic<int> set = 0;
  std::thread setter([&] {
    for (const char* path : {"/a/2", "/a/3", "/a/4"}) {
      controller.setBadgeIdentifier("SYNCED", at(path));
      ++set;
    }
  });
  const auto url = at("/a/asked");
  for (const char* badge : {"PENDING", "SYNCED"}) {
    host::BadgeRequest request(url);
    controller.setBadgeIdentifier(badge, url);
    EXPECT_TRUE(request.apply()) << "an answer does not wait";
  }
  EXPECT_EQ(set, 0);
  host::listenerHasRoom();
  while (set < 1) std::this_thread::yield();
  EXPECT_EQ(set, 1);
  NotingListener second;
  host::setListener(&second);
  setter.join();
  EXPECT_THAT(second.badges, ElementsAre(Pair("/a/3", "SYNCED"), Pair("/a/4", "SYNCED")));
  host::setListener(nullptr);
}

TEST_F(FinderSyncController, ReportsWhichFoldersBadgesAreInvalid) {
  controller.invalidateBadges(at("/a"));
  controller.invalidateBadges(FileURL());
  EXPECT_THAT(listener.invalidated, ElementsAre("/a"));
}

TEST_F(FinderSyncController, AnswersForFoldersThatAreNotOnScreenToo) {
  const auto url = at("/b/file");
  const host::BadgeRequest request(url);
  controller.setBadgeIdentifier("SYNCED", url);
  EXPECT_EQ(request.answer(), "SYNCED");
  EXPECT_EQ(host::badgeIdentifier(url), std::nullopt);
  EXPECT_THAT(listener.badges, IsEmpty());
}

TEST_F(FinderSyncController, AnswersWithTheEmptyIdentifierToo) {
  const auto url = at("/a/file");
  const host::BadgeRequest request(url);
  controller.setBadgeIdentifier("", url);
  EXPECT_EQ(request.answer(), "");
}

TEST_F(FinderSyncController, ReportsAnAnswerThatDiffersFromTheBadgeBefore) {
  host::folderShown("/a");
  const auto url = at("/a/file");
  controller.setBadgeIdentifier("PENDING", url);
  listener.badges.clear();
  {
    host::BadgeRequest request(url);
    controller.setBadgeIdentifier("PENDING", url);
    EXPECT_EQ(request.answer(), "PENDING");
    EXPECT_TRUE(request.apply());
  }
  EXPECT_THAT(listener.badges, IsEmpty());
  {
    host::BadgeRequest request(url);
    controller.setBadgeIdentifier("SYNCED", url);
    EXPECT_EQ(request.answer(), "SYNCED");
    EXPECT_TRUE(request.apply());
  }
  EXPECT_THAT(listener.badges, ElementsAre(Pair("/a/file", "SYNCED")));
}

TEST_F(FinderSyncController, TakesNoBadgeOfAnotherItemAsTheAnswer) {
  host::folderShown("/a");
  const auto url = at("/a/file");
  const host::BadgeRequest request(url);
  controller.setBadgeIdentifier("SYNCED", at("/a/other"));
  EXPECT_EQ(request.answer(), std::nullopt);
  EXPECT_THAT(listener.badges, ElementsAre(Pair("/a/other", "SYNCED")));
}

TEST_F(FinderSyncController, TakesNoBadgeFromAnotherThreadAsTheAnswer) {
  host::folderShown("/a");
  const auto url = at("/a/file");
  const host::BadgeRequest request(url);
  std::thread([&] { controller.setBadgeIdentifier("SYNCED", url); }).join();
  EXPECT_EQ(request.answer(), std::nullopt);
  EXPECT_THAT(listener.badges, ElementsAre(Pair("/a/file", "SYNCED")));
}

TEST_F(FinderSyncController, EndsARequestWhenItIsDestroyed) {
  host::folderShown("/a");
  const auto url = at("/a/file");
  {
    const host::BadgeRequest request(url);
  }
  controller.setBadgeIdentifier("SYNCED", url);
  EXPECT_THAT(listener.badges, ElementsAre(Pair("/a/file", "SYNCED")));
}

TEST_F(FinderSyncController, GoesBackToTheOuterRequestAfterAnInnerOne) {
  const auto outerURL = at("/a/outer");
  const auto innerURL = at("/a/inner");
  const host::BadgeRequest outer(outerURL);
  {
    const host::BadgeRequest inner(innerURL);
    controller.setBadgeIdentifier("PENDING", innerURL);
    EXPECT_EQ(inner.answer(), "PENDING");
  }
  EXPECT_EQ(outer.answer(), std::nullopt);
  controller.setBadgeIdentifier("SYNCED", outerURL);
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
  host::folderShown("/a");
  NotingListener second;
  host::setListener(&second);
  controller.setBadgeIdentifier("SYNCED", at("/a/file"));
  controller.setDirectoryURLs({});
  EXPECT_THAT(listener.badges, IsEmpty());
  EXPECT_EQ(listener.directories, 0);
  EXPECT_EQ(second.badges.size(), 1u);
  EXPECT_EQ(second.directories, 1);
  host::setListener(nullptr);
}

TEST_F(FinderSyncController, WorksWithoutAListener) {
  host::setListener(nullptr);
  host::folderShown("/a");
  controller.setBadgeIdentifier("SYNCED", at("/a/file"));
  controller.setDirectoryURLs({at("/a")});
  EXPECT_EQ(host::badgeIdentifier(at("/a/file")), "SYNCED");
}

TEST_F(FinderSyncController, CallsNoReplacedListener) {
  host::folderShown("/a");
  std::atomic<bool> more = true;
  std::thread setter([&] {
    for (int i = 0; more; ++i) controller.setBadgeIdentifier(std::to_string(i), at("/a/file"));
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

TEST_F(FinderSyncController, HasASelectionOnlyWhileOneLives) {
  EXPECT_EQ(controller.selectedItemURLs(), std::nullopt);
  const std::vector<FileURL> items = {at("/b"), at("/a"), at("/b")};
  {
    const host::Selection selection(items);
    EXPECT_EQ(controller.selectedItemURLs(), items) << "in the order of the user";
  }
  EXPECT_EQ(controller.selectedItemURLs(), std::nullopt);
}

TEST_F(FinderSyncController, DistinguishesAnEmptySelectionFromNone) {
  const std::vector<FileURL> nothing;
  const host::Selection selection(nothing);
  EXPECT_EQ(controller.selectedItemURLs(), nothing);
}

TEST_F(FinderSyncController, GoesBackToTheOuterSelectionAfterAnInnerOne) {
  const std::vector<FileURL> outerItems = {at("/a")};
  const std::vector<FileURL> innerItems = {at("/b")};
  const host::Selection outer(outerItems);
  {
    const host::Selection inner(innerItems);
    EXPECT_EQ(controller.selectedItemURLs(), innerItems);
  }
  EXPECT_EQ(controller.selectedItemURLs(), outerItems);
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
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      std::string folder = "/folder";
      folder.append(std::to_string(i % 2));
      const auto url = at(folder + "/file");
      for (int round = 0; round < 200; ++round) {
        host::folderShown(folder);
        {
          host::BadgeRequest request(url);
          controller.setBadgeIdentifier("SYNCED", url);
          EXPECT_EQ(request.answer(), "SYNCED");
          request.apply();
        }
        controller.setBadgeIdentifier("PENDING", url);
        host::badgeIdentifier(url);
        controller.setDirectoryURLs({url});
        controller.directoryURLs();
        controller.setBadgeImage(Image(), "label", "SYNCED");
        host::registeredBadges();
        host::folderHidden(folder);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(listener.directories, 800);
  EXPECT_EQ(host::registeredBadges().size(), 1u);
}

}  // namespace
}  // namespace vornet::platform
