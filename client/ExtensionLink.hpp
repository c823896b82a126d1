#pragma once

#include <gio/gio.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "MainLoop.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::client {

inline constexpr const char* INVALID_REPLY = "InvalidReply";
inline constexpr const char* DISCONNECTED = "Disconnected";

/// The longest badge identifier that is kept, in bytes.
inline constexpr std::size_t LONGEST_IDENTIFIER = 200;

/// Why a call has no values.
struct CallError {
  /// The extension's errors without their prefix ("Busy"); INVALID_REPLY for values of another type, DISCONNECTED
  /// without a bus, the whole name of any other error.
  std::string name;
  std::string message;  ///< for people

  operator const std::string&() const { return name; }
};

/// The extension on the session bus: finds and starts it, notices its end, makes calls, passes on its signals. The
/// connection is private, because the shared one ends the process when the bus goes. Never blocks. The extension is not
/// trusted: answers of another type count as failures, and only what a file manager needs is kept. Not
/// thread-safe: the context's thread only.
class ExtensionLink {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    /// A new process of the extension answers. It has no observations yet.
    virtual void extensionReady() = 0;
    /// It has ended, or the bus has; calls in flight fail.
    virtual void extensionGone() = 0;
    virtual void observedFoldersChanged() = 0;
    /// syncApplicationSilentSince() has changed.
    virtual void syncApplicationChanged() {}

    /// The bus can be called.
    virtual void busOpened() {}
    /// There is no bus, or it went away; `message` says why.
    virtual void busLost(const std::string& message) { static_cast<void>(message); }
    /// The bus could not start the extension. `willRetry`: the link retries automatically. Writes a line to the log, of
    /// the first failure only.
    virtual void startFailed(const CallError& error, bool isFirst, bool willRetry);
  };

  ExtensionLink(GMainContext* context, const Backoff& retries, Listener& listener);
  ~ExtensionLink();
  ExtensionLink(const ExtensionLink&) = delete;
  ExtensionLink& operator=(const ExtensionLink&) = delete;

  /// Connects to the bus without starting the extension.
  void open();

  /// Has the bus start the extension if it does not run. After a failed attempt it does nothing until the longest retry
  /// time is over.
  void ensureStarted();

  /// Restarts the extension after its end: at once, then with back-off while it keeps ending.
  void restartWithBackoff();

  bool isReady() const { return ready_; }

  /// True while it may soon be ready.
  bool isStarting() const { return !ready_ && (connecting_ || starting_ || !owner_.empty()); }

  /// The unique name of the process that owns the extension's bus name; empty for none.
  const std::string& owner() const { return owner_; }

  /// True if an extension has ever reported its folders; the folders that the last one reported, as paths.
  bool foldersKnown() const { return foldersKnown_; }
  const std::vector<std::string>& observedFolders() const { return observedFolders_; }

  /// True if `path` is one of those folders or is below one.
  bool isObserved(std::string_view path) const;

  /// The version of the interface of the extension that answers; 1 where it names none.
  unsigned interfaceVersion() const { return interfaceVersion_; }

  /// The identifier of a badge as FolderBadges has it; "" for none, and for a number that the extension has not named.
  std::string_view badgeIdentifier(unsigned char number) const;

  /// Since when the sync application has not answered, in seconds since 1970; 0 when it answered the last request; none
  /// while no extension has reported it.
  std::optional<gint64> syncApplicationSilentSince() const { return silentSince_; }

  /// Has `handler` called with the changes of badges that the extension sends, a(ss): items' URLs and identifiers.
  void onBadgesChanged(std::function<void(GVariant* changes)> handler) { badgesChanged_ = std::move(handler); }

  /// The same with the values of a FolderBadges, (tysay).
  void onFolderBadges(std::function<void(GVariant* values)> handler) { folderBadges_ = std::move(handler); }

  /// Calls `method`; starts the extension if it does not run. `done` gets the values, which are of `type`, or null and
  /// the error; it is not called after the end of this object. There is no time-out: a frozen extension answers when it
  /// goes on, and an error comes when it ends. The caller bounds how many calls are in flight.
  using Done = std::function<void(GVariant* values, const CallError& error)>;
  void call(const char* method, GVariant* arguments, const char* type, Done done);

  /// The same for the process that runs now only, for calls about what it keeps for its clients. Fails when none runs
  /// or it has gone, even if another process has its name by then: that would begin a second observation.
  void callRunning(const char* method, GVariant* arguments, const char* type, Done done);

  /// The same for all properties, (a{sv}); `mayStart`: starts the extension.
  void readAllProperties(bool mayStart, Done done);

  /// The same for a method of the bus itself.
  void callBus(const char* method, GVariant* arguments, const char* type, Done done);

  /// Calls the process that runs now, if any, without waiting for an answer.
  void send(const char* method, GVariant* arguments);

 private:
  struct Call;

  void connect();
  void busFound(const char* address, const GError* error);
  void busFailed(const GError* error);
  void connected(GObjectPtr<GDBusConnection> connection);
  void disconnect();
  void start();
  void startFailed(const CallError& error);
  void appeared(const std::string& owner);
  void vanished();
  void readProperties();
  void propertiesChanged(GVariant* values);
  bool takeProperties(GVariant* properties);
  void takeObservedFolders(GVariant* urls);
  void takeSilence(gint64 since);
  void unsubscribe();
  void callObject(const char* name, const char* path, const char* interface, const char* method, GVariant* arguments,
                  const char* type, GDBusCallFlags flags, Done done);
  std::chrono::milliseconds nextDelay();

  GMainContext* context_;
  Listener& listener_;
  std::function<void(GVariant*)> badgesChanged_;
  std::function<void(GVariant*)> folderBadges_;
  std::shared_ptr<ExtensionLink*> self_;  ///< callbacks hold a weak reference to it

  GObjectPtr<GDBusConnection> connection_;
  gulong closedHandler_ = 0;
  guint watch_ = 0;
  guint badgesSubscription_ = 0;
  guint folderSubscription_ = 0;
  guint propertiesSubscription_ = 0;
  bool connecting_ = false;
  bool startsWhenConnected_ = false;
  bool starting_ = false;
  bool ready_ = false;
  std::string owner_;
  std::vector<std::string> observedFolders_;
  bool foldersKnown_ = false;
  unsigned interfaceVersion_ = 1;
  std::vector<std::string> badges_;  ///< their identifiers
  std::optional<gint64> silentSince_;
  GVariantPtr newFolders_;  ///< reported, not yet applied
  SlicedWork work_;
  Disposal disposal_;

  Timer readAgain_;
  Backoff readRetries_;
  Timer retry_;
  Backoff retries_;
  bool triedAtOnce_ = false;  ///< and the extension has not kept running since
  gint64 lastFailure_ = 0;    ///< monotonic, in microseconds; 0 for none
  gint64 readySince_ = 0;
  bool warned_ = false;
};

}  // namespace vornet::client
