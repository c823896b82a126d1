#include "ExtensionLink.hpp"

#include <algorithm>
#include <mutex>
#include <utility>

#include "Guarded.hpp"
#include "Paths.hpp"
#include "Trace.hpp"
#include "Values.hpp"
#include "dbus/Interface.hpp"

namespace vornet::client {
namespace {

constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";
constexpr const char* BUS = "org.freedesktop.DBus";
constexpr const char* BUS_PATH = "/org/freedesktop/DBus";
constexpr const char* NOT_INSTALLED = "org.freedesktop.DBus.Error.ServiceUnknown";
constexpr const char* INVALID_REPLY = "InvalidReply";
constexpr const char* DISCONNECTED = "Disconnected";

// As many observed folders as are looked at; the extension has one.
constexpr std::size_t MOST_FOLDERS = 1000;

// As many changed properties as are looked at; it has four.
constexpr gsize MOST_PROPERTIES = 100;

// Values with more entries are freed on a thread of their own.
constexpr gsize LARGE = 5000;

gint64 microseconds(std::chrono::milliseconds time) {
  return std::chrono::microseconds(time).count();
}

/// Takes the remote error's name off `error`'s message.
CallError callErrorOf(GError* error) {
  const GCharPtr remote(g_dbus_error_get_remote_error(error));
  std::string name = remote ? remote.get() : DISCONNECTED;
  if (name.starts_with(dbus::ERROR_PREFIX)) name.erase(0, std::string_view(dbus::ERROR_PREFIX).size());
  g_dbus_error_strip_remote_error(error);
  return {name, error->message};
}

/// What a task of GLib returns goes from its thread to another. GLib is not instrumented: the thread sanitizer sees no
/// order but that of this lock.
void passHandOver() {
  static std::mutex lock;
  const std::lock_guard guard(lock);
}

/// Finding the bus may read files or start a program, so it has a thread of its own.
void findBus(GTask* task, gpointer, gpointer, GCancellable*) {
  GError* error = nullptr;  // given on to the task, as the address is
  gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, &error);
  passHandOver();
  if (address)
    g_task_return_pointer(task, address, g_free);
  else
    g_task_return_error(task, error);
}

/// Whether it takes long to free `values`, which are of the type expected.
bool isLarge(GVariant* values) {
  if (g_variant_n_children(values) == 0) return false;
  const Value first = childOf(values, 0);
  return g_variant_is_of_type(first.get(), G_VARIANT_TYPE_VARIANT) ||
         (g_variant_is_container(first.get()) && g_variant_n_children(first.get()) > LARGE);
}

using WeakLink = std::weak_ptr<ExtensionLink*>;

std::unique_ptr<WeakLink> takeLink(gpointer data) {
  return std::unique_ptr<WeakLink>(static_cast<WeakLink*>(data));
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

void ExtensionLink::want() {
  if (ready_ || starting_ || retry_.isRunning()) return;
  const bool failedJustNow = lastFailure_ != 0 && g_get_monotonic_time() - lastFailure_ < microseconds(retries_.last());
  if (failedJustNow) return;
  start();
}

void ExtensionLink::wantAgain() {
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
  const ContextScope scope(context_);  // where the closing completes, or the connection is never given back
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

/// What is not installed is not asked for again until somebody comes to a folder later; what fails otherwise is tried a
/// few times, ever later.
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
  vanished();  // when one process took the name over from another
  owner_ = owner;
  retry_.stop();
  lastFailure_ = 0;

  // By the owner's unique name: what an earlier process sent is none of this one's.
  const ContextScope scope(context_);
  const auto badges =
      +[](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* values, gpointer self) {
        auto& link = *static_cast<ExtensionLink*>(self);
        if (!g_variant_is_of_type(values, G_VARIANT_TYPE("(a(ss))"))) return link.disposal_.add(values);
        const Value changes = childOf(values, 0);
        link.listener_.badgesChanged(changes.get());
      };
  badgesSubscription_ =
      g_dbus_connection_signal_subscribe(connection_.get(), owner_.c_str(), dbus::INTERFACE, "BadgesChanged",
                                         dbus::OBJECT_PATH, nullptr, G_DBUS_SIGNAL_FLAGS_NONE, badges, this, nullptr);
  const auto properties =
      +[](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* values, gpointer self) {
        guarded([&] { static_cast<ExtensionLink*>(self)->propertiesChanged(values); });
      };
  propertiesSubscription_ = g_dbus_connection_signal_subscribe(connection_.get(), owner_.c_str(), PROPERTIES,
                                                               "PropertiesChanged", dbus::OBJECT_PATH, dbus::INTERFACE,
                                                               G_DBUS_SIGNAL_FLAGS_NONE, properties, this, nullptr);
  readProperties();
}

void ExtensionLink::unsubscribe() {
  for (auto* subscription : {&badgesSubscription_, &propertiesSubscription_}) {
    if (*subscription) g_dbus_connection_signal_unsubscribe(connection_.get(), *subscription);
    *subscription = 0;
  }
  readAgain_.stop();
  newFolders_.reset();
}

void ExtensionLink::readProperties() {
  const auto taken = [this, owner = owner_](GVariant* values, const CallError&) {
    if (owner != owner_) return;
    const Value boxed(values ? g_variant_get_variant(childOf(values, 0).get()) : nullptr);
    const bool known = boxed && g_variant_is_of_type(boxed.get(), G_VARIANT_TYPE_STRING_ARRAY);
    if (known) takeObservedFolders(boxed.get());
    if (!known) return readAgain_.start(readRetries_.next(), [this] { readProperties(); });
    readRetries_.reset();
    ready_ = true;
    readySince_ = g_get_monotonic_time();
    listener_.extensionReady();
  };
  callObject(owner_.c_str(), dbus::OBJECT_PATH, PROPERTIES, "Get",
             g_variant_new("(ss)", dbus::INTERFACE, "ObservedFolders"), "(v)", G_DBUS_CALL_FLAGS_NONE, taken);
}

/// Of several changes that come in a row the last one counts.
void ExtensionLink::propertiesChanged(GVariant* values) {
  disposal_.add(values);
  if (!g_variant_is_of_type(values, G_VARIANT_TYPE("(sa{sv}as)"))) return;
  const Value changed = childOf(values, 1);
  if (g_variant_n_children(changed.get()) > MOST_PROPERTIES) return;
  Value folders(g_variant_lookup_value(changed.get(), "ObservedFolders", G_VARIANT_TYPE_STRING_ARRAY));
  if (!folders) return;
  const bool waits = newFolders_ != nullptr;
  newFolders_ = std::move(folders);
  if (waits) return;
  work_.add([this] {
    const auto told = std::exchange(newFolders_, nullptr);
    if (!told) return false;
    takeObservedFolders(told.get());
    disposal_.add(told.get());
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
  const Value owned(g_variant_ref_sink(arguments));
  if (owner_.empty()) return;
  g_dbus_connection_call(connection_.get(), owner_.c_str(), dbus::OBJECT_PATH, dbus::INTERFACE, method, arguments,
                         nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, nullptr, nullptr);
}

void ExtensionLink::callObject(const char* name, const char* path, const char* interface, const char* method,
                               GVariant* arguments, const char* type, GDBusCallFlags flags, Done done) {
  const Value owned(arguments ? g_variant_ref_sink(arguments) : nullptr);
  if (!connection_) return done(nullptr, {DISCONNECTED, "no connection to the session bus"});
  const ContextScope scope(context_);
  const auto finished = +[](GObject* connection, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<Call> call(static_cast<Call*>(data));
    GErrorPtr error;
    const Value values(g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, ErrorTo(error)));
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
