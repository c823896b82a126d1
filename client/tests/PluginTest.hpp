#pragma once

#include <gmock/gmock.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client/Paths.hpp"
#include "support/Environment.hpp"
#include "support/FakeExtension.hpp"
#include "support/FakeFileManager.hpp"
#include "support/MainContext.hpp"
#include "support/PrivateBus.hpp"

namespace vornet::test {

/// Items by name, with the identifiers of their badges.
using Items = std::map<std::string, std::string>;

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

  /// The file manager lists these items, or drops them.
  void list(const std::vector<std::string>& names) {
    for (const auto& name : names) manager.show(path(name));
  }
  void drop(const std::vector<std::string>& names) {
    for (const auto& name : names) manager.hide(path(name));
  }

  /// A window comes to show `folder`, with items whose badges the extension knows.
  void openWindow(const std::string& folder, const Items& items) {
    for (const auto& [name, identifier] : items) extension->badges[url(name)] = identifier;
    manager.plugin->folderShown(path(folder));
    for (const auto& [name, identifier] : items) manager.show(path(name));
  }
  /// The same with the root; all emblems are shown when this returns.
  void open(const Items& items) {
    openWindow("", items);
    for (const auto& [name, identifier] : items) ASSERT_TRUE(waitForEmblem(name, emblemOf(identifier))) << name;
    settle();
  }
  /// The same with one item, "a"; the extension takes the plug-in's call of `method` and does not answer it yet.
  void openHeld(const std::string& method) {
    extension->hold(method);
    openWindow("", {{"a", "SYNCED"}});
    ASSERT_TRUE(waitForHeld(method));
  }
  /// A window comes to show `folder`; there are so many observations then.
  void openObserved(const std::string& folder = "", std::size_t count = 1) {
    manager.plugin->folderShown(path(folder));
    ASSERT_TRUE(waitForObserved(count));
  }
  /// The window of the only folder that is observed stops showing it.
  void closeWindow(const std::string& folder = "") {
    manager.plugin->folderHidden(path(folder));
    ASSERT_TRUE(waitForObserved(0));
  }

  /// Lists an item with this badge. True if its emblem appears.
  bool appears(const std::string& name, const std::string& identifier = "SYNCED") {
    extension->badges[url(name)] = identifier;
    manager.show(path(name));
    return waitForEmblem(name, emblemOf(identifier));
  }
  /// Sends the change of a badge in an observed folder, which is not requested. True if its emblem appears.
  bool changes(const std::string& name, const std::string& identifier) {
    EXPECT_THAT(extension->observed, testing::Contains(client::urlOfPath(std::string(client::folderOf(path(name))))));
    extension->sendChanges({{url(name), identifier}});
    return waitForEmblem(name, emblemOf(identifier));
  }

  /// Waits until the extension has answered a request, and the plug-in has processed it and all that was sent before.
  void roundTrip() {
    const auto before = manager.menuChanges;
    const std::string name = "question" + std::to_string(++roundTrips_);
    extension->menus[url(name)] = {true, true};
    manager.plugin->menu({path(name)});
    ASSERT_TRUE(runUntil([&] { return manager.menuChanges > before; }));
    settle();
  }

  /// The extension ends, and the plug-in learns of it.
  void endExtension() {
    extension.reset();
    settle();
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
  /// Waits until the extension has got so many calls that begin with `text`.
  bool waitForCalls(const std::string& text, std::size_t count) {
    return runUntil([&] { return extension->count(text) == count; });
  }
  /// Waits until the extension has got at least so many requests for badges.
  bool waitForRequests(std::size_t count) {
    return runUntil([&] { return extension->badgeRequests.size() >= count; });
  }
  /// Waits until the plug-in keeps no item any more.
  static bool waitUntilForgotten() {
    return runUntil([] { return FakeFileManager::keptItems() == 0; });
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
  /// The emblem of the badge `identifier`; "" for any other.
  static std::string emblemOf(const std::string& identifier) {
    Items emblems = {{"SYNCED", SYNCED}, {"PENDING", PENDING}, {"SKIPPED", SKIPPED}};
    return emblems[identifier];
  }

  const std::string root = "/home/ann/Kelvane";
  Environment environment;
  const std::string services = environment.folder() / "services";
  PrivateBus bus;
  ScopedVariable address;
  FakeFileManager manager;
  std::unique_ptr<FakeExtension> extension;

 private:
  int roundTrips_ = 0;
};

}  // namespace vornet::test
