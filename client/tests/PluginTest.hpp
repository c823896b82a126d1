#pragma once

#include <gmock/gmock.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "client/Paths.hpp"
#include "support/Environment.hpp"
#include "support/FakeExtension.hpp"
#include "support/FakeFileManager.hpp"
#include "support/MainContext.hpp"
#include "support/PrivateBus.hpp"

namespace vornet::test {

/// A plug-in on a private bus, with a file manager and an extension that do what a test says.
class PluginTest : public testing::Test {
 protected:
  PluginTest();
  ~PluginTest() override;

  /// An extension that observes `root`.
  void startExtension() { extension = std::make_unique<FakeExtension>(bus.address(), std::vector{url("")}); }

  /// Replaces the plug-in by one with other times.
  void makePlugin(const client::Plugin::Options& options = {}) {
    manager.plugin = std::make_unique<client::Plugin>(manager, options);
  }

  std::string path(const std::string& name) const { return name.empty() ? root : root + "/" + name; }
  std::string url(const std::string& name) const { return client::urlOfPath(path(name)); }

  /// A window comes to show the root, with an item that is known to be synced.
  void showSynced(const std::string& name) {
    extension->badges[url(name)] = "SYNCED";
    manager.plugin->folderShown(root);
    manager.show(path(name));
    ASSERT_TRUE(waitForEmblem(name, SYNCED));
  }

  /// How many items the extension has been asked for.
  std::size_t asked() const {
    std::size_t sum = 0;
    for (const auto& request : extension->badgeRequests) sum += request.size();
    return sum;
  }

  bool waitForEmblem(const std::string& name, const std::string& emblem) {
    return runUntil([&] { return manager.emblem(path(name)) == emblem; });
  }
  bool waitForObserved(std::size_t count) {
    return runUntil([&] { return extension->observed.size() == count; });
  }

  bool waitForHeld(const std::string& method, std::size_t count = 1) {
    return runUntil([&] { return extension->heldCalls(method) == count; });
  }
  /// Runs the file manager for `time`.
  static void pass(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    ASSERT_TRUE(runUntil([&] { return std::chrono::steady_clock::now() > end; }));
  }

  /// Calls a method of the bus itself and waits until it is done. Its values.
  GVariantPtr callBus(const char* method) const;

  /// How many names there are on the bus.
  std::size_t busNames() const;

  /// Lines that the plug-in wrote to the file manager's log.
  static int logLines;

  static constexpr const char* SYNCED = "emblem-vornet-synced";
  static constexpr const char* PENDING = "emblem-vornet-pending";
  static constexpr const char* SKIPPED = "emblem-vornet-skipped";

  const std::string root = "/home/ann/Kelvane";
  Environment environment;
  const std::string services = environment.folder() / "services";
  PrivateBus bus;
  ScopedVariable address;
  FakeFileManager manager;
  std::unique_ptr<FakeExtension> extension;
};

}  // namespace vornet::test
