#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/BusClient.hpp"
#include "support/Environment.hpp"
#include "support/LoopbackServer.hpp"
#include "support/PrivateBus.hpp"
#include "support/StartedProgram.hpp"
#include "support/Threads.hpp"

namespace vornet::test {

/// An answer of the sync application with `body`, which is given once `gate` is open.
inline LoopbackServer::Answer answerAfter(Gate& gate, const std::string& body) {
  return [&gate, body](const WireRequest&) {
    gate.passInTime();
    return WireReply{.body = body};
  };
}

/// The fixture of the extension process: the built program, started on demand by a private bus, with a synced folder.
/// The process ends with the test, which fails if a sanitizer complained, and then shows what was written.
class ExtensionTest : public testing::Test {
 protected:
  /// `items`: the content of the synced folder; folders end in "/".
  explicit ExtensionTest(const std::vector<std::string>& items = {"x", "y", "a b", "d/", "e/"});
  ~ExtensionTest() override;

  /// Writes the preferences with `folder` as the synced folder, in one step, as the sync application must.
  void configure(const std::string& folder) const;
  void configure() const { configure(root); }

  /// Makes the sync database, of cloud paths and codes.
  using Rows = std::vector<std::pair<std::string, int>>;
  void makeDatabase(const Rows& rows) const;
  std::filesystem::path database() const { return container / "sync.db"; }

  /// Makes the bus, which starts what `services` has, and its first client.
  void start(const std::filesystem::path& services = PrivateBus::buildTreeServices());
  /// The same with preferences, and with the sync database that `rows` make, if any.
  void startConfigured(const Rows& rows = {});
  /// The same, and has the client observe a folder.
  void startObserving(const Rows& rows = {}, const std::string& folder = "");

  /// Starts a program that finds the bus, with `variables` ("NAME=value"); its output goes to a separate file, or to
  /// `output`.
  std::unique_ptr<StartedProgram> launch(std::vector<std::string> arguments, std::vector<std::string> variables = {},
                                         const std::filesystem::path& output = {});
  struct Ended {
    int status;
    std::string output;
  };
  /// The same, until it has ended.
  Ended run(std::vector<std::string> arguments, std::vector<std::string> variables = {});

  /// The process that serves the bus, started if necessary.
  int process();
  /// Waits until a process other than `former` owns the name; 0 for none of them.
  int waitForProcess(int former = 0);

  /// The URL of an item of the synced folder, or of the folder itself.
  std::string url(const std::string& name = "") const { return "file://" + root + (name.empty() ? "" : "/" + name); }
  std::vector<std::string> urls(const std::vector<std::string>& names) const;
  /// The property ObservedFolders with `folder` as the synced folder.
  static std::string observed(const std::string& folder) { return "['file://" + folder + "/']"; }
  std::string observed() const { return observed(root); }

  /// The identifiers of items, in their order.
  std::vector<std::string> badges(const std::vector<std::string>& names);
  std::string badge(const std::string& name) { return badges({name}).at(0); }
  bool waitForBadge(const std::string& name, const std::string& identifier);

  /// The menu of items; an error fails the test.
  std::vector<MenuEntry> menu(const std::vector<std::string>& names);
  /// Asks for the menu of an item without waiting.
  void askForMenu(const std::string& name, std::function<void(const BusReply&)> done = [](const BusReply&) {});

  std::string logText() const { return readFile(container / "log/vi.log"); }
  /// How often `text` is in the log.
  std::size_t logged(const std::string& text) const;
  bool waitForLog(const std::string& text, std::size_t times = 1);

  Environment environment;
  const std::string root = environment.folder() / "root";
  const std::filesystem::path container = environment.folder() / "containers/com.vornet.KelvaneSync";
  std::optional<PrivateBus> bus;
  std::optional<BusClient> client;

 private:
  std::string output() const;

  int launched_ = 0;
};

}  // namespace vornet::test
