#pragma once

#include <gio/gio.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vornet::test {

/// The result of a call on the bus: its error's name without the domain's prefix ("InvalidURL"; "" for none), and its
/// values.
struct BusReply {
  std::string error;
  std::shared_ptr<GVariant> value;

  explicit operator bool() const { return error.empty(); }
  /// The only value, a list of texts.
  std::vector<std::string> texts() const;
};

struct MenuEntry {
  std::string title;
  std::string action;
  bool enabled = false;
  std::string image;
};

/// A client of the extension on a bus, with a connection of its own. Signals arrive while it waits. One thread.
class BusClient {
 public:
  explicit BusClient(const std::string& address);
  ~BusClient();
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  BusReply beginObserving(const std::string& url);
  BusReply endObserving(const std::string& url);
  BusReply requestBadges(const std::vector<std::string>& urls);
  BusReply performAction(const std::string& action, const std::vector<std::string>& urls);
  BusReply menu(const std::vector<std::string>& urls, std::vector<MenuEntry>& entries);

  /// Makes the call without waiting; `done` is called, while this client waits for something, with the reply.
  void call(const std::string& method, GVariant* arguments, std::function<void(BusReply)> done);
  static GVariant* urlArguments(const std::vector<std::string>& urls);

  /// A property of the extension, printed as GVariant text; "" when it cannot be read.
  std::string property(const std::string& name);

  /// The process that owns the extension's name; 0 for none.
  int extensionProcess();

  /// How many match rules the owner of the extension's name has on the bus; none when the bus does not tell.
  std::optional<unsigned> extensionsMatchRules();

  /// This client's name on the bus.
  std::string name() const { return g_dbus_connection_get_unique_name(connection_); }

  /// The changes that came by signal: item -> identifier, the last one of each; and how many signals they came in.
  const std::map<std::string, std::string>& changes() const { return changes_; }
  std::size_t signals() const { return signals_; }
  void forgetChanges();

  /// Lets messages arrive until `condition` holds; false after half a minute without.
  bool waitUntil(const std::function<bool()>& condition);
  bool waitForChange(const std::string& item, const std::string& identifier);

  /// Leaves the bus.
  void disconnect();

 private:
  BusReply callAndWait(const std::string& method, GVariant* arguments);

  GMainContext* context_;
  GDBusConnection* connection_ = nullptr;
  std::map<std::string, std::string> changes_;
  std::size_t signals_ = 0;
};

}  // namespace vornet::test
