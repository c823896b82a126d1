#include "BadgeChanges.hpp"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <atomic>
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

FileURL url(const std::string& path) {
  return FileURL::fileURLWithPath(path);
}

/// A connection that sends, and a client that listens.
class BadgeChangesTest : public testing::Test {
 protected:
  BadgeChangesTest() {
    platform::FIFinderSyncController::defaultController().setDirectoryURLs({FileURL::fileURLWithPath("/R")});
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

/// A connection whose other end reads nothing until told to.
class SlowPeer {
 public:
  SlowPeer() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return;
    near_ = connectionOver(ends[0]);
    farEnd_ = ends[1];
  }
  ~SlowPeer() {
    for (auto* one : {&near_, &far_}) {
      if (*one) g_dbus_connection_close_sync(one->get(), nullptr, nullptr);
      one->reset();
    }
    const std::lock_guard afterTheLastMessage(lock_);  // the thread sanitizer does not see that GLib's thread is done
  }
  SlowPeer(const SlowPeer&) = delete;
  SlowPeer& operator=(const SlowPeer&) = delete;

  GDBusConnection* connection() const { return near_.get(); }

  void beginReading() {
    const auto note = +[](GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer self) {
      passHandOver();
      if (incoming) static_cast<SlowPeer*>(self)->take(g_dbus_message_get_body(message));
      return message;
    };
    passHandOver();
    far_ = connectionOver(farEnd_, note);
  }

  /// Waits until `isTrue` holds for the last badges of the items.
  bool waitUntil(const std::function<bool(const std::map<std::string, std::string>&)>& isTrue) {
    return test::becomesTrue([&] {
      const std::lock_guard guard(lock_);
      return isTrue(badges_);
    });
  }

 private:
  GObjectPtr<GDBusConnection> connectionOver(int end, GDBusMessageFilterFunction filter = nullptr) {
    const GObjectPtr<GSocket> socket(g_socket_new_from_fd(end, nullptr));
    const GObjectPtr<GSocketConnection> stream(g_socket_connection_factory_create_connection(socket.get()));
    const auto flags = filter ? G_DBUS_CONNECTION_FLAGS_DELAY_MESSAGE_PROCESSING : G_DBUS_CONNECTION_FLAGS_NONE;
    GObjectPtr<GDBusConnection> connection(
        g_dbus_connection_new_sync(G_IO_STREAM(stream.get()), nullptr, flags, nullptr, nullptr, nullptr));
    if (filter) {
      g_dbus_connection_add_filter(connection.get(), filter, this, nullptr);
      g_dbus_connection_start_message_processing(connection.get());
    }
    return connection;
  }

  /// GLib hands this object to its thread, but it is not instrumented: the thread sanitizer sees no order.
  static void passHandOver() {
    static std::mutex lock;
    const std::lock_guard guard(lock);
  }

  void take(GVariant* body) {
    const std::lock_guard guard(lock_);
    if (!g_variant_is_of_type(body, G_VARIANT_TYPE("(a(ss))"))) return;
    GVariantIter* changes = nullptr;
    g_variant_get(body, "(a(ss))", &changes);
    const gchar *url = nullptr, *identifier = nullptr;
    while (g_variant_iter_next(changes, "(&s&s)", &url, &identifier)) badges_[url] = identifier;
    g_variant_iter_free(changes);
  }

  std::mutex lock_;
  std::map<std::string, std::string> badges_;
  int farEnd_ = -1;
  GObjectPtr<GDBusConnection> near_;
  GObjectPtr<GDBusConnection> far_;
};

TEST_F(BadgeChangesTest, WaitForABusThatDoesNotReadAndLoseNothing) {
  SlowPeer peer;
  BadgeChanges sent(peer.connection(), observations, pool);
  constexpr int COUNT = 300'000;
  int added = 0;
  const auto addUntilFull = [&] {
    while (added < COUNT && sent.add(url("/R/" + std::to_string(added)), "PENDING")) ++added;
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
  sent.add(url("/R/0"), "SYNCED");
  peer.beginReading();
  EXPECT_TRUE(peer.waitUntil([&](const auto& badges) {
    return badges.size() == static_cast<std::size_t>(added) && badges.at("file:///R/0") == "SYNCED";
  }));
  EXPECT_TRUE(sent.add(url("/R/0"), "SKIPPED"));
  EXPECT_TRUE(peer.waitUntil([](const auto& badges) { return badges.at("file:///R/0") == "SKIPPED"; }));
  sent.stop();
  endThreads();
}

TEST_F(BadgeChangesTest, SayWhenTheConnectionHasRoomAgain) {
  SlowPeer peer;
  BadgeChanges sent(peer.connection(), observations, pool);
  std::atomic<int> heard = 0;
  sent.whenRoom([&] { ++heard; });
  FolderBadges badges;
  for (int i = 0; i < 5'000; ++i) badges.add("an item with a name of some length " + std::to_string(i), "");
  for (int messages = 0; sent.hasRoom(); ++messages) {
    ASSERT_LT(messages, 100);
    const std::lock_guard answering(sent.emission());
    sent.sendNow(":1.1", 1, badges, true);
  }
  const int before = heard;
  EXPECT_FALSE(sent.hasRoom());
  peer.beginReading();
  EXPECT_TRUE(test::becomesTrue([&] { return sent.hasRoom() && heard > before; }));
  sent.stop();
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
