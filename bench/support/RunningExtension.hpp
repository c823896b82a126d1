#pragma once

#include <gio/gio.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "support/BusClient.hpp"
#include "support/Environment.hpp"
#include "support/Items.hpp"
#include "support/PreparedServer.hpp"
#include "support/PrivateBus.hpp"
#include "support/StartedProgram.hpp"

namespace vornet::bench {

/// The extension process of the build tree on a private bus, with a sync application that knows FOLDERS folders, and a
/// service that does nothing for comparison. Throws std::runtime_error when one of them does not start.
class RunningExtension {
 public:
  RunningExtension();

  /// Makes the extension observe folder `number`, and waits until it knows the badges of its items.
  void observe(std::size_t number);

  /// The URLs of all items of folder `number`.
  std::vector<std::string> urls(std::size_t number) const;

  pid_t process() const { return process_; }
  pid_t bareProcess() const { return bare_->pid(); }

  /// One call of RequestBadges, or of the other service's Echo, for `urls`. How many of the identifiers are "SYNCED".
  std::size_t requestBadges(const std::vector<std::string>& urls) { return call(false, urls); }
  std::size_t echo(const std::vector<std::string>& urls) { return call(true, urls); }

  /// Ends the extension, if it runs, and starts it again. Folders have `entries` items from now on.
  void restart(std::size_t entries = ENTRIES);

 private:
  std::size_t call(bool echo, const std::vector<std::string>& urls);

  test::Environment environment_;
  std::string root_;
  std::atomic<std::size_t> entries_{ENTRIES};
  PreparedServer server_;
  test::PrivateBus bus_;
  std::unique_ptr<test::StartedProgram> bare_;
  std::unique_ptr<test::BusClient> client_;
  GObjectPtr<GDBusConnection> connection_;
  pid_t process_ = 0;
};

}  // namespace vornet::bench
