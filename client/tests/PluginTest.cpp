#include "PluginTest.hpp"

#include <filesystem>

#include "support/BusClient.hpp"

namespace vornet::test {

int PluginTest::logLines = 0;

namespace {

std::filesystem::path made(const std::string& folder) {
  std::filesystem::create_directories(folder);
  return folder;
}

}  // namespace

PluginTest::PluginTest()
    : bus(environment.folder().path() / "bus", made(services)), address("DBUS_SESSION_BUS_ADDRESS", bus.address()) {
  logLines = 0;
  const auto count = +[](const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer) {
    ++logLines;
    g_log_default_handler(domain, level, message, nullptr);
  };
  g_log_set_handler("vornet-vi", static_cast<GLogLevelFlags>(G_LOG_LEVEL_MASK | G_LOG_FLAG_RECURSION), count, nullptr);
  makePlugin();
}

PluginTest::~PluginTest() {
  manager.plugin.reset();
  extension.reset();
  settle();
  EXPECT_EQ(FakeFileManager::keptItems(), 0u);
  EXPECT_EQ(manager.contradictions, 0);
}

GVariantPtr PluginTest::callBus(const char* method) const {
  const auto caller = connectToBus(bus.address());
  GVariantPtr values(g_dbus_connection_call_sync(caller.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                 "org.freedesktop.DBus", method, nullptr, nullptr,
                                                 G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
  EXPECT_TRUE(values) << method;
  g_dbus_connection_close_sync(caller.get(), nullptr, nullptr);
  return values;
}

std::size_t PluginTest::busNames() const {
  return g_variant_n_children(childOf(callBus("ListNames").get(), 0).get());
}

}  // namespace vornet::test
