#include "BadgeChanges.hpp"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <chrono>
#include <thread>

#include "platform/FinderSync.hpp"
#include "support/BusClient.hpp"
#include "support/PrivateBus.hpp"
#include "support/TemporaryFolder.hpp"
#include "support/Threads.hpp"

namespace vornet::service {
namespace {

using platform::FileURL;

/// A connection that sends, and a client that listens.
class BadgeChangesTest : public testing::Test {
 protected:
  BadgeChangesTest() {
    platform::FIFinderSyncController::defaultController().setDirectoryURLs({FileURL::fileURLWithPath("/R")});
    connection = g_dbus_connection_new_for_address_sync(
        bus.address().c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    observations.begin(client.name(), "/R");
  }
  ~BadgeChangesTest() override {
    g_dbus_connection_close_sync(connection, nullptr, nullptr);
    g_object_unref(connection);
  }

  const test::TemporaryFolder folder;
  test::PrivateBus bus{folder / "bus"};
  test::BusClient client{bus.address()};
  GDBusConnection* connection = nullptr;
  ObservationRegistry observations{50};
  WorkPool pool{2};
};

TEST_F(BadgeChangesTest, SendNothingWhileAnAnswerIsBeingGiven) {
  BadgeChanges changes(connection, observations, pool);
  BadgeChanges control(connection, observations, pool);  // shows that the others' time has come
  {
    const std::lock_guard answering(changes.emission());
    changes.add(FileURL::fileURLWithPath("/R/x"), "SYNCED");
    for (const char* item : {"/R/1", "/R/2", "/R/3", "/R/4", "/R/5"}) {
      control.add(FileURL::fileURLWithPath(item), "SYNCED");
      ASSERT_TRUE(client.waitForChange(std::string("file://") + item, "SYNCED"));
    }
    EXPECT_EQ(client.changes().count("file:///R/x"), 0u);
    changes.add(FileURL::fileURLWithPath("/R/x"), "PENDING");
  }
  EXPECT_TRUE(client.waitForChange("file:///R/x", "PENDING"));
  changes.stop();
  control.stop();
  pool.join();
}

/// A connection whose other end reads nothing before it is told to.
class SlowPeer {
 public:
  SlowPeer() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return;
    near_ = connectionOver(ends[0]);
    farEnd_ = ends[1];
  }
  ~SlowPeer() {
    for (auto* one : {near_, far_}) {
      if (!one) continue;
      g_dbus_connection_close_sync(one, nullptr, nullptr);
      g_object_unref(one);
    }
  }
  SlowPeer(const SlowPeer&) = delete;
  SlowPeer& operator=(const SlowPeer&) = delete;

  GDBusConnection* connection() const { return near_; }

  void beginReading() {
    const auto note = +[](GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer self) {
      passHandOver();
      if (incoming) static_cast<SlowPeer*>(self)->take(g_dbus_message_get_body(message));
      return message;
    };
    passHandOver();
    far_ = connectionOver(farEnd_, note);
  }

  /// Waits for what is true of the last badge of each item.
  bool waitUntil(const std::function<bool(const std::map<std::string, std::string>&)>& isTrue) {
    const auto end = std::chrono::steady_clock::now() + test::PATIENCE;
    while (std::chrono::steady_clock::now() < end) {
      {
        const std::lock_guard guard(lock_);
        if (isTrue(badges_)) return true;
      }
      std::this_thread::yield();
    }
    return false;
  }

 private:
  GDBusConnection* connectionOver(int end, GDBusMessageFilterFunction filter = nullptr) {
    GSocket* socket = g_socket_new_from_fd(end, nullptr);
    GSocketConnection* stream = g_socket_connection_factory_create_connection(socket);
    const auto flags = filter ? G_DBUS_CONNECTION_FLAGS_DELAY_MESSAGE_PROCESSING : G_DBUS_CONNECTION_FLAGS_NONE;
    auto* connection = g_dbus_connection_new_sync(G_IO_STREAM(stream), nullptr, flags, nullptr, nullptr, nullptr);
    if (filter) {
      g_dbus_connection_add_filter(connection, filter, this, nullptr);
      g_dbus_connection_start_message_processing(connection);
    }
    g_object_unref(stream);
    g_object_unref(socket);
    return connection;
  }

  /// GLib hands this object to its thread, but it is not instrumented: the thread sanitizer sees no order.
  static void passHandOver() {
    static std::mutex lock;
    const std::lock_guard guard(lock);
  }

  void take(GVariant* body) {
    const std::lock_guard guard(lock_);
    GVariantIter* changes = nullptr;
    g_variant_get(body, "(a(ss))", &changes);
    const gchar *url = nullptr, *identifier = nullptr;
    while (g_variant_iter_next(changes, "(&s&s)", &url, &identifier)) badges_[url] = identifier;
    g_variant_iter_free(changes);
  }

  std::mutex lock_;
  std::map<std::string, std::string> badges_;
  int farEnd_ = -1;
  GDBusConnection* near_ = nullptr;
  GDBusConnection* far_ = nullptr;
};

TEST_F(BadgeChangesTest, WaitForABusThatDoesNotReadAndLoseNothing) {
  SlowPeer peer;
  BadgeChanges changes(peer.connection(), observations, pool);
  constexpr int COUNT = 300'000;
  int added = 0;
  const auto addUntilFull = [&] {
    while (added < COUNT && changes.add(FileURL::fileURLWithPath("/R/" + std::to_string(added)), "PENDING")) ++added;
    ++added;  // the one that filled it was taken as well
  };
  // Each time the connection has taken what it takes, there is room again; but it takes no more than a bounded amount.
  for (int idle = 0; idle < 10 && added < COUNT;) {
    const int before = added;
    addUntilFull();
    idle = added == before + 1 ? idle + 1 : 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_LT(added, COUNT / 2);
  changes.add(FileURL::fileURLWithPath("/R/0"), "SYNCED");
  peer.beginReading();
  EXPECT_TRUE(peer.waitUntil([&](const auto& badges) {
    return badges.size() == static_cast<std::size_t>(added) && badges.at("file:///R/0") == "SYNCED";
  }));
  EXPECT_TRUE(changes.add(FileURL::fileURLWithPath("/R/0"), "SKIPPED"));
  EXPECT_TRUE(peer.waitUntil([](const auto& badges) { return badges.at("file:///R/0") == "SKIPPED"; }));
  changes.stop();
  pool.join();
}

TEST_F(BadgeChangesTest, MakeAWaitingChangeWhatSomebodyWasAnswered) {
  BadgeChanges changes(connection, observations, pool);
  {
    const std::lock_guard answering(changes.emission());
    changes.add(FileURL::fileURLWithPath("/R/x"), "PENDING");
    changes.add(FileURL::fileURLWithPath("/R/y"), "PENDING");
    changes.amend(FileURL::fileURLWithPath("/R/x"), "SYNCED");
    changes.amend(FileURL::fileURLWithPath("/R/z"), "SYNCED");
  }
  EXPECT_TRUE(client.waitForChange("file:///R/y", "PENDING"));
  EXPECT_THAT(client.changes(),
              testing::ElementsAre(testing::Pair("file:///R/x", "SYNCED"), testing::Pair("file:///R/y", "PENDING")));
  changes.stop();
  pool.join();
}

TEST_F(BadgeChangesTest, SendNothingOfItemsThatCarryNoBadge) {
  BadgeChanges changes(connection, observations, pool);
  changes.add(FileURL::fileURLWithPath("/R/R"), "SYNCED");
  changes.add(FileURL::fileURLWithPath("/R/x"), "SYNCED");
  EXPECT_TRUE(client.waitForChange("file:///R/x", "SYNCED"));
  EXPECT_EQ(client.changes().size(), 1u);
  changes.stop();
  pool.join();
}

TEST_F(BadgeChangesTest, SendToOneClientAtOnce) {
  BadgeChanges changes(connection, observations, pool);
  {
    const std::lock_guard answering(changes.emission());
    changes.sendNow(client.name(), {{"file:///elsewhere/x", "SYNCED"}, {"file:///R/y", ""}});
    EXPECT_TRUE(client.waitForChange("file:///elsewhere/x", "SYNCED"));
    EXPECT_TRUE(client.waitForChange("file:///R/y", ""));
  }
  EXPECT_EQ(client.signals(), 1u);
  changes.stop();
  pool.join();
}

}  // namespace
}  // namespace vornet::service
