#include "Client.hpp"

#include <FinderSync1.h>

#include <utility>

#include "GLibPtr.hpp"
#include "PathURL.hpp"
#include "dbus/Interface.hpp"

namespace vornet::vi {
namespace {

constexpr const char* DAEMON_NAME = "org.freedesktop.DBus";
constexpr const char* DAEMON_PATH = "/org/freedesktop/DBus";

/// One blocking operation under way.
struct Waiting {
  GObjectPtr<GAsyncResult> result;
  GCancellable* cancellable = nullptr;
  bool late = false;
};

void takeResult(GObject*, GAsyncResult* result, gpointer data) {
  g_object_ref(result);
  static_cast<Waiting*>(data)->result.reset(result);
}

gboolean cutOff(gpointer data) {
  auto* waiting = static_cast<Waiting*>(data);
  waiting->late = true;
  g_cancellable_cancel(waiting->cancellable);
  return G_SOURCE_REMOVE;
}

/// A list of URLs in the shape that the generated code takes.
class URLs {
 public:
  explicit URLs(const std::vector<std::string>& paths) {
    texts_.reserve(paths.size());
    for (const std::string& path : paths) {
      texts_.push_back(urlOfPath(path));
    }
    pointers_.reserve(paths.size() + 1);
    for (const std::string& text : texts_) {
      pointers_.push_back(text.c_str());
    }
    pointers_.push_back(nullptr);
  }
  const gchar* const* get() const { return pointers_.data(); }

 private:
  std::vector<std::string> texts_;
  std::vector<const gchar*> pointers_;
};

std::string subjectOf(const std::vector<std::string>& selection) {
  return selection.size() == 1 ? selection.front() : std::string{};
}

std::string lookupText(GVariant* properties, const char* name) {
  const gchar* text = nullptr;
  return g_variant_lookup(properties, name, "&s", &text) ? text : "";
}

ExtensionInfo infoFrom(GVariant* reply) {
  const GVariantPtr properties{g_variant_get_child_value(reply, 0)};
  ExtensionInfo info;
  info.version = lookupText(properties.get(), "Version");
  info.logFile = lookupText(properties.get(), "LogFile");
  if (const GVariantPtr folders{
          g_variant_lookup_value(properties.get(), "ObservedFolders", G_VARIANT_TYPE_STRING_ARRAY)}) {
    for (gsize i = 0; i < g_variant_n_children(folders.get()); ++i) {
      const gchar* url = nullptr;
      g_variant_get_child(folders.get(), i, "&s", &url);
      info.observedFolders.push_back(pathOfURL(url).value_or(url));
    }
  }
  if (const GVariantPtr badges{g_variant_lookup_value(properties.get(), "Badges", G_VARIANT_TYPE("a(sss)"))}) {
    for (gsize i = 0; i < g_variant_n_children(badges.get()); ++i) {
      const gchar* identifier = nullptr;
      const gchar* label = nullptr;
      const gchar* image = nullptr;
      g_variant_get_child(badges.get(), i, "(&s&s&s)", &identifier, &label, &image);
      info.badges.push_back({identifier, label, image});
    }
  }
  return info;
}

}  // namespace

struct Client::Impl {
  explicit Impl(std::chrono::milliseconds limit) : timeout(limit) {}

  std::chrono::milliseconds timeout;
  GObjectPtr<GDBusConnection> connection;
  GObjectPtr<VornetFinderSync1> proxy;
  GObjectPtr<GCancellable> leaving{g_cancellable_new()};  // cancels the badge requests when the client goes
  std::size_t requestsUnderWay = 0;
  Waiting* waiting = nullptr;
  bool limitReached = false;  // the last blocking operation was cut off
  std::function<void(Changes)> badgesChanged;
  std::function<void()> ownerChanged;
  std::function<void()> busClosed;

  double seconds() const { return std::chrono::duration<double>(timeout).count(); }

  std::string owner() const {
    const GCharPtr name{g_dbus_proxy_get_name_owner(G_DBUS_PROXY(proxy.get()))};
    return name ? name.get() : "";
  }

  /// Starts an asynchronous operation with a cancellable and what else GIO wants, and runs the main context until its
  /// result is there: at the latest when the limit, or interrupt(), cuts it off.
  template <typename Start>
  GObjectPtr<GAsyncResult> await(std::chrono::milliseconds limit, const Start& start) {
    const GObjectPtr<GCancellable> cancellable{g_cancellable_new()};
    Waiting now;
    now.cancellable = cancellable.get();
    waiting = &now;
    const guint timer = g_timeout_add(static_cast<guint>(limit.count()), cutOff, &now);
    start(cancellable.get(), takeResult, static_cast<gpointer>(&now));
    while (!now.result) {
      g_main_context_iteration(nullptr, TRUE);
    }
    waiting = nullptr;
    limitReached = now.late;
    if (!now.late) {
      g_source_remove(timer);
    }
    return std::move(now.result);
  }
  /// Throws what `error` means. `hadOwner`: the call went to a running extension.
  [[noreturn]] void fail(GError* error, const std::string& subject, bool hadOwner) {
    const GErrorPtr owned{error};
    throw failure(*owned, subject, hadOwner, limitReached);
  }

  Failure failure(const GError& error, const std::string& subject, bool hadOwner, bool cutShort) const {
    Failure meaning = failureOf(error, subject, seconds());
    if (meaning.kind() == FailureKind::interrupted && cutShort) {
      return timeoutFailure(seconds());
    }
    // Such a call is addressed to the process itself: unknown means that it has just left.
    if (meaning.kind() == FailureKind::notInstalled && hadOwner) {
      return {FailureKind::gone, "the extension ended before it answered"};
    }
    return meaning;
  }

  void connect() {
    GError* error = nullptr;
    const GCharPtr address{g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, &error)};
    if (error != nullptr) {
      const GErrorPtr owned{error};
      throw Failure{FailureKind::noBus, std::string{"no session bus: "} + owned->message};
    }
    auto result = await(timeout, [&](GCancellable* cancellable, GAsyncReadyCallback done, gpointer data) {
      g_dbus_connection_new_for_address(
          address.get(),
          static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                            G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
          nullptr, cancellable, done, data);
    });
    connection.reset(g_dbus_connection_new_for_address_finish(result.get(), &error));
    if (error == nullptr) {
      result = await(timeout, [&](GCancellable* cancellable, GAsyncReadyCallback done, gpointer data) {
        vornet_finder_sync1_proxy_new(
            connection.get(),
            static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES |
                                         G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START_AT_CONSTRUCTION),
            dbus::BUS_NAME, dbus::OBJECT_PATH, cancellable, done, data);
      });
      proxy.reset(vornet_finder_sync1_proxy_new_finish(result.get(), &error));
    }
    if (error != nullptr) {
      const GErrorPtr owned{error};
      throw Failure{FailureKind::noBus, limitReached ? std::string{"the session bus does not answer"}
                                                     : std::string{"no session bus: "} + owned->message};
    }
    g_dbus_proxy_set_default_timeout(G_DBUS_PROXY(proxy.get()), static_cast<gint>(timeout.count()));
    g_signal_connect(proxy.get(), "badges-changed", G_CALLBACK(handleBadgesChanged), this);
    g_signal_connect(proxy.get(), "notify::g-name-owner", G_CALLBACK(handleOwnerChanged), this);
    g_signal_connect(connection.get(), "closed", G_CALLBACK(handleBusClosed), this);
  }

  /// A call to the bus itself, or to the extension for what the generated code does not offer.
  GVariantPtr call(const char* name, const char* path, const char* interface, const char* method, GVariant* arguments,
                   const char* replyType, GDBusCallFlags flags) {
    const bool hadOwner = !owner().empty();
    const auto result = await(timeout, [&](GCancellable* cancellable, GAsyncReadyCallback done, gpointer data) {
      g_dbus_connection_call(connection.get(), name, path, interface, method, arguments, G_VARIANT_TYPE(replyType),
                             flags, static_cast<gint>(timeout.count()), cancellable, done, data);
    });
    GError* error = nullptr;
    GVariantPtr reply{g_dbus_connection_call_finish(connection.get(), result.get(), &error)};
    if (error != nullptr) {
      fail(error, "", hadOwner);
    }
    return reply;
  }

  GVariantPtr callDaemon(const char* method, GVariant* arguments, const char* replyType) {
    return call(DAEMON_NAME, DAEMON_PATH, DAEMON_NAME, method, arguments, replyType, G_DBUS_CALL_FLAGS_NONE);
  }

  ExtensionInfo info(GDBusCallFlags flags) {
    return infoFrom(call(dbus::BUS_NAME, dbus::OBJECT_PATH, "org.freedesktop.DBus.Properties", "GetAll",
                         g_variant_new("(s)", dbus::INTERFACE), "(a{sv})", flags)
                        .get());
  }

  static void handleBadgesChanged(VornetFinderSync1*, GVariant* changes, gpointer data) {
    const auto* self = static_cast<Impl*>(data);
    if (!self->badgesChanged) {
      return;
    }
    Changes list;
    const gsize count = g_variant_n_children(changes);
    list.reserve(count);
    for (gsize i = 0; i < count; ++i) {
      const gchar* url = nullptr;
      const gchar* identifier = nullptr;
      g_variant_get_child(changes, i, "(&s&s)", &url, &identifier);
      if (auto path = pathOfURL(url)) {
        list.emplace_back(std::move(*path), identifier);
      }
    }
    self->badgesChanged(std::move(list));
  }

  static void handleOwnerChanged(GObject*, GParamSpec*, gpointer data) {
    if (const auto* self = static_cast<Impl*>(data); self->ownerChanged) {
      self->ownerChanged();
    }
  }

  static void handleBusClosed(GDBusConnection*, gboolean, GError*, gpointer data) {
    if (const auto* self = static_cast<Impl*>(data); self->busClosed) {
      self->busClosed();
    }
  }

  struct BadgeRequest {
    Impl* client;
    std::size_t count;
    bool hadOwner;
    BadgesAnswer answer;
  };

  static void handleBadges(GObject* proxy, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<BadgeRequest> request{static_cast<BadgeRequest*>(data)};
    Impl& self = *request->client;
    --self.requestsUnderWay;
    gchar** texts = nullptr;
    GError* error = nullptr;
    vornet_finder_sync1_call_request_badges_finish(reinterpret_cast<VornetFinderSync1*>(proxy), &texts, result, &error);
    const GStrvPtr ownedTexts{texts};
    const GErrorPtr ownedError{error};
    if (g_cancellable_is_cancelled(self.leaving.get())) {
      return;
    }
    if (error != nullptr) {
      request->answer({}, self.failure(*error, "", request->hadOwner, false));
      return;
    }
    std::vector<std::string> identifiers;
    for (gchar** text = texts; *text != nullptr; ++text) {
      identifiers.emplace_back(*text);
    }
    if (identifiers.size() != request->count) {
      request->answer({},
                      Failure{FailureKind::refused, "the extension answered for another number of items than asked"});
      return;
    }
    request->answer(std::move(identifiers), std::nullopt);
  }
};

Client::Client(std::chrono::milliseconds timeout) : impl_(std::make_unique<Impl>(timeout)) {
  impl_->connect();
}

Client::~Client() {
  if (impl_->proxy) {
    g_signal_handlers_disconnect_by_data(impl_->proxy.get(), impl_.get());
    g_signal_handlers_disconnect_by_data(impl_->connection.get(), impl_.get());
  }
  g_cancellable_cancel(impl_->leaving.get());
  while (impl_->requestsUnderWay > 0) {
    g_main_context_iteration(nullptr, TRUE);
  }
}

ExtensionInfo Client::info() {
  return impl_->info(G_DBUS_CALL_FLAGS_NONE);
}

ExtensionInfo Client::infoIfRunning() {
  return impl_->info(G_DBUS_CALL_FLAGS_NO_AUTO_START);
}

void Client::beginObserving(const std::string& folder) {
  const bool hadOwner = !owner().empty();
  const std::string url = urlOfPath(folder);
  const auto result =
      impl_->await(impl_->timeout, [&](GCancellable* cancellable, GAsyncReadyCallback done, gpointer data) {
        vornet_finder_sync1_call_begin_observing(impl_->proxy.get(), url.c_str(), cancellable, done, data);
      });
  GError* error = nullptr;
  if (!vornet_finder_sync1_call_begin_observing_finish(impl_->proxy.get(), result.get(), &error)) {
    impl_->fail(error, folder, hadOwner);
  }
}

void Client::endObserving(const std::string& folder, std::optional<std::chrono::milliseconds> limit) {
  const bool hadOwner = !owner().empty();
  const std::string url = urlOfPath(folder);
  const auto result = impl_->await(
      limit.value_or(impl_->timeout), [&](GCancellable* cancellable, GAsyncReadyCallback done, gpointer data) {
        vornet_finder_sync1_call_end_observing(impl_->proxy.get(), url.c_str(), cancellable, done, data);
      });
  GError* error = nullptr;
  if (!vornet_finder_sync1_call_end_observing_finish(impl_->proxy.get(), result.get(), &error)) {
    impl_->fail(error, folder, hadOwner);
  }
}

std::vector<MenuEntry> Client::menu(const std::vector<std::string>& selection) {
  const bool hadOwner = !owner().empty();
  const URLs urls{selection};
  const auto result =
      impl_->await(impl_->timeout, [&](GCancellable* cancellable, GAsyncReadyCallback done, gpointer data) {
        vornet_finder_sync1_call_get_menu(impl_->proxy.get(), urls.get(), cancellable, done, data);
      });
  GVariant* reply = nullptr;
  GError* error = nullptr;
  vornet_finder_sync1_call_get_menu_finish(impl_->proxy.get(), &reply, result.get(), &error);
  if (error != nullptr) {
    impl_->fail(error, subjectOf(selection), hadOwner);
  }
  const GVariantPtr entries{reply};
  std::vector<MenuEntry> menu;
  for (gsize i = 0; i < g_variant_n_children(entries.get()); ++i) {
    const gchar* title = nullptr;
    const gchar* action = nullptr;
    gboolean enabled = FALSE;
    const gchar* image = nullptr;
    g_variant_get_child(entries.get(), i, "(&s&sb&s)", &title, &action, &enabled, &image);
    menu.push_back({title, action, enabled != FALSE, image});
  }
  return menu;
}

void Client::performAction(const std::string& action, const std::vector<std::string>& selection) {
  const bool hadOwner = !owner().empty();
  const URLs urls{selection};
  const auto result = impl_->await(impl_->timeout, [&](GCancellable* cancellable, GAsyncReadyCallback done,
                                                       gpointer data) {
    vornet_finder_sync1_call_perform_action(impl_->proxy.get(), action.c_str(), urls.get(), cancellable, done, data);
  });
  GError* error = nullptr;
  if (!vornet_finder_sync1_call_perform_action_finish(impl_->proxy.get(), result.get(), &error)) {
    impl_->fail(error, subjectOf(selection), hadOwner);
  }
}

void Client::start() {
  impl_->callDaemon("StartServiceByName", g_variant_new("(su)", dbus::BUS_NAME, 0U), "(u)");
}

std::optional<ExtensionProcess> Client::process() {
  ExtensionProcess process;
  process.uniqueName = owner();
  if (process.uniqueName.empty()) {
    return std::nullopt;
  }
  try {
    const GVariantPtr reply =
        impl_->callDaemon("GetConnectionUnixProcessID", g_variant_new("(s)", process.uniqueName.c_str()), "(u)");
    g_variant_get(reply.get(), "(u)", &process.pid);
  } catch (const Failure& failure) {
    if (failure.kind() == FailureKind::gone || failure.kind() == FailureKind::notInstalled) {
      return std::nullopt;
    }
    throw;
  }
  return process;
}

bool Client::canBeStarted() {
  const GVariantPtr reply = impl_->callDaemon("ListActivatableNames", nullptr, "(as)");
  const GVariantPtr names{g_variant_get_child_value(reply.get(), 0)};
  for (gsize i = 0; i < g_variant_n_children(names.get()); ++i) {
    const gchar* name = nullptr;
    g_variant_get_child(names.get(), i, "&s", &name);
    if (std::string_view{name} == dbus::BUS_NAME) {
      return true;
    }
  }
  return false;
}

void Client::requestBadges(const std::vector<std::string>& items, BadgesAnswer answer) {
  const URLs urls{items};
  auto request = std::make_unique<Impl::BadgeRequest>(
      Impl::BadgeRequest{impl_.get(), items.size(), !owner().empty(), std::move(answer)});
  ++impl_->requestsUnderWay;
  vornet_finder_sync1_call_request_badges(impl_->proxy.get(), urls.get(), impl_->leaving.get(), Impl::handleBadges,
                                          request.release());
}

void Client::onBadgesChanged(std::function<void(Changes)> handler) {
  impl_->badgesChanged = std::move(handler);
}

void Client::onOwnerChanged(std::function<void()> handler) {
  impl_->ownerChanged = std::move(handler);
}

void Client::onBusClosed(std::function<void()> handler) {
  impl_->busClosed = std::move(handler);
}

std::string Client::owner() const {
  return impl_->owner();
}

void Client::interrupt() {
  if (impl_->waiting != nullptr) {
    g_cancellable_cancel(impl_->waiting->cancellable);
  }
}

}  // namespace vornet::vi
