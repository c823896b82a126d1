#include "BadgeChanges.hpp"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <thread>

#include "platform/FinderSync.hpp"
#include "support/BusClient.hpp"
#include "support/PrivateBus.hpp"
#include "support/TemporaryFolder.hpp"

namespace vornet::service {
namespace {

using platform::FileURL;

FileURL url(const std::string& path) {
  return FileURL::fileURLWithPath(path);
}

/// A connection that sends, and a client that listens.
class BadgeChangesTest : public testing::Test {
 protected:
  BadgeChangesTest() {
    platform::FIFinderSyncController::defaultController().setDirectoryURLs({url("/R")});
    observations.begin(client.name(), "/R");
  }
  ~BadgeChangesTest() override {
    changes.stop();
    endThreads();
    g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
  }

  void endThreads() {
    pool.stop();
    threads.stop();
  }

  const test::TemporaryFolder folder;
  test::PrivateBus bus{folder / "bus"};
  test::BusClient client{bus.address()};
  const GObjectPtr<GDBusConnection> connection = test::connectToBus(bus.address());
  ObservationRegistry observations{50};
  SharedThreads threads;
  WorkPool pool{threads, 2};
  BadgeChanges changes{connection.get(), observations, pool};
};

TEST_F(BadgeChangesTest, SendNothingWhileAnAnswerIsBeingGiven) {
  BadgeChanges control(connection.get(), observations, pool);  // its signal shows that the others are overdue
  {
    const std::lock_guard answering(changes.emission());
    changes.add(url("/R/x"), "SYNCED");
    for (const char* item : {"/R/1", "/R/2", "/R/3", "/R/4", "/R/5"}) {
      control.add(url(item), "SYNCED");
      ASSERT_TRUE(client.waitForChange(std::string("file://") + item, "SYNCED"));
    }
    EXPECT_EQ(client.changes().count("file:///R/x"), 0u);
    changes.add(url("/R/x"), "PENDING");
  }
  EXPECT_TRUE(client.waitForChange("file:///R/x", "PENDING"));
  control.stop();
  endThreads();
}

TEST_F(BadgeChangesTest, AmendNoNewerChange) {
  {
    const std::lock_guard answering(changes.emission());
    for (const char* item : {"/R/same", "/R/set", "/R/amended"}) changes.add(url(item), "SKIPPED");
    const auto waiting = changes.waitingIn("/R");
    ASSERT_EQ(waiting.size(), 3u);
    changes.add(url("/R/set"), "SKIPPED");
    changes.amend(url("/R/amended"), "SKIPPED");
    for (const auto& [name, number] : waiting) changes.amend(url("/R/" + name), "SYNCED", number);
    EXPECT_TRUE(changes.waitingIn("/").empty());
  }
  EXPECT_TRUE(client.waitForChange("file:///R/same", "SYNCED"));
  EXPECT_TRUE(client.waitForChange("file:///R/set", "SKIPPED"));
  EXPECT_TRUE(client.waitForChange("file:///R/amended", "SKIPPED"));
}

/// Changes that are sent over a connection whose other end reads nothing until told to.
class BadgeChangesToASlowPeer : public BadgeChangesTest {
 protected:
  BadgeChangesToASlowPeer() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throw std::runtime_error("no sockets");
    near = connectionOver(ends[0], G_DBUS_CONNECTION_FLAGS_NONE);
    farEnd = ends[1];
    sent.emplace(near.get(), observations, pool);
  }
  ~BadgeChangesToASlowPeer() override {
    sent->stop();
    endThreads();
    g_dbus_connection_close_sync(near.get(), nullptr, nullptr);
  }

  void beginReading() {
    peer.emplace([this] { return connectionOver(farEnd, G_DBUS_CONNECTION_FLAGS_DELAY_MESSAGE_PROCESSING); });
  }

  static GObjectPtr<GDBusConnection> connectionOver(int end, GDBusConnectionFlags flags) {
    const GObjectPtr<GSocket> socket(g_socket_new_from_fd(end, nullptr));
    const GObjectPtr<GSocketConnection> stream(g_socket_connection_factory_create_connection(socket.get()));
    return GObjectPtr<GDBusConnection>(
        g_dbus_connection_new_sync(G_IO_STREAM(stream.get()), nullptr, flags, nullptr, nullptr, nullptr));
  }

  GObjectPtr<GDBusConnection> near;
  int farEnd = -1;
  std::optional<BadgeChanges> sent;
  std::optional<test::BusClient> peer;
};

TEST_F(BadgeChangesToASlowPeer, WaitUntilItReadsAndLoseNothing) {
  constexpr int COUNT = 300'000;
  int added = 0;
  const auto addUntilFull = [&] {
    while (added < COUNT && sent->add(url("/R/" + std::to_string(added)), "PENDING")) ++added;
    ++added;  // the one that filled it was taken as well
  };
  // Whenever the connection has taken its share, there is room again; but that share is bounded.
  for (int idle = 0; idle < 10 && added < COUNT;) {
    const int before = added;
    addUntilFull();
    idle = added == before + 1 ? idle + 1 : 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_LT(added, COUNT / 2);
  sent->add(url("/R/0"), "SYNCED");
  beginReading();
  EXPECT_TRUE(peer->waitUntil([&] { return peer->changes().size() == static_cast<std::size_t>(added); }));
  EXPECT_TRUE(peer->waitForChange("file:///R/0", "SYNCED"));
  EXPECT_TRUE(sent->add(url("/R/0"), "SKIPPED"));
  EXPECT_TRUE(peer->waitForChange("file:///R/0", "SKIPPED"));
}

TEST_F(BadgeChangesToASlowPeer, SayWhenTheConnectionHasRoomAgain) {
  std::atomic<int> heard = 0;
  sent->whenRoom([&] { ++heard; });
  FolderBadges badges;
  for (int i = 0; i < 5'000; ++i) badges.add("an item with a name of some length " + std::to_string(i), "");
  for (int messages = 0; sent->hasRoom(); ++messages) {
    ASSERT_LT(messages, 100);
    const std::lock_guard answering(sent->emission());
    sent->sendNow(":1.1", 1, badges, true);
  }
  const int before = heard;
  EXPECT_FALSE(sent->hasRoom());
  beginReading();
  EXPECT_TRUE(peer->waitUntil([&] { return sent->hasRoom() && heard > before; }));
  sent->stop();  // its callback changes a local variable of this test
}

TEST_F(BadgeChangesTest, ReplaceAWaitingChangeByALaterAnswer) {
  {
    const std::lock_guard answering(changes.emission());
    changes.add(url("/R/x"), "PENDING");
    changes.add(url("/R/y"), "PENDING");
    changes.amend(url("/R/x"), "SYNCED");
    changes.amend(url("/R/z"), "SYNCED");
  }
  EXPECT_TRUE(client.waitForChange("file:///R/y", "PENDING"));
  EXPECT_THAT(client.changes(),
              testing::ElementsAre(testing::Pair("file:///R/x", "SYNCED"), testing::Pair("file:///R/y", "PENDING")));
}

TEST_F(BadgeChangesTest, SendNothingOfItemsThatCarryNoBadge) {
  changes.add(url("/R/R"), "SYNCED");
  changes.add(url("/R/x"), "SYNCED");
  EXPECT_TRUE(client.waitForChange("file:///R/x", "SYNCED"));
  EXPECT_EQ(client.changes().size(), 1u);
}

TEST_F(BadgeChangesTest, SendToOneClientAtOnce) {
  {
    const std::lock_guard answering(changes.emission());
    changes.sendNow(client.name(), {{"file:///elsewhere/x", "SYNCED"}, {"file:///R/y", ""}});
    EXPECT_TRUE(client.waitForChange("file:///elsewhere/x", "SYNCED"));
    EXPECT_TRUE(client.waitForChange("file:///R/y", ""));
  }
  EXPECT_EQ(client.signals(), 1u);
}

}  // namespace
}  // namespace vornet::service
