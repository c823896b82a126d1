#pragma once

#include <gio/gio.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Backoff.hpp"
#include "GLibPtr.hpp"
#include "MainLoop.hpp"

namespace vornet::client {

/// Why a call has no values.
struct CallError {
  /// What follows the prefix of the extension's own errors ("Busy"), "InvalidReply" for values of another type,
  /// "Disconnected" without a bus, the whole name of any other error.
  std::string name;
  std::string message;  ///< for people

  operator const std::string&() const { return name; }
};

/// The extension on the session bus: finds and starts it, notices its end, makes calls, hands on its signals. The
/// connection is private, because the shared one ends the process when the bus goes. Nothing waits: what has no answer
/// yet has none. What the extension says is not trusted: answers of another type count as failures, and no more is kept
/// of them than a file manager needs. Not thread-safe: the context's thread only.
class ExtensionLink {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    /// An extension answers: another process than before, which knows of no observation.
    virtual void extensionReady() = 0;
    /// It has ended, or the bus has; calls under way end with an error.
    virtual void extensionGone() = 0;
    virtual void observedFoldersChanged() = 0;
    /// `changes`: a(ss), item's URL and identifier.
    virtual void badgesChanged(GVariant* changes) = 0;

    /// The bus can be called.
    virtual void busOpened() {}
    /// There is no bus, or it went away; `message` says why.
    virtual void busLost(const std::string& message) { static_cast<void>(message); }
    /// The bus could not start the extension. `willRetry`: the link tries again by itself. Writes a line to the log, of
    /// the first failure only.
    virtual void startFailed(const CallError& error, bool isFirst, bool willRetry);
  };

  ExtensionLink(GMainContext* context, const Backoff& retries, Listener& listener);
  ~ExtensionLink();
  ExtensionLink(const ExtensionLink&) = delete;
  ExtensionLink& operator=(const ExtensionLink&) = delete;

  /// Connects to the bus, and does not start the extension.
  void open();

  /// The extension is needed: the bus is asked to start it, where it does not run. After a failed attempt nothing is
  /// done before the longest retry time is over.
  void want();

  /// The extension has gone and is needed again: at once, but ever later when it keeps ending.
  void wantAgain();

  bool isReady() const { return ready_; }

  /// The unique name of the process that owns the extension's bus name; empty for none.
  const std::string& owner() const { return owner_; }

  /// Whether an extension has ever told its folders; and those that the last one told, as paths.
  bool foldersKnown() const { return foldersKnown_; }
  const std::vector<std::string>& observedFolders() const { return observedFolders_; }

  /// Whether `path` is one of those folders or lies below one.
  bool isObserved(std::string_view path) const;

  /// Calls `method`; starts the extension where it does not run. `done` gets the values, which are of `type`, or null
  /// and the error; it is not called any more after the end of this object. There is no time-out: an extension that
  /// hangs answers when it goes on, and an error comes when it ends. The caller bounds how many calls are in flight.
  using Done = std::function<void(GVariant* values, const CallError& error)>;
  void call(const char* method, GVariant* arguments, const char* type, Done done);

  /// The same of the process that runs now; for what that process remembers of its clients. Fails when it has gone,
  /// even when another has its name by then, which would be told of a folder a second time.
  void callRunning(const char* method, GVariant* arguments, const char* type, Done done);

  /// The same for all properties, (a{sv}); `mayStart`: starts the extension.
  void readAllProperties(bool mayStart, Done done);

  /// The same for a method of the bus itself.
  void callBus(const char* method, GVariant* arguments, const char* type, Done done);

  /// Calls the process that runs now, if any, where the answer does not matter: none comes.
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
  void takeObservedFolders(GVariant* urls);
  void unsubscribe();
  void callObject(const char* name, const char* path, const char* interface, const char* method, GVariant* arguments,
                  const char* type, GDBusCallFlags flags, Done done);
  std::chrono::milliseconds nextDelay();

  GMainContext* context_;
  Listener& listener_;
  std::shared_ptr<ExtensionLink*> self_;  ///< what callbacks hold weakly

  GObjectPtr<GDBusConnection> connection_;
  gulong closedHandler_ = 0;
  guint watch_ = 0;
  guint badgesSubscription_ = 0;
  guint propertiesSubscription_ = 0;
  bool connecting_ = false;
  bool startsWhenConnected_ = false;
  bool starting_ = false;
  bool ready_ = false;
  std::string owner_;
  std::vector<std::string> observedFolders_;
  bool foldersKnown_ = false;
  GVariantPtr newFolders_;  ///< told, and not yet taken in
  SlicedWork work_;
  Disposal disposal_;

  Timer readAgain_;
  Backoff readRetries_;
  Timer retry_;
  Backoff retries_;
  bool triedAtOnce_ = false;  ///< and the extension has not stayed since
  gint64 lastFailure_ = 0;    ///< monotonic, in microseconds; 0 for none
  gint64 readySince_ = 0;
  bool warned_ = false;
};

}  // namespace vornet::client
