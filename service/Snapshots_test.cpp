// The badges of whole folders, sent by the built extension process.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>

#include "dbus/Interface.hpp"
#include "support/Databases.hpp"
#include "support/ExtensionTest.hpp"
#include "support/FakeExtension.hpp"
#include "support/SyncApplication.hpp"

namespace vornet::test {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using Badges = std::map<std::string, std::string>;

class ExtensionSnapshots : public ExtensionTest {
 protected:
  /// Has the badges of a folder sent.
  void open(const std::string& folder, guint64 stream) { open(*client, folder, stream); }
  void open(BusClient& by, const std::string& folder, guint64 stream) const {
    const auto observed = test::urlOf(root + "/" + folder);
    ASSERT_TRUE(by.beginObserving(observed));
    ASSERT_TRUE(by.requestSnapshot(observed, stream));
  }

  bool waitForSnapshot(guint64 stream, std::size_t count = 1) { return waitForSnapshot(*client, stream, count); }
  static bool waitForSnapshot(BusClient& by, guint64 stream, std::size_t count = 1) {
    return by.waitUntil([&] { return by.stream(stream).snapshots >= count && !by.stream(stream).isOpen; });
  }

  /// Has the badges of a folder sent: as they have come.
  Badges snapshotOf(const std::string& folder, guint64 stream) {
    open(folder, stream);
    EXPECT_TRUE(waitForSnapshot(stream));
    return client->stream(stream).badges;
  }

  /// Waits until the extension knows the items of the folder "d" from the sync application. No item is asked for: the
  /// first fill would change its badge, and who observes the folder would be sent that.
  void fill() const {
    BusClient other(bus->address());
    open(other, "d", 1);
    ASSERT_TRUE(other.waitUntil([&] { return other.stream(1).badges.contains("filled"); }));
  }

  static std::vector<std::string> namesOf(int count, const std::string& prefix = "") {
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) names.push_back(prefix + std::to_string(i));
    return names;
  }
  /// Rows of synced items in the folder `folder`.
  static Rows rowsOf(const std::vector<std::string>& names, const std::string& folder = "d") {
    Rows rows;
    for (const auto& name : names) rows.emplace_back("/" + folder + "/" + name, 2);
    return rows;
  }

  /// The processor's time that the extension has taken so far, in ticks of the clock.
  long timeTaken() {
    const auto text = readFile("/proc/" + std::to_string(process()) + "/stat");
    std::istringstream fields(text.substr(text.rfind(')') + 1));
    std::string field;
    for (int i = 3; i < 14; ++i) fields >> field;
    long user = 0;
    long system = 0;
    fields >> user >> system;
    return user + system;
  }
};

TEST_F(ExtensionSnapshots, AFilledFolderIsSentWithoutTheDatabase) {
  makeDatabase({{"/d/x", 0}, {"/d/other", 2}});
  SyncApplication application;
  application.setBody("/d/",
                      R"({"/d/filled":2,"/d/x":1,"/d/none":-1,"/d/unknown":7,"/d/sub/":2,"/d/sub/y":2,"/e/z":2})");
  startConfigured();
  fill();
  EXPECT_EQ(snapshotOf("d", 1), (Badges{{"filled", "SYNCED"}, {"x", "PENDING"}}));
  EXPECT_EQ(client->stream(1).snapshots, 1u);
  EXPECT_THAT(client->stream(1).history, testing::Not(Contains(Pair("x", "SKIPPED"))));
}

TEST_F(ExtensionSnapshots, AFolderThatIsNotFilledIsSentFromTheDatabase) {
  startConfigured({{"/d/x", 0}, {"/d/sub/", 2}, {"/d/sub/y", 1}, {"/d/none", -1}, {"/d/unknown", 7}, {"/x", 2}});
  EXPECT_EQ(snapshotOf("d", 1), (Badges{{"sub", "SYNCED"}, {"x", "SKIPPED"}}));
  EXPECT_THAT(snapshotOf("e", 2), IsEmpty());
  EXPECT_THAT(client->stream(2).messages, ElementsAre(0u)) << "nothing has a badge: that is sent";
  EXPECT_EQ(snapshotOf("", 3), (Badges{{"x", "SYNCED"}}));
}

TEST_F(ExtensionSnapshots, AFolderThatIsFilledAfterItWasSentIsSentAgain) {
  Gate gate;
  SyncApplication application;
  application.setAnswer("/d/", answerAfter(gate, R"({"/d/x":2,"/d/same":2})"));
  startConfigured({{"/d/x", 0}, {"/d/same", 2}, {"/d/gone", 2}});
  EXPECT_EQ(snapshotOf("d", 1), (Badges{{"x", "SKIPPED"}, {"same", "SYNCED"}, {"gone", "SYNCED"}}));
  gate.open();
  ASSERT_TRUE(waitForSnapshot(1, 2));
  EXPECT_EQ(client->stream(1).badges, (Badges{{"x", "SYNCED"}, {"same", "SYNCED"}}));
}

TEST_F(ExtensionSnapshots, ChangesComeInTheStreamAndNowhereElse) {
  SyncApplication application;
  application.setStatus("/d/filled", 2);
  application.setStatus("/d/x", 1);
  startConfigured();
  BusClient older(bus->address());
  ASSERT_TRUE(older.beginObserving(url("d")));
  fill();
  open("d", 1);
  ASSERT_TRUE(waitForSnapshot(1));
  EXPECT_EQ(older.requestBadges({url("d/x")}).texts().front(), "PENDING");
  application.setStatus("/d/x", -1);
  application.setStatus("/d/new", 0);
  const Badges expected{{"filled", "SYNCED"}, {"new", "SKIPPED"}};
  EXPECT_TRUE(client->waitUntil([&] { return client->stream(1).badges == expected; }));
  EXPECT_EQ(client->signals(), 0u);
  EXPECT_TRUE(older.waitForChange(url("d/x"), ""));
  EXPECT_TRUE(older.waitForChange(url("d/new"), "SKIPPED"));
}

TEST_F(ExtensionSnapshots, ALargeFolderComesInMessagesOfFiveThousand) {
  startConfigured(rowsOf(namesOf(10'001)));
  EXPECT_THAT(snapshotOf("d", 1), AllOf(SizeIs(10'001), Contains(Pair("10000", "SYNCED"))));
  EXPECT_THAT(client->stream(1).messages, ElementsAre(5'000u, 5'000u, 1u));
}

TEST_F(ExtensionSnapshots, AFolderThatIsLeftMeanwhileIsNotSentUnlessItIsBegunAnewAndThenInItsNewStream) {
  startConfigured({{"/d/x", 2}, {"/e/y", 2}});
  open("d", 1);
  ASSERT_TRUE(client->endObserving(url("d")));
  open("e", 2);
  ASSERT_TRUE(client->endObserving(url("e")));
  EXPECT_EQ(snapshotOf("e", 3), (Badges{{"y", "SYNCED"}})) << "which would come later";
  EXPECT_THAT(client->stream(1).messages, IsEmpty());
  EXPECT_EQ(snapshotOf("d", 4), (Badges{{"x", "SYNCED"}}));
  for (const guint64 left : {1u, 2u}) EXPECT_THAT(client->stream(left).messages, IsEmpty());
}

TEST_F(ExtensionSnapshots, TwoObserversHaveAStreamEach) {
  startConfigured({{"/d/x", 2}});
  BusClient second(bus->address());
  open("d", 1);
  open(second, "d", 9);
  EXPECT_TRUE(waitForSnapshot(1));
  EXPECT_TRUE(waitForSnapshot(second, 9));
  EXPECT_EQ(second.stream(9).badges, (Badges{{"x", "SYNCED"}}));
  EXPECT_THAT(second.stream(1).messages, IsEmpty());
  EXPECT_THAT(client->stream(9).messages, IsEmpty());
}

TEST_F(ExtensionSnapshots, AreThoseOfWhoObserves) {
  startConfigured();
  EXPECT_EQ(client->property("InterfaceVersion"), "2");
  EXPECT_EQ(client->requestSnapshot(url("d"), 1).error, "NotObserving");
  EXPECT_EQ(client->requestSnapshot("nonsense", 1).error, "InvalidURL");
  BusClient second(bus->address());
  ASSERT_TRUE(second.beginObserving(url("d")));
  EXPECT_EQ(client->requestSnapshot(url("d"), 1).error, "NotObserving");
  EXPECT_TRUE(second.requestSnapshot(url("d//"), 1));
}

TEST_F(ExtensionSnapshots, MayBeRequestedBeforeObservingIsAnswered) {
  startConfigured({{"/d/x", 2}});
  client->call("BeginObserving", BusClient::textArgument(url("d")), [](const BusReply&) {});
  ASSERT_TRUE(client->requestSnapshot(url("d"), 1));
  EXPECT_TRUE(waitForSnapshot(1));
}

TEST_F(ExtensionSnapshots, AFolderWithTooManyBadgesIsRefusedAndItsChangesComeOneByOne) {
  Gate gate;
  SyncApplication application;
  application.setAnswer("/d/", answerAfter(gate, R"({"/d/1":1})"));
  startConfigured(rowsOf(namesOf(50'001)));
  open("d", 1);
  ASSERT_TRUE(client->waitUntil([&] { return client->stream(1).isRefused; }));
  EXPECT_EQ(client->stream(1).snapshots, 0u);
  EXPECT_EQ(badge("d/1"), "SYNCED");
  gate.open();
  EXPECT_TRUE(client->waitForChange(url("d/1"), "PENDING"));
}

TEST_F(ExtensionSnapshots, ALockedDatabaseIsLookedAtAgain) {
  startConfigured({{"/d/x", 2}});
  process();
  {
    Database writer(database());
    writer.run("BEGIN EXCLUSIVE");
    open("d", 1);
    ASSERT_TRUE(waitForLog("childSyncStatus: Cannot prepare SQL statement"));
    EXPECT_THAT(client->stream(1).messages, IsEmpty());
  }
  ASSERT_TRUE(waitForSnapshot(1));
  EXPECT_EQ(client->stream(1).badges, (Badges{{"x", "SYNCED"}}));
}

/// Names and rows of every kind, in the folder "d" and in one whose name has wildcards.
class ExtensionSnapshotsOfEveryKind : public ExtensionSnapshots, public testing::WithParamInterface<const char*> {};

TEST_P(ExtensionSnapshotsOfEveryKind, AreWhatTheItemsAreAnswered) {
  const std::string folder = GetParam();
  std::filesystem::create_directories(root + "/" + folder);
  Rows rows = {{"/plain", 0}, {"/" + folder + "x/plain", 0}, {"/elsewhere/x", 2}, {"/" + folder + "/", 2}};
  std::set<std::string> names = {"aXb", "none", "case"};  // which have no rows
  const std::map<int, std::vector<std::string>> pathsOfCodes = {
      {-1, {"-1"}},
      {0, {"both", "[x]*/", "it's"}},
      {1, {"folder/", "twice", "100%", "caf\xc3\xa9", "a b", "\xf0\x9f\x98\x80", "CASE"}},
      {2,
       {"plain", "both/", "twice", "a_b", "line\nbreak/", "cafe\xcc\x81", "deep/er/x", "double//", "\"quoted\"",
        "back\\slash"}},
      {7, {"7"}}};
  for (const auto& [code, paths] : pathsOfCodes) {
    for (const auto& path : paths) {
      rows.emplace_back("/" + folder + "/" + path, code);
      names.insert(path.substr(0, path.find('/')));
    }
  }
  startConfigured(rows);
  const auto sent = snapshotOf(folder, 1);
  Badges expected;
  for (const auto& name : names) {
    const auto answers = client->requestBadges({test::urlOf(root + "/" + folder + "/" + name)}).texts();
    ASSERT_THAT(answers, SizeIs(1));
    if (!answers[0].empty()) expected[name] = answers[0];
  }
  EXPECT_GE(expected.size(), 16u);
  EXPECT_EQ(sent, expected);
}

INSTANTIATE_TEST_SUITE_P(Folders, ExtensionSnapshotsOfEveryKind,
                         testing::Values("d", "100%", "a_b", "[x]*", "e\xcc\x81", "two words"));

TEST_F(ExtensionSnapshots, NoItemWhosePathHoldsTheRootsTextTwiceIsInOne) {
  const std::string outer = "a" + std::filesystem::path(root).parent_path().string();
  std::filesystem::create_directories(root + "/" + outer);
  startConfigured({{"/" + outer + "/root", 2}, {"/" + outer + "/rooted", 2}, {"/" + outer + "/other", 1}});
  EXPECT_EQ(snapshotOf(outer, 1), (Badges{{"other", "PENDING"}}));
}

// --- Cost -----------------------------------------------------------------------------------------------------------

TEST_F(ExtensionSnapshots, AFolderThatIsNotFilledCostsAFractionOfItsItemsLookUps) {
  constexpr std::size_t ITEMS = 10'000;
  startConfigured(rowsOf(namesOf(ITEMS, "an item of the folder ")));
  const auto first = timeTaken();
  snapshotOf("d", 1);
  const auto second = timeTaken();
  std::size_t calls = 0;
  for (std::size_t from = 0; from < ITEMS; from += dbus::BATCH, ++calls) {
    std::vector<std::string> items;
    for (std::size_t i = from; i < from + dbus::BATCH; ++i)
      items.push_back("d/an%20item%20of%20the%20folder%20" + std::to_string(i));
    ASSERT_THAT(badges(items), Each("SYNCED"));
  }
  const auto third = timeTaken();
  std::printf("  10,000 items: %zu messages, %ld ticks; one by one: %zu calls, %ld ticks\n",
              client->stream(1).messages.size(), second - first, calls, third - second);
  EXPECT_LT(second - first, (third - second) / 4);
}

TEST_F(ExtensionSnapshots, AClientThatAsksAgainAndAgainIsSentNoMoreThanItsShare) {
  startConfigured(rowsOf(namesOf(10'000, std::string(200, 'n'))));  // 2 MB
  snapshotOf("d", 1);
  const auto begin = std::chrono::steady_clock::now();
  const auto seconds = [&] {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin).count();
  };
  for (int i = 0; i < 30; ++i) {
    ASSERT_TRUE(client->requestSnapshot(url("d"), 1));
    const auto asked = client->stream(1).snapshots;
    client->waitUntil([&] { return client->stream(1).snapshots > asked; }, 100ms);
  }
  BusClient other(bus->address());
  open(other, "d", 2);
  ASSERT_TRUE(waitForSnapshot(other, 2)) << "its share is its own";
  EXPECT_LE(static_cast<long>(client->stream(1).snapshots), 6 + seconds());  // 8 MiB at once, and one a second
}

TEST_F(ExtensionSnapshots, AClientWithManyFoldersIsSentNoMoreThanItsShare) {
  const auto folders = namesOf(12);
  Rows rows;
  for (const auto& folder : folders) {
    std::filesystem::create_directories(root + "/" + folder);
    std::ranges::move(rowsOf(namesOf(2'000, std::string(1'000, 'n')), folder), std::back_inserter(rows));  // 2 MB
  }
  startConfigured(rows);
  process();
  const auto begin = std::chrono::steady_clock::now();
  const auto seconds = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(); };
  for (std::size_t i = 0; i < folders.size(); ++i) open(folders[i], i);
  const auto sent = [&] {
    std::size_t count = 0;
    for (std::size_t i = 0; i < folders.size(); ++i) count += client->stream(i).snapshots;
    return count;
  };
  ASSERT_TRUE(client->waitUntil([&] { return sent() >= 4; }));
  open("d", folders.size());
  client->waitUntil([&] { return sent() == folders.size(); }, 2s);
  EXPECT_LE(static_cast<double>(sent()), 6 + seconds() / 2);
}

// --- Faults ---------------------------------------------------------------------------------------------------------

TEST_F(ExtensionSnapshots, AFolderThatTheSyncApplicationDoesNotHaveIsSentFromTheDatabase) {
  SyncApplication application;
  application.setAnswer("/d/", [](const WireRequest&) { return WireReply{.status = 404}; });
  startConfigured({{"/d/x", 2}});
  open("d", 1);
  ASSERT_TRUE(waitForLog("does not exist (404), ignoring subscription"));
  ASSERT_TRUE(waitForSnapshot(1));
  EXPECT_EQ(client->stream(1).badges, (Badges{{"x", "SYNCED"}}));
}

TEST_F(ExtensionSnapshots, ADatabaseThatIsReplacedOrRemovedIsReadAsItIs) {
  startConfigured({{"/d/x", 2}});
  EXPECT_EQ(snapshotOf("d", 1), (Badges{{"x", "SYNCED"}}));
  std::filesystem::remove(database());
  makeDatabase({{"/d/y", 1}});
  EXPECT_EQ(snapshotOf("d", 2), (Badges{{"y", "PENDING"}}));
  std::filesystem::remove(database());
  EXPECT_THAT(snapshotOf("d", 3), IsEmpty());
}

}  // namespace
}  // namespace vornet::test
