#pragma once

#include <gmock/gmock.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "kelvane-sim/KelvaneSim.hpp"
#include "support/ExtensionTest.hpp"
#include "support/Threads.hpp"

namespace vornet::test {

/// A built plug-in's surroundings: the stand-in sync application, and a private bus that starts the real extension or
/// knows of none. Derived classes end the plug-in: the bus is stopped after them.
class DesktopTest : public ExtensionTest {
 protected:
  enum class Extension { real, none };

  explicit DesktopTest(const std::vector<std::string>& items = {}) : ExtensionTest(items) {}
  ~DesktopTest() override {
    if (const int process = client ? client->extensionProcess() : 0; process > 0) ::kill(process, SIGCONT);
  }

  /// Everything is synced when this returns.
  void startApplication() {
    application.emplace(sim::KelvaneSim::Options{
        .root = root, .container = environment.container().string(), .transferTime = std::chrono::milliseconds(0)});
    application->start();
    ASSERT_TRUE(application->waitUntilIdle(PATIENCE));
  }

  void startBus(Extension extension) {
    const auto noServices = environment.folder().path() / "no services";
    std::filesystem::create_directories(noServices);
    start(extension == Extension::real ? PrivateBus::buildTreeServices() : noServices);
    busAddress.emplace("DBUS_SESSION_BUS_ADDRESS", bus->address());
  }

  /// Has the extension poll every folder on screen at once: it does when a new one comes on screen, here one in the
  /// folder `within` ("" or "a/"), which no view shows.
  void pollNow(const std::string& within = "") {
    const std::string name = within + "new" + std::to_string(++newFolders);
    std::filesystem::create_directories(root + "/" + name);
    ASSERT_TRUE(client->beginObserving(url(name)));
  }

  static constexpr const char* SYNCED = "emblem-vornet-synced";
  static constexpr const char* PENDING = "emblem-vornet-pending";
  static constexpr const char* SKIPPED = "emblem-vornet-skipped";

  std::optional<sim::KelvaneSim> application;
  std::optional<ScopedVariable> busAddress;
  int newFolders = 0;
};

}  // namespace vornet::test
