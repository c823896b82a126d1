#include "support/BusClient.hpp"

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "dbus/Interface.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

constexpr int CALL_TIMEOUT_MS = 30'000;

BusReply replyOf(GVariantPtr value, const GErrorPtr& failure) {
  BusReply reply{"", std::move(value)};
  if (failure) {
    const GCharPtr name(g_dbus_error_get_remote_error(failure.get()));
    // A copy: another thread, which the sanitizer cannot see, made the message.
    const GCharPtr message(g_strdup(failure->message));
    reply.error = name ? name.get() : message.get();
    reply.error.erase(0, reply.error.rfind('.') + 1);
  }
  return reply;
}

using Done = std::function<void(BusReply)>;

void finished(GObject* connection, GAsyncResult* result, gpointer data) {
  const std::unique_ptr<Done> done(static_cast<Done*>(data));
  GErrorPtr failure;
  GVariantPtr value(g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, ErrorTo(failure)));
  (*done)(replyOf(std::move(value), failure));
}

}  // namespace

GObjectPtr<GDBusConnection> connectToBus(const std::string& address) {
  constexpr auto FLAGS = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  GErrorPtr failure;
  GObjectPtr<GDBusConnection> connection(
      g_dbus_connection_new_for_address_sync(address.c_str(), FLAGS, nullptr, nullptr, ErrorTo(failure)));
  if (!connection) throw std::runtime_error(replyOf(nullptr, failure).error);
  return connection;
}

GVariant* textList(const std::vector<std::string>& texts) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_STRING_ARRAY);
  for (const auto& text : texts) g_variant_builder_add(&builder, "s", text.c_str());
  return g_variant_builder_end(&builder);
}

std::string bytesOf(const GObjectPtr<GDBusMessage>& message) {
  gsize size = 0;
  GErrorPtr error;
  const GCharPtr bytes(reinterpret_cast<gchar*>(
      g_dbus_message_to_blob(message.get(), &size, G_DBUS_CAPABILITY_FLAGS_NONE, ErrorTo(error))));
  if (!bytes) throw std::runtime_error(replyOf(nullptr, error).error);
  return {bytes.get(), size};
}

std::vector<std::string> BusReply::texts() const {
  std::vector<std::string> result;
  if (!value) return result;
  GVariantIter* iterator = nullptr;
  g_variant_get(value.get(), "(as)", &iterator);
  for (const gchar* text; g_variant_iter_next(iterator, "&s", &text);) result.emplace_back(text);
  g_variant_iter_free(iterator);
  return result;
}

std::vector<MenuEntry> BusReply::entries() const {
  std::vector<MenuEntry> result;
  if (!value) return result;
  GVariantIter* iterator = nullptr;
  g_variant_get(value.get(), "(a(ssbs))", &iterator);
  gboolean enabled = FALSE;
  for (const gchar *title, *action, *image;
       g_variant_iter_next(iterator, "(&s&sb&s)", &title, &action, &enabled, &image);)
    result.push_back({title, action, enabled != FALSE, image});
  g_variant_iter_free(iterator);
  return result;
}

BusClient::BusClient(const std::string& address) : BusClient([&] { return connectToBus(address); }) {}

BusClient::BusClient(const std::function<GObjectPtr<GDBusConnection>()>& connect) : context_(g_main_context_new()) {
  g_main_context_push_thread_default(context_.get());
  connection_ = connect();
  const auto take = +[](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* signal,
                        GVariant* values, gpointer data) {
    auto& client = *static_cast<BusClient*>(data);
    if (std::string_view(signal) == "BadgesChanged") client.takeChanges(values);
    if (std::string_view(signal) == "FolderBadges") client.takeFolder(values);
  };
  g_dbus_connection_signal_subscribe(connection_.get(), nullptr, dbus::INTERFACE, nullptr, dbus::OBJECT_PATH, nullptr,
                                     G_DBUS_SIGNAL_FLAGS_NONE, take, this, nullptr);
  g_dbus_connection_start_message_processing(connection_.get());
  g_main_context_pop_thread_default(context_.get());
}

void BusClient::takeChanges(GVariant* values) {
  ++signals_;
  GVariantIter* iterator = nullptr;
  g_variant_get(values, "(a(ss))", &iterator);
  for (const gchar *item, *identifier; g_variant_iter_next(iterator, "(&s&s)", &item, &identifier);)
    changes_[item] = identifier;
  g_variant_iter_free(iterator);
}

void BusClient::takeFolder(GVariant* values) {
  static const std::vector<std::string> identifiers = {"", "SKIPPED", "PENDING", "SYNCED"};  // as they are registered
  guint64 number = 0;
  guchar flags = 0;
  const gchar* names = nullptr;
  g_variant_get(values, "(ty&s@ay)", &number, &flags, &names, nullptr);
  const GVariantPtr list = childOf(values, 3);
  gsize count = 0;
  const auto* badges = static_cast<const guchar*>(g_variant_get_fixed_array(list.get(), &count, 1));
  Stream& stream = streams_[number];
  stream.messages.push_back(count);
  stream.last = ++folderMessages_;
  if (flags & dbus::NO_SNAPSHOT) stream.isRefused = true;
  if (flags & dbus::SNAPSHOT_BEGINS) {
    stream.badges.clear();
    stream.isOpen = true;
  }
  std::string_view rest = names;
  for (gsize i = 0; i < count; ++i) {
    const std::string name(rest.substr(0, rest.find('/')));
    rest.remove_prefix(std::min(name.size() + 1, rest.size()));
    const auto& identifier = identifiers.at(badges[i]);
    stream.history.emplace_back(name, identifier);
    if (identifier.empty())
      stream.badges.erase(name);
    else
      stream.badges[name] = identifier;
  }
  if (flags & dbus::SNAPSHOT_ENDS) {
    ++stream.snapshots;
    stream.isOpen = false;
  }
}

BusClient::~BusClient() {
  disconnect();
}

void BusClient::disconnect() {
  if (!connection_) return;
  g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr);
  while (g_main_context_iteration(context_.get(), FALSE)) continue;
  connection_.reset();
}

void BusClient::call(const std::string& method, GVariant* arguments, Done done) {
  g_main_context_push_thread_default(context_.get());
  g_dbus_connection_call(connection_.get(), dbus::BUS_NAME, dbus::OBJECT_PATH, dbus::INTERFACE, method.c_str(),
                         arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, CALL_TIMEOUT_MS, nullptr, &finished,
                         new Done(std::move(done)));
  g_main_context_pop_thread_default(context_.get());
}

BusReply BusClient::callAndWait(const std::string& method, GVariant* arguments) {
  std::shared_ptr<BusReply> reply;
  call(method, arguments, [&reply](BusReply given) { reply = std::make_shared<BusReply>(std::move(given)); });
  while (!reply) g_main_context_iteration(context_.get(), TRUE);
  return *reply;
}

BusReply BusClient::menu(const std::vector<std::string>& urls, std::vector<MenuEntry>& entries) {
  auto reply = callAndWait("GetMenu", urlArguments(urls));
  entries = reply.entries();
  return reply;
}

std::string BusClient::property(const std::string& name) {
  const GVariantPtr values(g_dbus_connection_call_sync(
      connection_.get(), dbus::BUS_NAME, dbus::OBJECT_PATH, "org.freedesktop.DBus.Properties", "Get",
      g_variant_new("(ss)", dbus::INTERFACE, name.c_str()), G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NONE,
      CALL_TIMEOUT_MS, nullptr, nullptr));
  if (!values) return "";
  const GVariantPtr value(g_variant_get_variant(childOf(values.get(), 0).get()));
  return GCharPtr(g_variant_print(value.get(), FALSE)).get();
}

int BusClient::extensionProcess() {
  guint32 process = 0;
  if (const auto values = askBusAboutExtension("org.freedesktop.DBus", "GetConnectionUnixProcessID"))
    g_variant_get(values.get(), "(u)", &process);
  return static_cast<int>(process);
}

std::optional<unsigned> BusClient::extensionsMatchRules() {
  const auto stats = askBusAboutExtension("org.freedesktop.DBus.Debug.Stats", "GetConnectionStats");
  if (!stats) return std::nullopt;
  const GVariantPtr values = childOf(stats.get(), 0);
  guint32 count = 0;
  if (!g_variant_lookup(values.get(), "MatchRules", "u", &count)) return std::nullopt;
  return count;
}

GVariantPtr BusClient::askBusAboutExtension(const char* interface, const char* method) {
  return GVariantPtr(g_dbus_connection_call_sync(connection_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                 interface, method, g_variant_new("(s)", dbus::BUS_NAME), nullptr,
                                                 G_DBUS_CALL_FLAGS_NONE, CALL_TIMEOUT_MS, nullptr, nullptr));
}

void BusClient::forgetChanges() {
  while (g_main_context_iteration(context_.get(), FALSE)) continue;
  changes_.clear();
  signals_ = 0;
}

bool BusClient::waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds patience) {
  const auto until = std::chrono::steady_clock::now() + patience;
  const GSourcePtr tick(g_timeout_source_new(10));
  g_source_set_callback(tick.get(), [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
  g_source_attach(tick.get(), context_.get());
  bool holds = condition();
  while (!holds && std::chrono::steady_clock::now() < until) {
    g_main_context_iteration(context_.get(), TRUE);
    holds = condition();
  }
  g_source_destroy(tick.get());
  return holds;
}

void BusClient::listenFor(std::chrono::milliseconds time) {
  waitUntil([] { return false; }, time);
}

bool BusClient::waitForChange(const std::string& item, const std::string& identifier) {
  return waitUntil([&] { return changes_.contains(item) && changes_.at(item) == identifier; });
}

}  // namespace vornet::test
