#pragma once

#include <gio/gio.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dbus/GLibPtr.hpp"
#include "support/Threads.hpp"

namespace vornet::test {

struct MenuEntry {
  std::string title;
  std::string action;
  bool enabled = false;
  std::string image;
};

/// A new connection to the bus at `address`. Throws std::runtime_error when there is no bus.
GObjectPtr<GDBusConnection> connectToBus(const std::string& address);

/// A floating list of texts.
GVariant* textList(const std::vector<std::string>& texts);

/// The message as it passes over the bus. Throws std::runtime_error for one that none may send.
std::string bytesOf(const GObjectPtr<GDBusMessage>& message);

/// The result of a call on the bus: its error's name without the domain's prefix ("InvalidURL"; "" for none), and its
/// values.
struct BusReply {
  std::string error;
  std::shared_ptr<GVariant> value;

  explicit operator bool() const { return error.empty(); }
  /// The only value, a list of texts.
  std::vector<std::string> texts() const;
  /// The only value, the entries of a menu.
  std::vector<MenuEntry> entries() const;
};

/// A client of the extension on a bus, with a separate connection. Signals arrive while it waits. One thread.
class BusClient {
 public:
  explicit BusClient(const std::string& address);
  /// A client at the end of the connection that `connect` makes, whatever it leads to.
  explicit BusClient(const std::function<GObjectPtr<GDBusConnection>()>& connect);
  ~BusClient();
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  BusReply beginObserving(const std::string& url) { return callAndWait("BeginObserving", textArgument(url)); }
  BusReply endObserving(const std::string& url) { return callAndWait("EndObserving", textArgument(url)); }
  BusReply requestSnapshot(const std::string& url, guint64 stream) {
    return callAndWait("RequestSnapshot", g_variant_new("(st)", url.c_str(), stream));
  }
  BusReply requestBadges(const std::vector<std::string>& urls) {
    return callAndWait("RequestBadges", urlArguments(urls));
  }
  BusReply performAction(const std::string& action, const std::vector<std::string>& urls) {
    return callAndWait("PerformAction", actionArguments(action, urls));
  }
  BusReply menu(const std::vector<std::string>& urls, std::vector<MenuEntry>& entries);

  /// Makes the call without waiting; `done` is called, while this client waits for something, with the reply.
  void call(const std::string& method, GVariant* arguments, std::function<void(BusReply)> done);
  static GVariant* textArgument(const std::string& text) { return g_variant_new("(s)", text.c_str()); }
  static GVariant* urlArguments(const std::vector<std::string>& urls) { return g_variant_new("(@as)", textList(urls)); }
  static GVariant* actionArguments(const std::string& action, const std::vector<std::string>& urls) {
    return g_variant_new("(s@as)", action.c_str(), textList(urls));
  }

  /// A property of the extension, printed as GVariant text; "" when it cannot be read.
  std::string property(const std::string& name);

  /// The process that owns the extension's name; 0 for none.
  int extensionProcess();

  /// How many match rules the owner of the extension's name has on the bus; none when the bus does not say.
  std::optional<unsigned> extensionsMatchRules();

  /// This client's name on the bus.
  std::string name() const { return g_dbus_connection_get_unique_name(connection_.get()); }

  /// A stream of a folder's badges, as it has come so far.
  struct Stream {
    std::map<std::string, std::string> badges;  ///< name -> identifier; without those that have none
    std::vector<std::size_t> messages;          ///< the items of each
    std::size_t snapshots = 0;                  ///< that have ended
    bool isOpen = false;                        ///< one has begun and not ended
    bool isRefused = false;
    std::vector<std::pair<std::string, std::string>> history;  ///< every item that came
    std::size_t last = 0;  ///< the last message's number, among those of all streams
  };
  const Stream& stream(guint64 stream) { return streams_[stream]; }

  /// The changes that came by signal: item -> identifier, the last one of each; and how many signals they came in.
  const std::map<std::string, std::string>& changes() const { return changes_; }
  std::size_t signals() const { return signals_; }
  void forgetChanges();

  /// Lets messages arrive until `condition` holds; false when it does not in time.
  bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds patience = PATIENCE);
  /// Lets messages arrive for so long, whatever they are.
  void listenFor(std::chrono::milliseconds time);
  bool waitForChange(const std::string& item, const std::string& identifier);

  /// Leaves the bus.
  void disconnect();

 private:
  BusReply callAndWait(const std::string& method, GVariant* arguments);
  void takeChanges(GVariant* values);
  void takeFolder(GVariant* values);
  GVariantPtr askBusAboutExtension(const char* interface, const char* method);

  const GMainContextPtr context_;
  GObjectPtr<GDBusConnection> connection_;
  std::map<std::string, std::string> changes_;
  std::map<guint64, Stream> streams_;
  std::size_t signals_ = 0;
  std::size_t folderMessages_ = 0;
};

}  // namespace vornet::test
