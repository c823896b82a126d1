// The service's end, in the test's own process.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "FinderSyncService.hpp"
#include "extension/SharedObjects.hpp"
#include "platform/FinderSync.hpp"
#include "rest/RESTPollingManager.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/PrivateBus.hpp"

namespace vornet::service {
namespace {

using platform::FIFinderSyncController;
using platform::FileURL;

TEST(ServiceStop, NothingOfItIsLeftInTheMainContext) {
  const test::Environment environment;
  const std::string root = environment.folder() / "root";
  std::filesystem::create_directories(root);
  test::writePreferences(environment.container() / "VornetKelvane.plist", root);
  test::PrivateBus bus(environment.folder().path() / "bus");
  GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
      bus.address().c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
  ASSERT_TRUE(connection);
  FinderSync extension;
  ASSERT_TRUE(extension.init());

  auto service = std::make_unique<FinderSyncService>(extension, connection);
  std::string error;
  ASSERT_TRUE(service->start(error)) << error;
  auto& controller = FIFinderSyncController::defaultController();
  for (int i = 0; i < 3; ++i) controller.setDirectoryURLs({FileURL::fileURLWithPath(root + "/" + std::to_string(i))});
  gpointer address = service.get();
  EXPECT_TRUE(g_main_context_find_source_by_user_data(nullptr, address)) << "the change is to be published";
  service->stop();
  EXPECT_FALSE(g_main_context_find_source_by_user_data(nullptr, address)) << "it would use what is gone";

  service.reset();
  statusManager()->stop_listener();
  g_dbus_connection_close_sync(connection, nullptr, nullptr);
  g_object_unref(connection);
}

}  // namespace
}  // namespace vornet::service
