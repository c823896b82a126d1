#include "ExtensionLink.hpp"

#include <algorithm>
#include <climits>
#include <cstring>
#include <mutex>
#include <utility>

#include "Log.hpp"
#include "Paths.hpp"
#include "dbus/GLibPtr.hpp"
#include "dbus/Interface.hpp"

namespace vornet::client {
namespace {

constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";
constexpr const char* BUS = "org.freedesktop.DBus";
constexpr const char* BUS_PATH = "/org/freedesktop/DBus";
constexpr const char* NOT_INSTALLED = "org.freedesktop.DBus.Error.ServiceUnknown";
constexpr const char* NO_REPLY = "org.freedesktop.DBus.Error.NoReply";

// Observed folders that are read; the extension has one.
constexpr std::size_t MOST_FOLDERS = 1000;

// Changed properties that are read; it has five.
constexpr gsize MOST_PROPERTIES = 100;

gint64 microseconds(std::chrono::milliseconds time) {
  return std::chrono::microseconds(time).count();
}

/// Strips the remote error's name from the message.
CallError callErrorOf(GError* error) {
  const GCharPtr remote(g_dbus_error_get_remote_error(error));
  std::string name = remote ? remote.get() : DISCONNECTED;
  if (name.starts_with(dbus::ERROR_PREFIX)) name.erase(0, std::string_view(dbus::ERROR_PREFIX).size());
  g_dbus_error_strip_remote_error(error);
  return {name, error->message};
}

/// To be called on both sides when a GLib task's result changes threads. GLib is not instrumented: without this lock
/// the thread sanitizer sees no order.
void passHandOver() {
  static std::mutex lock;
  const std::lock_guard guard(lock);
}

/// Runs on another thread, because finding the bus may read files or start a program.
void findBus(GTask* task, gpointer, gpointer, GCancellable*) {
  GError* error = nullptr;  // passed on to the task, as the address is
  gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, &error);
  passHandOver();
  if (address)
    g_task_return_pointer(task, address, g_free);
  else
    g_task_return_error(task, error);
}

/// True if it takes long to free `values`, which are of the type expected.
bool isLarge(GVariant* values) {
  if (g_variant_n_children(values) == 0) return false;
  const GVariantPtr first = childOf(values, 0);
  return g_variant_is_of_type(first.get(), G_VARIANT_TYPE_VARIANT) ||
         (g_variant_is_container(first.get()) && g_variant_n_children(first.get()) > Disposal::LARGE);
}

using WeakLink = std::weak_ptr<ExtensionLink*>;

std::unique_ptr<WeakLink> takeLink(gpointer data) {
  return std::unique_ptr<WeakLink>(static_cast<WeakLink*>(data));
}

/// The value of `key`, or null. Unlike g_variant_lookup it does not copy the dictionary first, which held the window
/// for 15 ms when it had 100,000 URLs.
GVariantPtr lookUp(GVariant* dictionary, const char* key, const GVariantType* type) {
  return GVariantPtr(g_variant_lookup_value(dictionary, key, type));
}

}  // namespace

struct ExtensionLink::Call {
  std::weak_ptr<ExtensionLink*> link;
  const char* type;
  Done done;
};

ExtensionLink::ExtensionLink(GMainContext* context, const Backoff& retries, Listener& listener)
    : context_(context),
      listener_(listener),
      self_(std::make_shared<ExtensionLink*>(this)),
      work_(context),
      disposal_(context),
      readAgain_(context),
      readRetries_(retries),
      retry_(context),
      retries_(retries) {}

ExtensionLink::~ExtensionLink() {
  self_.reset();
  disconnect();
}

bool ExtensionLink::isObserved(std::string_view path) const {
  return std::any_of(observedFolders_.begin(), observedFolders_.end(),
                     [path](const std::string& folder) { return isWithin(folder, path); });
}

// --- Connection and life of the extension ---------------------------------------------------------------------------

void ExtensionLink::ensureStarted() {
  if (ready_ || starting_ || retry_.isRunning()) return;
  const bool failedJustNow = lastFailure_ != 0 && g_get_monotonic_time() - lastFailure_ < microseconds(retries_.last());
  if (failedJustNow) return;
  start();
}

void ExtensionLink::restartWithBackoff() {
  if (ready_ || connecting_ || starting_ || retry_.isRunning()) return;
  if (const auto delay = nextDelay(); delay.count() > 0)
    retry_.start(delay, [this] { start(); });
  else
    start();
}

std::chrono::milliseconds ExtensionLink::nextDelay() {
  if (!std::exchange(triedAtOnce_, true)) return std::chrono::milliseconds(0);
  return retries_.next();
}

void ExtensionLink::open() {
  if (!connection_ && !connecting_) connect();
}

void ExtensionLink::connect() {
  connecting_ = true;
  const ContextScope scope(context_);
  const auto found = +[](GObject*, GAsyncResult* result, gpointer data) {
    const auto weak = takeLink(data);
    passHandOver();
    GErrorPtr error;
    const GCharPtr address(static_cast<gchar*>(g_task_propagate_pointer(G_TASK(result), ErrorTo(error))));
    if (const auto link = weak->lock()) (*link)->busFound(address.get(), error.get());
  };
  const GObjectPtr<GTask> task(g_task_new(nullptr, nullptr, found, new WeakLink(self_)));
  g_task_run_in_thread(task.get(), findBus);
}

void ExtensionLink::busFound(const char* address, const GError* error) {
  if (!address) return busFailed(error);
  const ContextScope scope(context_);
  const auto opened = +[](GObject*, GAsyncResult* result, gpointer data) {
    const auto weak = takeLink(data);
    GErrorPtr failure;
    GObjectPtr<GDBusConnection> connection(g_dbus_connection_new_for_address_finish(result, ErrorTo(failure)));
    const auto link = weak->lock();
    if (!link) return;
    connection ? (*link)->connected(std::move(connection)) : (*link)->busFailed(failure.get());
  };
  g_dbus_connection_new_for_address(address,
                                    static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                                      G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                                    nullptr, nullptr, opened, new WeakLink(self_));
}

void ExtensionLink::busFailed(const GError* error) {
  connecting_ = false;
  listener_.busLost(error->message);
  if (std::exchange(startsWhenConnected_, false)) startFailed({"", error->message});
}

void ExtensionLink::connected(GObjectPtr<GDBusConnection> connection) {
  connecting_ = false;
  connection_ = std::move(connection);
  const auto closed = +[](GDBusConnection*, gboolean, GError*, gpointer self) {
    auto& link = *static_cast<ExtensionLink*>(self);
    const bool known = !link.owner_.empty();
    link.lastFailure_ = g_get_monotonic_time();
    link.disconnect();
    link.listener_.busLost("it went away");
    if (known) link.listener_.extensionGone();
  };
  closedHandler_ = g_signal_connect(connection_.get(), "closed", G_CALLBACK(closed), this);

  const ContextScope scope(context_);
  const auto appears = +[](GDBusConnection*, const gchar*, const gchar* owner, gpointer self) {
    static_cast<ExtensionLink*>(self)->appeared(owner);
  };
  const auto vanishes =
      +[](GDBusConnection*, const gchar*, gpointer self) { static_cast<ExtensionLink*>(self)->vanished(); };
  watch_ = g_bus_watch_name_on_connection(connection_.get(), dbus::BUS_NAME, G_BUS_NAME_WATCHER_FLAGS_NONE, appears,
                                          vanishes, this, nullptr);
  listener_.busOpened();
  if (std::exchange(startsWhenConnected_, false)) start();
}

void ExtensionLink::disconnect() {
  if (!connection_) return;
  const ContextScope scope(context_);  // where the closing completes; otherwise the connection leaks
  ready_ = starting_ = false;
  owner_.clear();
  unsubscribe();
  g_bus_unwatch_name(watch_);
  watch_ = 0;
  g_signal_handler_disconnect(connection_.get(), closedHandler_);
  if (!g_dbus_connection_is_closed(connection_.get()))
    g_dbus_connection_close(connection_.get(), nullptr, nullptr, nullptr);
  connection_.reset();
}

void ExtensionLink::start() {
  if (!connection_) {
    startsWhenConnected_ = true;
    return open();
  }
  starting_ = true;
  callBus("StartServiceByName", g_variant_new("(su)", dbus::BUS_NAME, 0), "(u)",
          [this](GVariant* started, const CallError& error) {
            starting_ = false;
            if (!started) startFailed(error);
          });
}

void ExtensionLink::Listener::startFailed(const CallError& error, bool isFirst, bool) {
  if (isFirst) g_warning("the extension cannot be started: %s", error.message.c_str());
}

/// An extension that is not installed is tried again when somebody comes to a folder later; after other failures it is
/// retried a few times with back-off.
void ExtensionLink::startFailed(const CallError& error) {
  if (!owner_.empty()) return;  // it runs, though the bus could not start it
  lastFailure_ = g_get_monotonic_time();
  const bool isInstalled = error.name != NOT_INSTALLED;
  if (isInstalled) {
    triedAtOnce_ = true;
    if (const auto delay = nextDelay(); delay < retries_.last()) retry_.start(delay, [this] { start(); });
  }
  const bool isFirst = isInstalled && !std::exchange(warned_, true);
  listener_.startFailed(error, isFirst, retry_.isRunning());
}

void ExtensionLink::appeared(const std::string& owner) {
  if (owner == owner_) return;
  vanished();  // when another process took the name over
  owner_ = owner;
  retry_.stop();
  lastFailure_ = 0;

  // Matched by the owner's unique name, so that an earlier process's signals are ignored.
  const ContextScope scope(context_);
  const auto subscribe = [this](const char* interface, const char* signal, const char* of, GDBusSignalCallback taken) {
    return g_dbus_connection_signal_subscribe(connection_.get(), owner_.c_str(), interface, signal, dbus::OBJECT_PATH,
                                              of, G_DBUS_SIGNAL_FLAGS_NONE, taken, this, nullptr);
  };
  const auto badges =
      +[](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* values, gpointer self) {
        auto& link = *static_cast<ExtensionLink*>(self);
        if (!g_variant_is_of_type(values, G_VARIANT_TYPE("(a(ss))"))) return link.disposal_.add(values);
        const GVariantPtr changes = childOf(values, 0);
        guarded([&] {
          if (link.badgesChanged_) link.badgesChanged_(changes.get());
        });
      };
  badgesSubscription_ = subscribe(dbus::INTERFACE, "BadgesChanged", nullptr, badges);
  const auto folder =
      +[](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* values, gpointer self) {
        auto& link = *static_cast<ExtensionLink*>(self);
        if (!g_variant_is_of_type(values, G_VARIANT_TYPE("(tysay)"))) return link.disposal_.add(values);
        guarded([&] {
          if (link.folderBadges_) link.folderBadges_(values);
        });
      };
  folderSubscription_ = subscribe(dbus::INTERFACE, "FolderBadges", nullptr, folder);
  const auto properties =
      +[](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* values, gpointer self) {
        guarded([&] { static_cast<ExtensionLink*>(self)->propertiesChanged(values); });
      };
  propertiesSubscription_ = subscribe(PROPERTIES, "PropertiesChanged", dbus::INTERFACE, properties);
  readProperties();
}

void ExtensionLink::unsubscribe() {
  for (auto* subscription : {&badgesSubscription_, &folderSubscription_, &propertiesSubscription_}) {
    if (*subscription) g_dbus_connection_signal_unsubscribe(connection_.get(), *subscription);
    *subscription = 0;
  }
  readAgain_.stop();
  newFolders_.reset();
}

void ExtensionLink::readProperties() {
  const auto taken = [this, owner = owner_](GVariant* values, const CallError&) {
    if (values) disposal_.add(values);
    if (owner != owner_) return;
    const GVariantPtr properties = values ? childOf(values, 0) : nullptr;
    if (!properties || !takeProperties(properties.get()))
      return readAgain_.start(readRetries_.next(), [this] { readProperties(); });
    readRetries_.reset();
    ready_ = true;
    readySince_ = g_get_monotonic_time();
    listener_.extensionReady();
    // An extension that does not know the property has nothing to say.
    if (const auto since = lookUp(properties.get(), "SyncApplicationSilentSince", G_VARIANT_TYPE_INT64))
      takeSilence(g_variant_get_int64(since.get()));
  };
  callObject(owner_.c_str(), dbus::OBJECT_PATH, PROPERTIES, "GetAll", g_variant_new("(s)", dbus::INTERFACE), "(a{sv})",
             G_DBUS_CALL_FLAGS_NONE, taken);
}

/// False when they are none of an extension's.
bool ExtensionLink::takeProperties(GVariant* properties) {
  if (g_variant_n_children(properties) > MOST_PROPERTIES) return false;
  const auto folders = lookUp(properties, "ObservedFolders", G_VARIANT_TYPE_STRING_ARRAY);
  if (!folders) return false;
  takeObservedFolders(folders.get());
  const auto version = lookUp(properties, "InterfaceVersion", G_VARIANT_TYPE_UINT32);
  interfaceVersion_ = version ? g_variant_get_uint32(version.get()) : 1;
  badges_.clear();
  const auto badges = lookUp(properties, "Badges", G_VARIANT_TYPE("a(sss)"));
  const gsize count = badges ? std::min<gsize>(g_variant_n_children(badges.get()), UCHAR_MAX) : 0;
  for (gsize i = 0; i < count; ++i) {
    const GVariantPtr identifier = childOf(childOf(badges.get(), i).get(), 0);
    badges_.emplace_back(textOf(identifier), strnlen(textOf(identifier), LONGEST_IDENTIFIER));
  }
  return true;
}

std::string_view ExtensionLink::badgeIdentifier(unsigned char number) const {
  return number == 0 || number > badges_.size() ? std::string_view() : badges_[number - 1];
}

/// While nobody asks the sync application, its last known state is the best guess.
void ExtensionLink::takeSilence(gint64 since) {
  if (since == dbus::NOT_ASKED || silentSince_ == since) return;
  silentSince_ = since;
  listener_.syncApplicationChanged();
}

/// Of several changes in one message the last one counts.
void ExtensionLink::propertiesChanged(GVariant* values) {
  disposal_.add(values);
  if (!g_variant_is_of_type(values, G_VARIANT_TYPE("(sa{sv}as)"))) return;
  const GVariantPtr changed = childOf(values, 1);
  if (g_variant_n_children(changed.get()) > MOST_PROPERTIES) return;
  if (const auto since = lookUp(changed.get(), "SyncApplicationSilentSince", G_VARIANT_TYPE_INT64))
    takeSilence(g_variant_get_int64(since.get()));
  auto folders = lookUp(changed.get(), "ObservedFolders", G_VARIANT_TYPE_STRING_ARRAY);
  if (!folders) return;
  const bool waits = newFolders_ != nullptr;
  newFolders_ = std::move(folders);
  if (waits) return;
  work_.add([this] {
    const auto urls = std::exchange(newFolders_, nullptr);
    if (!urls) return false;
    takeObservedFolders(urls.get());
    disposal_.add(urls.get());
    if (ready_) listener_.observedFoldersChanged();
    return false;
  });
}

void ExtensionLink::takeObservedFolders(GVariant* urls) {
  observedFolders_.clear();
  foldersKnown_ = true;
  const gsize count = std::min<gsize>(g_variant_n_children(urls), MOST_FOLDERS);
  for (gsize i = 0; i < count; ++i)
    if (auto path = pathOfURL(textOf(childOf(urls, i)))) observedFolders_.push_back(*std::move(path));
}

void ExtensionLink::vanished() {
  if (owner_.empty()) return;
  owner_.clear();
  unsubscribe();
  const bool wasReady = std::exchange(ready_, false);
  if (wasReady && g_get_monotonic_time() - readySince_ >= microseconds(retries_.last())) {
    triedAtOnce_ = false;
    retries_.reset();
  }
  listener_.extensionGone();
}

// --- Calls ----------------------------------------------------------------------------------------------------------

void ExtensionLink::call(const char* method, GVariant* arguments, const char* type, Done done) {
  callObject(dbus::BUS_NAME, dbus::OBJECT_PATH, dbus::INTERFACE, method, arguments, type, G_DBUS_CALL_FLAGS_NONE,
             std::move(done));
}

void ExtensionLink::callRunning(const char* method, GVariant* arguments, const char* type, Done done) {
  const GVariantPtr owned(g_variant_ref_sink(arguments));
  if (owner_.empty()) return done(nullptr, {NO_REPLY, "the extension has gone"});
  callObject(owner_.c_str(), dbus::OBJECT_PATH, dbus::INTERFACE, method, arguments, type, G_DBUS_CALL_FLAGS_NONE,
             std::move(done));
}

void ExtensionLink::readAllProperties(bool mayStart, Done done) {
  callObject(dbus::BUS_NAME, dbus::OBJECT_PATH, PROPERTIES, "GetAll", g_variant_new("(s)", dbus::INTERFACE), "(a{sv})",
             mayStart ? G_DBUS_CALL_FLAGS_NONE : G_DBUS_CALL_FLAGS_NO_AUTO_START, std::move(done));
}

void ExtensionLink::callBus(const char* method, GVariant* arguments, const char* type, Done done) {
  callObject(BUS, BUS_PATH, BUS, method, arguments, type, G_DBUS_CALL_FLAGS_NONE, std::move(done));
}

void ExtensionLink::send(const char* method, GVariant* arguments) {
  const GVariantPtr owned(g_variant_ref_sink(arguments));
  if (owner_.empty()) return;
  g_dbus_connection_call(connection_.get(), owner_.c_str(), dbus::OBJECT_PATH, dbus::INTERFACE, method, arguments,
                         nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, nullptr, nullptr);
}

void ExtensionLink::callObject(const char* name, const char* path, const char* interface, const char* method,
                               GVariant* arguments, const char* type, GDBusCallFlags flags, Done done) {
  const GVariantPtr owned(arguments ? g_variant_ref_sink(arguments) : nullptr);
  if (!connection_) return done(nullptr, {DISCONNECTED, "no connection to the session bus"});
  const ContextScope scope(context_);
  const auto finished = +[](GObject* connection, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<Call> call(static_cast<Call*>(data));
    GErrorPtr error;
    const GVariantPtr values(g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, ErrorTo(error)));
    const auto link = call->link.lock();
    if (!link) return;
    const TracedCall traced("answer");
    guarded([&] {
      if (!values) return call->done(nullptr, callErrorOf(error.get()));
      const bool valid = g_variant_is_of_type(values.get(), G_VARIANT_TYPE(call->type));
      if (!valid || isLarge(values.get())) (*link)->disposal_.add(values.get());
      if (valid) return call->done(values.get(), {});
      call->done(nullptr, {INVALID_REPLY, "an answer of another type"});
    });
  };
  g_dbus_connection_call(connection_.get(), name, path, interface, method, arguments, nullptr, flags, G_MAXINT, nullptr,
                         finished, new Call{self_, type, std::move(done)});
}

}  // namespace vornet::client
