// The service in the test's own process, where a test can hold it at any point between a question and its answer.
#include "FinderSyncService.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <optional>
#include <thread>

#include "base/AppConst.hpp"
#include "extension/SharedObjects.hpp"
#include "platform/linux/FinderSyncHost.hpp"
#include "rest/RESTPollingManager.hpp"
#include "support/BusClient.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LoopbackServer.hpp"
#include "support/PrivateBus.hpp"
#include "support/Threads.hpp"

namespace vornet::service {
namespace {

using platform::FIFinderSyncController;
using platform::FileURL;
using test::BusClient;
using test::BusReply;
using testing::ElementsAre;

namespace fs = std::filesystem;

/// The extension, with what it does when it is asked for a badge in the hands of a test.
class HeldExtension : public FinderSync {
 public:
  using Asked = std::function<void(const FileURL& item)>;

  /// Set before the service is asked for the first time.
  Asked asked;

  void requestBadgeIdentifierForURL(const FileURL& url) override {
    asked ? asked(url) : FinderSync::requestBadgeIdentifierForURL(url);
  }
  void reallyAsk(const FileURL& url) { FinderSync::requestBadgeIdentifierForURL(url); }
};

/// A service that owns the extension's name on a bus, on a thread with the main context.
class ServiceThread {
 public:
  ServiceThread(FinderSync& extension, const std::string& address)
      : thread_([this, &extension, address] { run(extension, address); }) {
    serving_.pass();
  }
  ~ServiceThread() {
    g_main_loop_quit(loop_);
    thread_.join();
    g_main_loop_unref(loop_);
  }
  ServiceThread(const ServiceThread&) = delete;
  ServiceThread& operator=(const ServiceThread&) = delete;

 private:
  void run(FinderSync& extension, const std::string& address) {
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    {
      FinderSyncService service(extension, connection);
      std::string error;
      EXPECT_TRUE(service.start(error)) << error;
      const auto acquired =
          +[](GDBusConnection*, const gchar*, gpointer self) { static_cast<ServiceThread*>(self)->serving_.open(); };
      const guint name = g_bus_own_name_on_connection(connection, App().APP_CODENAME.c_str(),
                                                      G_BUS_NAME_OWNER_FLAGS_NONE, acquired, nullptr, this, nullptr);
      g_main_loop_run(loop_);
      g_bus_unown_name(name);
      service.stop();
    }
    g_dbus_connection_close_sync(connection, nullptr, nullptr);
    g_object_unref(connection);
  }

  GMainLoop* loop_ = g_main_loop_new(nullptr, FALSE);
  test::Gate serving_;
  std::thread thread_;
};

class FinderSyncServiceTest : public testing::Test {
 protected:
  FinderSyncServiceTest() {
    fs::create_directories(root + "/d");
    fs::create_directories(environment.folder() / "no services");
    test::writePreferences(environment.container() / "VornetKelvane.plist", root);
  }
  ~FinderSyncServiceTest() override {
    client.reset();
    service.reset();
    if (statusManager()) statusManager()->stop_listener();
    statusManager().reset();
  }

  void start() {
    bus.emplace(environment.folder().path() / "bus", environment.folder() / "no services");
    ASSERT_TRUE(extension.init());
    service.emplace(extension, bus->address());
    client.emplace(bus->address());
  }

  std::string url(const std::string& name) const { return "file://" + root + (name.empty() ? "" : "/" + name); }
  FileURL item(const std::string& name) const { return FileURL::fileURLWithPath(root + "/" + name); }
  static void set(const std::string& identifier, const FileURL& url) {
    FIFinderSyncController::defaultController().setBadgeIdentifier(identifier, url);
  }

  // For the extension and the server, which go on after a test's own variables are gone.
  test::Gate gate;
  std::atomic<int> questions = 0;
  std::atomic<bool> first = true;
  std::atomic<bool> filled = false;
  test::Environment environment;
  const std::string root = environment.folder() / "root";
  HeldExtension extension;
  std::optional<test::PrivateBus> bus;
  std::optional<ServiceThread> service;
  std::optional<BusClient> client;
};

/// As many items of a folder on screen as are remembered: nothing is of any other.
class ManyItems {
 public:
  explicit ManyItems(std::string folder) : folder_(std::move(folder)) {
    platform::host::folderShown(folder_);
    for (std::size_t i = 0; i < platform::host::MAX_ITEMS_ASKED_FOR; ++i) {
      const auto asked = FileURL::fileURLWithPath(folder_ + "/asked" + std::to_string(i));
      platform::host::BadgeRequest(asked).apply();
    }
    for (std::size_t i = 0; i < platform::host::MAX_ITEMS_ONLY_SET; ++i) {
      const auto item = FileURL::fileURLWithPath(folder_ + "/set" + std::to_string(i));
      FIFinderSyncController::defaultController().setBadgeIdentifier("SYNCED", item);
    }
  }
  ~ManyItems() { platform::host::folderHidden(folder_); }
  ManyItems(const ManyItems&) = delete;
  ManyItems& operator=(const ManyItems&) = delete;

 private:
  const std::string folder_;
};

TEST_F(FinderSyncServiceTest, AnAnswerHoldsTheBadgesThatStandWhenItIsGiven) {
  extension.asked = [this](const FileURL& asked) {
    if (asked == item("x")) set("PENDING", asked);
    if (asked == item("y")) extension.setFileSyncStatus(item("x"), 2);  // x changes while y is looked up
  };
  start();
  ASSERT_TRUE(client->beginObserving(url("")));
  EXPECT_THAT(client->requestBadges({url("x"), url("y")}).texts(), ElementsAre("SYNCED", ""));
}

TEST_F(FinderSyncServiceTest, ABadgeThatChangesWhileItIsAskedForIsNotReplacedByTheOlderOne) {
  extension.asked = [&](const FileURL& asked) {
    if (++questions == 1) {
      std::thread([&] { extension.setFileSyncStatus(asked, 2); }).join();
      set("PENDING", asked);  // found before the change
    } else {
      set("SYNCED", asked);
    }
  };
  start();
  ASSERT_TRUE(client->beginObserving(url("")));
  EXPECT_THAT(client->requestBadges({url("x")}).texts(), ElementsAre("SYNCED"));
  EXPECT_EQ(questions, 2);
  ASSERT_TRUE(client->waitForChange(url("x"), "SYNCED"));
  EXPECT_EQ(client->signals(), 1u);
}

TEST_F(FinderSyncServiceTest, ABadgeThatChangesWhileItIsAskedForIsTheNewOneThoughItCannotBeRemembered) {
  namespace host = platform::host;
  const ManyItems others("/elsewhere");
  extension.asked = [this](const FileURL& asked) {
    if (asked == item("x")) set(++questions == 1 ? "PENDING" : "SYNCED", asked);
    if (asked == item("y")) extension.setFileSyncStatus(item("x"), 2);  // x changes while y is looked up
  };
  start();
  statusManager()->dirCache().enterNewDir("/");
  statusManager()->dirCache().update("/", {{"/x", 2}, {"/y", 2}});
  ASSERT_TRUE(client->beginObserving(url("")));
  BusClient other(bus->address());
  ASSERT_TRUE(other.beginObserving(url("")));
  ASSERT_TRUE(host::isOverlooked(item("x")));
  EXPECT_THAT(client->requestBadges({url("x"), url("y")}).texts(), ElementsAre("SYNCED", ""));
  ASSERT_TRUE(host::isOverlooked(item("x")));
  EXPECT_TRUE(other.waitForChange(url("x"), "SYNCED"));
}

TEST_F(FinderSyncServiceTest, NoOlderBadgeFollowsAnAnswerThoughTheItemCannotBeRemembered) {
  const ManyItems others("/elsewhere");
  std::atomic<int> questionsForA = 0;
  extension.asked = [&](const FileURL& asked) {
    if (asked == item("x")) return set("SYNCED", asked);
    if (++questionsForA != 2) return;
    set("PENDING", item("x"));                                    // while the answer is put together
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // a signal that does not wait for it would go now
  };
  start();
  statusManager()->dirCache().enterNewDir("/");
  statusManager()->dirCache().update("/", {{"/a", 2}, {"/x", 2}});
  ASSERT_TRUE(client->beginObserving(url("")));
  EXPECT_THAT(client->requestBadges({url("a"), url("x")}).texts(), ElementsAre("", "SYNCED"));
  EXPECT_EQ(questionsForA, 2);
  EXPECT_TRUE(client->waitForChange(url("x"), "SYNCED"));
  EXPECT_EQ(client->signals(), 1u);
}

TEST_F(FinderSyncServiceTest, WhoSetsMoreBadgesThanMayWaitGoesOnAndNoneIsLost) {
  constexpr int COUNT = 2'000;
  const std::string longName(3'000, 'n');
  start();
  ASSERT_TRUE(client->beginObserving(url("")));
  std::atomic<int> count = 0;
  std::thread setter([&] {
    for (; count < COUNT; ++count) extension.setFileSyncStatus(item(longName + std::to_string(count)), 2);
  });
  EXPECT_TRUE(client->waitUntil([&] { return count == COUNT; }));
  EXPECT_TRUE(client->waitUntil([&] { return client->changes().size() == COUNT; })) << client->changes().size();
  service.reset();  // whoever still waits goes on
  setter.join();
}

TEST_F(FinderSyncServiceTest, ABadgeFoundInTheDatabaseBeforeTheFolderWasFilledIsCorrected) {
  test::makeSyncDatabase(environment.container() / "sync.db", {{"/x", 1}});
  test::LoopbackServer application([this](const test::WireRequest&) {
    gate.passInTime();
    return test::WireReply{.body = R"({"/x":2})"};
  });
  extension.asked = [&](const FileURL& asked) {
    extension.reallyAsk(asked);
    if (!first.exchange(false)) return;
    gate.open();
    const auto until = std::chrono::steady_clock::now() + test::PATIENCE;
    while (!statusManager()->isCached(asked) && std::chrono::steady_clock::now() < until) std::this_thread::yield();
  };
  start();
  ASSERT_TRUE(client->beginObserving(url("")));
  const auto answer = client->requestBadges({url("x")}).texts();
  EXPECT_TRUE(answer == std::vector<std::string>{"SYNCED"} || client->waitForChange(url("x"), "SYNCED"))
      << testing::PrintToString(answer);
  EXPECT_TRUE(statusManager()->isCached(item("x")));
  EXPECT_THAT(client->requestBadges({url("x")}).texts(), ElementsAre("SYNCED"));
}

TEST_F(FinderSyncServiceTest, WhatTheCacheKnowsDoesNotWaitForLookUps) {
  extension.asked = [&](const FileURL& asked) {
    if (asked != item("x")) gate.passInTime();
    extension.reallyAsk(asked);
  };
  start();
  statusManager()->dirCache().enterNewDir("/");
  statusManager()->dirCache().update("/", {{"/x", 2}});
  int lookedUp = 0;
  for (int i = 0; i < 8; ++i) {  // more than there are threads
    client->call("RequestBadges", BusClient::urlArguments({url("x"), url("d/y")}),
                 [&lookedUp](const BusReply&) { ++lookedUp; });
  }
  EXPECT_THAT(client->requestBadges({url("x"), "file:///etc"}).texts(), ElementsAre("SYNCED", ""));
  EXPECT_EQ(lookedUp, 0);
  gate.open();
  EXPECT_TRUE(client->waitUntil([&] { return lookedUp == 8; }));
}

TEST_F(FinderSyncServiceTest, AFilledFolderIsCorrectedHoweverManyCallsWait) {
  constexpr int CALLS = 2'000;
  extension.asked = [&](const FileURL& asked) {
    if (asked == item("x")) return set(filled ? "SYNCED" : "PENDING", asked);
    gate.passInTime();
  };
  start();
  ASSERT_TRUE(client->beginObserving(url("")));
  ASSERT_THAT(client->requestBadges({url("x")}).texts(), ElementsAre("PENDING"));
  int answered = 0;
  BusClient pressing(bus->address());
  for (int i = 0; i < CALLS; ++i) {
    pressing.call("RequestBadges", BusClient::urlArguments({url("d/x")}),
                  [&](const BusReply& reply) { answered += reply ? 1 : 0; });
  }
  pressing.property("Version");  // all of them have arrived
  filled = true;
  extension.folderFilled(FileURL::fileURLWithPath(root), true);
  gate.open();
  EXPECT_TRUE(client->waitForChange(url("x"), "SYNCED"));
  EXPECT_TRUE(pressing.waitUntil([&] { return answered == CALLS; }));
}

}  // namespace
}  // namespace vornet::service
