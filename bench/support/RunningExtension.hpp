#pragma once

#include <gio/gio.h>

#include <memory>
#include <string>
#include <vector>

#include "support/BusClient.hpp"
#include "support/Environment.hpp"
#include "support/PreparedServer.hpp"
#include "support/PrivateBus.hpp"
#include "support/StartedProgram.hpp"

namespace vornet::bench {

/// The extension process of the build tree on a bus of its own, with a sync application that knows FOLDERS folders, and
/// beside it a service that does nothing. Throws std::runtime_error when one of them does not come to life.
class RunningExtension {
 public:
  RunningExtension();

  /// Has the extension observe folder `number`, and waits until it knows the badges of its items.
  void observe(std::size_t number);

  /// The URLs of all items of folder `number`.
  std::vector<std::string> urls(std::size_t number) const;

  pid_t process() const { return process_; }
  pid_t bareProcess() const { return bare_->pid(); }

  /// One call of RequestBadges, or of the other service's Echo, for `urls`. How many of the identifiers are "SYNCED".
  std::size_t requestBadges(const std::vector<std::string>& urls) { return call(false, urls); }
  std::size_t echo(const std::vector<std::string>& urls) { return call(true, urls); }

  /// Ends the extension, if it runs, and starts it again.
  void restart();

 private:
  std::size_t call(bool echo, const std::vector<std::string>& urls);

  test::Environment environment_;
  std::string root_;
  PreparedServer server_;
  test::PrivateBus bus_;
  std::unique_ptr<test::StartedProgram> bare_;
  std::unique_ptr<test::BusClient> client_;
  std::shared_ptr<GDBusConnection> connection_;
  pid_t process_ = 0;
};

}  // namespace vornet::bench
