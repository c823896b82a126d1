// The badges of whole folders, sent by the built extension process.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>

#include <unistd.h>

#include "dbus/Interface.hpp"
#include "support/Databases.hpp"
#include "support/ExtensionTest.hpp"
#include "support/FakeExtension.hpp"
#include "support/Flood.hpp"
#include "support/SyncApplication.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

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
    ASSERT_TRUE(by.beginObserving(url(folder)));
    ASSERT_TRUE(by.requestSnapshot(url(folder), stream));
  }

  bool waitForSnapshot(guint64 stream, std::size_t count = 1) { return waitForSnapshot(*client, stream, count); }
  static bool waitForSnapshot(BusClient& by, guint64 stream, std::size_t count = 1) {
    return by.waitUntil([&] { return by.stream(stream).snapshots >= count && !by.stream(stream).isOpen; });
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
  std::vector<std::pair<std::string, int>> rowsOf(const std::vector<std::string>& names, int code) const {
    std::vector<std::pair<std::string, int>> rows;
    for (const auto& name : names) rows.emplace_back("/d/" + name, code);
    return rows;
  }

  /// The processor's time that the extension has taken so far, in ticks of the clock.
  long timeTaken() {
    std::ifstream file("/proc/" + std::to_string(process()) + "/stat");
    std::string text((std::istreambuf_iterator<char>(file)), {});
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
  open("d", 1);
  ASSERT_TRUE(waitForSnapshot(1));
  EXPECT_EQ(client->stream(1).badges, (Badges{{"filled", "SYNCED"}, {"x", "PENDING"}}));
  EXPECT_EQ(client->stream(1).snapshots, 1u);
  EXPECT_THAT(client->stream(1).history, testing::Not(testing::Contains(Pair("x", "SKIPPED"))));
}

TEST_F(ExtensionSnapshots, AFolderThatIsNotFilledIsSentFromTheDatabase) {
  makeDatabase({{"/d/x", 0}, {"/d/sub/", 2}, {"/d/sub/y", 1}, {"/d/none", -1}, {"/d/unknown", 7}, {"/x", 2}});
  startConfigured();
  open("d", 1);
  ASSERT_TRUE(waitForSnapshot(1));
  EXPECT_EQ(client->stream(1).badges, (Badges{{"sub", "SYNCED"}, {"x", "SKIPPED"}}));
  open("e", 2);
  ASSERT_TRUE(waitForSnapshot(2));
  EXPECT_THAT(client->stream(2).messages, ElementsAre(0u)) << "nothing has a badge: that is sent";
  open("", 3);
  ASSERT_TRUE(waitForSnapshot(3));
  EXPECT_EQ(client->stream(3).badges, (Badges{{"x", "SYNCED"}}));
}

TEST_F(ExtensionSnapshots, AFolderThatIsFilledAfterItWasSentIsSentAgain) {
  makeDatabase({{"/d/x", 0}, {"/d/same", 2}, {"/d/gone", 2}});
  Gate gate;
  SyncApplication application;
  application.setAnswer("/d/", [&](const WireRequest&) {
    gate.passInTime();
    return WireReply{.body = R"({"/d/x":2,"/d/same":2})"};
  });
  startConfigured();
  open("d", 1);
  ASSERT_TRUE(waitForSnapshot(1));
  EXPECT_EQ(client->stream(1).badges, (Badges{{"x", "SKIPPED"}, {"same", "SYNCED"}, {"gone", "SYNCED"}}));
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
  makeDatabase(rowsOf(namesOf(10'001), 2));
  startConfigured();
  open("d", 1);
  ASSERT_TRUE(waitForSnapshot(1));
  EXPECT_THAT(client->stream(1).messages, ElementsAre(5'000u, 5'000u, 1u));
  EXPECT_THAT(client->stream(1).badges, SizeIs(10'001));
  EXPECT_EQ(client->stream(1).badges.at("10000"), "SYNCED");
}

TEST_F(ExtensionSnapshots, AFolderThatIsLeftMeanwhileIsNotSent) {
  makeDatabase({{"/d/x", 2}, {"/e/y", 2}});
  startConfigured();
  open("d", 1);
  ASSERT_TRUE(client->endObserving(url("d")));
  open("e", 2);
  ASSERT_TRUE(waitForSnapshot(2)) << "which would come later";
  EXPECT_THAT(client->stream(1).messages, IsEmpty());
  open("d", 3);
  ASSERT_TRUE(waitForSnapshot(3));
  EXPECT_THAT(client->stream(1).messages, IsEmpty());
}

TEST_F(ExtensionSnapshots, TwoObserversHaveAStreamEach) {
  makeDatabase({{"/d/x", 2}});
  startConfigured();
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
  makeDatabase({{"/d/x", 2}});
  startConfigured();
  client->call("BeginObserving", g_variant_new("(s)", url("d").c_str()), [](const BusReply&) {});
  ASSERT_TRUE(client->requestSnapshot(url("d"), 1));
  EXPECT_TRUE(waitForSnapshot(1));
}

TEST_F(ExtensionSnapshots, AFolderWithTooManyBadgesIsRefusedAndItsChangesComeOneByOne) {
  makeDatabase(rowsOf(namesOf(50'001), 2));
  Gate gate;
  SyncApplication application;
  application.setAnswer("/d/", [&](const WireRequest&) {
    gate.passInTime();
    return WireReply{.body = R"({"/d/1":1})"};
  });
  startConfigured();
  open("d", 1);
  ASSERT_TRUE(client->waitUntil([&] { return client->stream(1).isRefused; }));
  EXPECT_EQ(client->stream(1).snapshots, 0u);
  EXPECT_EQ(badge("d/1"), "SYNCED");
  gate.open();
  EXPECT_TRUE(client->waitForChange(url("d/1"), "PENDING"));
}

TEST_F(ExtensionSnapshots, ALockedDatabaseIsLookedAtAgain) {
  makeDatabase({{"/d/x", 2}});
  startConfigured();
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
  const std::string inner = folder + root;  // holds the root's text
  std::filesystem::create_directories(root + "/" + std::filesystem::path(inner).parent_path().string());
  const std::vector<std::string> names = {"plain",
                                          "folder",
                                          "both",
                                          "twice",
                                          "-1",
                                          "7",
                                          "100%",
                                          "a_b",
                                          "aXb",
                                          "[x]*",
                                          "caf\xc3\xa9",
                                          "cafe\xcc\x81",
                                          "deep",
                                          "double",
                                          "a b",
                                          "\"quoted\"",
                                          "it's",
                                          "none",
                                          "\xf0\x9f\x98\x80",
                                          "back\\slash",
                                          "CASE",
                                          "case",
                                          "line\nbreak"};
  std::vector<std::pair<std::string, int>> rows = {{"/plain", 0}, {"/" + folder + "x/plain", 0}, {"/elsewhere/x", 2}};
  const auto row = [&](const std::string& name, int code) { rows.emplace_back("/" + folder + "/" + name, code); };
  row("", 2);
  row("plain", 2);
  row("folder/", 1);
  row("both", 0);
  row("both/", 2);
  row("twice", 1);
  row("twice", 2);
  row("-1", -1);
  row("7", 7);
  row("100%", 1);
  row("a_b", 2);
  row("[x]*/", 0);
  row("caf\xc3\xa9", 1);
  row("cafe\xcc\x81", 2);
  row("deep/er/x", 2);
  row("double//", 2);
  row("a b", 1);
  row("\"quoted\"", 2);
  row("it's", 0);
  row("\xf0\x9f\x98\x80", 1);
  row("back\\slash", 2);
  row("CASE", 1);
  row("line\nbreak/", 2);
  makeDatabase(rows);
  startConfigured();
  std::vector<std::string> urls;
  const auto folderURL = test::urlOf(root + "/" + folder);
  for (const auto& name : names) urls.push_back(test::urlOf(root + "/" + folder + "/" + name));
  ASSERT_TRUE(client->beginObserving(folderURL));
  ASSERT_TRUE(client->requestSnapshot(folderURL, 1));
  ASSERT_TRUE(waitForSnapshot(1));
  const auto answers = client->requestBadges(urls).texts();
  ASSERT_EQ(answers.size(), names.size());
  Badges expected;
  for (std::size_t i = 0; i < names.size(); ++i)
    if (!answers[i].empty()) expected[names[i]] = answers[i];
  EXPECT_GE(expected.size(), 16u);
  EXPECT_EQ(client->stream(1).badges, expected);
}

INSTANTIATE_TEST_SUITE_P(Folders, ExtensionSnapshotsOfEveryKind,
                         testing::Values("d", "100%", "a_b", "[x]*", "e\xcc\x81", "two words"));

TEST_F(ExtensionSnapshots, NoItemWhosePathHoldsTheRootsTextTwiceIsInOne) {
  const std::string outer = "a" + std::filesystem::path(root).parent_path().string();
  std::filesystem::create_directories(root + "/" + outer);
  makeDatabase({{"/" + outer + "/root", 2}, {"/" + outer + "/rooted", 2}, {"/" + outer + "/other", 1}});
  startConfigured();
  open(outer, 1);
  ASSERT_TRUE(waitForSnapshot(1));
  EXPECT_EQ(client->stream(1).badges, (Badges{{"other", "PENDING"}}));
}

// --- Cost -----------------------------------------------------------------------------------------------------------

TEST_F(ExtensionSnapshots, AFolderThatIsNotFilledCostsAFractionOfItsItemsLookUps) {
  const auto names = namesOf(10'000, "an item of the folder ");
  makeDatabase(rowsOf(names, 2));
  startConfigured();
  process();
  const auto first = timeTaken();
  open("d", 1);
  ASSERT_TRUE(waitForSnapshot(1));
  const auto second = timeTaken();
  std::size_t calls = 0;
  for (std::size_t from = 0; from < names.size(); from += dbus::BATCH, ++calls) {
    std::vector<std::string> items;
    for (std::size_t i = from; i < from + dbus::BATCH; ++i)
      items.push_back(url("d/an%20item%20of%20the%20folder%20" + std::to_string(i)));
    for (const auto& identifier : client->requestBadges(items).texts()) ASSERT_EQ(identifier, "SYNCED");
  }
  const auto third = timeTaken();
  std::printf("  10,000 items: %zu messages, %ld ticks; one by one: %zu calls, %ld ticks\n",
              client->stream(1).messages.size(), second - first, calls, third - second);
  EXPECT_LT(second - first, (third - second) / 4);
}

TEST_F(ExtensionSnapshots, AClientThatAsksAgainAndAgainIsSentNoMoreThanItsShare) {
  const std::string prefix(200, 'n');
  makeDatabase(rowsOf(namesOf(10'000, prefix), 2));  // 2 MB
  startConfigured();
  open("d", 1);
  ASSERT_TRUE(waitForSnapshot(1));
  const auto begin = std::chrono::steady_clock::now();
  const auto seconds = [&] {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin).count();
  };
  for (int i = 0; i < 30; ++i) {
    ASSERT_TRUE(client->requestSnapshot(url("d"), 1));
    const auto asked = client->stream(1).snapshots;
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
    client->waitUntil([&] { return client->stream(1).snapshots > asked || std::chrono::steady_clock::now() > until; });
  }
  BusClient other(bus->address());
  open(other, "d", 2);
  ASSERT_TRUE(waitForSnapshot(other, 2)) << "its share is its own";
  EXPECT_LE(static_cast<long>(client->stream(1).snapshots), 6 + seconds());  // 8 MiB at once, and one a second
}

TEST_F(ExtensionSnapshots, AClientWithManyFoldersIsSentNoMoreThanItsShare) {
  constexpr int FOLDERS = 12;
  const std::string prefix(1'000, 'n');
  std::vector<std::pair<std::string, int>> rows;
  for (int folder = 0; folder < FOLDERS; ++folder) {
    std::filesystem::create_directories(root + "/" + std::to_string(folder));
    for (int i = 0; i < 2'000; ++i)  // 2 MB
      rows.emplace_back("/" + std::to_string(folder) + "/" + prefix + std::to_string(i), 2);
  }
  makeDatabase(rows);
  startConfigured();
  process();
  const auto begin = std::chrono::steady_clock::now();
  const auto seconds = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(); };
  for (int folder = 0; folder < FOLDERS; ++folder) open(std::to_string(folder), static_cast<guint64>(folder));
  const auto sent = [&] {
    int count = 0;
    for (int folder = 0; folder < FOLDERS; ++folder)
      count += static_cast<int>(client->stream(static_cast<guint64>(folder)).snapshots);
    return count;
  };
  ASSERT_TRUE(client->waitUntil([&] { return sent() >= 4; }));
  open("d", FOLDERS);
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  ASSERT_TRUE(client->waitUntil([&] { return sent() == FOLDERS || std::chrono::steady_clock::now() > until; }));
  EXPECT_LE(sent(), 6 + seconds() / 2);
}

// --- Faults ---------------------------------------------------------------------------------------------------------

TEST_F(ExtensionSnapshots, AFolderThatTheSyncApplicationDoesNotHaveIsSentFromTheDatabase) {
  makeDatabase({{"/d/x", 2}});
  SyncApplication application;
  application.setAnswer("/d/", [](const WireRequest&) { return WireReply{.status = 404}; });
  startConfigured();
  open("d", 1);
  ASSERT_TRUE(waitForLog("does not exist (404), ignoring subscription"));
  ASSERT_TRUE(waitForSnapshot(1));
  EXPECT_EQ(client->stream(1).badges, (Badges{{"x", "SYNCED"}}));
}

TEST_F(ExtensionSnapshots, ADatabaseThatIsReplacedOrRemovedIsReadAsItIs) {
  makeDatabase({{"/d/x", 2}});
  startConfigured();
  open("d", 1);
  ASSERT_TRUE(waitForSnapshot(1));
  EXPECT_EQ(client->stream(1).badges, (Badges{{"x", "SYNCED"}}));
  std::filesystem::remove(database());
  makeDatabase({{"/d/y", 1}});
  ASSERT_TRUE(client->requestSnapshot(url("d"), 2));
  ASSERT_TRUE(waitForSnapshot(2));
  EXPECT_EQ(client->stream(2).badges, (Badges{{"y", "PENDING"}}));
  std::filesystem::remove(database());
  ASSERT_TRUE(client->requestSnapshot(url("d"), 3));
  ASSERT_TRUE(waitForSnapshot(3));
  EXPECT_THAT(client->stream(3).badges, IsEmpty());
}

TEST_F(ExtensionSnapshots, AFolderThatIsBegunAnewIsSentInItsNewStream) {
  makeDatabase({{"/d/x", 2}});
  startConfigured();
  open("d", 1);
  ASSERT_TRUE(client->endObserving(url("d")));
  open("d", 2);
  ASSERT_TRUE(waitForSnapshot(2));
  EXPECT_EQ(client->stream(2).badges, (Badges{{"x", "SYNCED"}}));
  EXPECT_THAT(client->stream(1).messages, IsEmpty());
}

}  // namespace
}  // namespace vornet::test
