#include "BadgeChanges.hpp"

#include <gmock/gmock.h>

#include "platform/FinderSync.hpp"
#include "support/BusClient.hpp"
#include "support/PrivateBus.hpp"
#include "support/TemporaryFolder.hpp"

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
