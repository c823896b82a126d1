#include "support/BusClient.hpp"

#include <chrono>
#include <stdexcept>

#include "dbus/Interface.hpp"

namespace vornet::test {
namespace {

constexpr std::chrono::seconds PATIENCE{30};
constexpr int CALL_TIMEOUT_MS = 30'000;

std::shared_ptr<GVariant> owned(GVariant* value) {
  return value ? std::shared_ptr<GVariant>(value, &g_variant_unref) : nullptr;
}

BusReply replyOf(GVariant* value, GError* failure) {
  BusReply reply{"", owned(value)};
  if (failure) {
    gchar* text = g_dbus_error_get_remote_error(failure);
    if (!text) text = g_strdup(failure->message);  // a copy: another thread, which the sanitizer cannot see, made it
    reply.error = text;
    g_free(text);
    reply.error.erase(0, reply.error.rfind('.') + 1);
    g_error_free(failure);
  }
  return reply;
}

using Done = std::function<void(BusReply)>;

void finished(GObject* connection, GAsyncResult* result, gpointer data) {
  const std::unique_ptr<Done> done(static_cast<Done*>(data));
  GError* failure = nullptr;
  GVariant* value = g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &failure);
  (*done)(replyOf(value, failure));
}

}  // namespace

std::vector<std::string> BusReply::texts() const {
  std::vector<std::string> result;
  if (!value) return result;
  GVariantIter* iterator = nullptr;
  g_variant_get(value.get(), "(as)", &iterator);
  for (const gchar* text; g_variant_iter_next(iterator, "&s", &text);) result.emplace_back(text);
  g_variant_iter_free(iterator);
  return result;
}

BusClient::BusClient(const std::string& address) : context_(g_main_context_new()) {
  g_main_context_push_thread_default(context_);
  GError* failure = nullptr;
  connection_ = g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &failure);
  if (!connection_) throw std::runtime_error(replyOf(nullptr, failure).error);
  const auto changed = +[](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                           GVariant* arguments, gpointer data) {
    auto& client = *static_cast<BusClient*>(data);
    ++client.signals_;
    GVariantIter* iterator = nullptr;
    g_variant_get(arguments, "(a(ss))", &iterator);
    const gchar* item = nullptr;
    const gchar* identifier = nullptr;
    while (g_variant_iter_next(iterator, "(&s&s)", &item, &identifier)) client.changes_[item] = identifier;
    g_variant_iter_free(iterator);
  };
  g_dbus_connection_signal_subscribe(connection_, nullptr, dbus::INTERFACE, "BadgesChanged", dbus::OBJECT_PATH, nullptr,
                                     G_DBUS_SIGNAL_FLAGS_NONE, changed, this, nullptr);
  g_main_context_pop_thread_default(context_);
}

BusClient::~BusClient() {
  disconnect();
  g_main_context_unref(context_);
}

void BusClient::disconnect() {
  if (!connection_) return;
  g_dbus_connection_close_sync(connection_, nullptr, nullptr);
  while (g_main_context_iteration(context_, FALSE)) continue;
  g_object_unref(connection_);
  connection_ = nullptr;
}

GVariant* BusClient::urlArguments(const std::vector<std::string>& urls) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("as"));
  for (const auto& url : urls) g_variant_builder_add(&builder, "s", url.c_str());
  return g_variant_new("(as)", &builder);
}

void BusClient::call(const std::string& method, GVariant* arguments, Done done) {
  g_main_context_push_thread_default(context_);
  g_dbus_connection_call(connection_, dbus::BUS_NAME, dbus::OBJECT_PATH, dbus::INTERFACE, method.c_str(), arguments,
                         nullptr, G_DBUS_CALL_FLAGS_NONE, CALL_TIMEOUT_MS, nullptr, &finished,
                         new Done(std::move(done)));
  g_main_context_pop_thread_default(context_);
}

BusReply BusClient::callAndWait(const std::string& method, GVariant* arguments) {
  std::shared_ptr<BusReply> reply;
  call(method, arguments, [&reply](BusReply given) { reply = std::make_shared<BusReply>(std::move(given)); });
  while (!reply) g_main_context_iteration(context_, TRUE);
  return *reply;
}

BusReply BusClient::beginObserving(const std::string& url) {
  return callAndWait("BeginObserving", g_variant_new("(s)", url.c_str()));
}

BusReply BusClient::endObserving(const std::string& url) {
  return callAndWait("EndObserving", g_variant_new("(s)", url.c_str()));
}

BusReply BusClient::requestBadges(const std::vector<std::string>& urls) {
  return callAndWait("RequestBadges", urlArguments(urls));
}

BusReply BusClient::performAction(const std::string& action, const std::vector<std::string>& urls) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("as"));
  for (const auto& url : urls) g_variant_builder_add(&builder, "s", url.c_str());
  return callAndWait("PerformAction", g_variant_new("(sas)", action.c_str(), &builder));
}

BusReply BusClient::menu(const std::vector<std::string>& urls, std::vector<MenuEntry>& entries) {
  auto reply = callAndWait("GetMenu", urlArguments(urls));
  entries.clear();
  if (!reply.value) return reply;
  GVariantIter* iterator = nullptr;
  g_variant_get(reply.value.get(), "(a(ssbs))", &iterator);
  const gchar* title = nullptr;
  const gchar* action = nullptr;
  gboolean enabled = FALSE;
  const gchar* image = nullptr;
  while (g_variant_iter_next(iterator, "(&s&sb&s)", &title, &action, &enabled, &image))
    entries.push_back({title, action, enabled != FALSE, image});
  g_variant_iter_free(iterator);
  return reply;
}

std::string BusClient::property(const std::string& name) {
  GVariant* value =
      g_dbus_connection_call_sync(connection_, dbus::BUS_NAME, dbus::OBJECT_PATH, "org.freedesktop.DBus.Properties",
                                  "Get", g_variant_new("(ss)", dbus::INTERFACE, name.c_str()), nullptr,
                                  G_DBUS_CALL_FLAGS_NONE, CALL_TIMEOUT_MS, nullptr, nullptr);
  if (!value) return "";
  const auto holder = owned(value);
  GVariant* inner = nullptr;
  g_variant_get(value, "(v)", &inner);
  const auto innerHolder = owned(inner);
  gchar* text = g_variant_print(inner, FALSE);
  std::string result(text);
  g_free(text);
  return result;
}

int BusClient::extensionProcess() {
  GVariant* value =
      g_dbus_connection_call_sync(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                  "GetConnectionUnixProcessID", g_variant_new("(s)", dbus::BUS_NAME), nullptr,
                                  G_DBUS_CALL_FLAGS_NONE, CALL_TIMEOUT_MS, nullptr, nullptr);
  if (!value) return 0;
  guint32 process = 0;
  g_variant_get(value, "(u)", &process);
  g_variant_unref(value);
  return static_cast<int>(process);
}

std::optional<unsigned> BusClient::extensionsMatchRules() {
  const auto stats = owned(g_dbus_connection_call_sync(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                       "org.freedesktop.DBus.Debug.Stats", "GetConnectionStats",
                                                       g_variant_new("(s)", dbus::BUS_NAME), nullptr,
                                                       G_DBUS_CALL_FLAGS_NONE, CALL_TIMEOUT_MS, nullptr, nullptr));
  if (!stats) return std::nullopt;
  const auto values = owned(g_variant_get_child_value(stats.get(), 0));
  guint32 count = 0;
  if (!g_variant_lookup(values.get(), "MatchRules", "u", &count)) return std::nullopt;
  return count;
}

void BusClient::forgetChanges() {
  while (g_main_context_iteration(context_, FALSE)) continue;
  changes_.clear();
  signals_ = 0;
}

bool BusClient::waitUntil(const std::function<bool()>& condition) {
  const auto until = std::chrono::steady_clock::now() + PATIENCE;
  GSource* tick = g_timeout_source_new(10);
  g_source_set_callback(tick, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
  g_source_attach(tick, context_);
  bool holds = condition();
  while (!holds && std::chrono::steady_clock::now() < until) {
    g_main_context_iteration(context_, TRUE);
    holds = condition();
  }
  g_source_destroy(tick);
  g_source_unref(tick);
  return holds;
}

bool BusClient::waitForChange(const std::string& item, const std::string& identifier) {
  return waitUntil([&] {
    const auto found = changes_.find(item);
    return found != changes_.end() && found->second == identifier;
  });
}

}  // namespace vornet::test
