#include "support/PeerBus.hpp"

#include <cstdlib>
#include <filesystem>

#include "dbus/Interface.hpp"
#include "support/Require.hpp"

namespace vornet::fuzz {
namespace {

constexpr const char* BUS = "org.freedesktop.DBus";
constexpr const char* CLIENT = ":1.0";  // its unique name

}  // namespace

PeerBus::PeerBus(GMainContext* context) : context_(context) {
  static std::string folder = (std::filesystem::temp_directory_path() / "vornet-fuzz.XXXXXX").string();
  require(::mkdtemp(folder.data()) != nullptr, "a folder can be made");
  std::atexit([] { std::filesystem::remove_all(folder); });
  g_main_context_push_thread_default(context_);  // connections are accepted there
  const GCharPtr guid(g_dbus_generate_guid());
  GDBusServer* server =
      g_dbus_server_new_sync(("unix:path=" + folder + "/bus").c_str(), G_DBUS_SERVER_FLAGS_RUN_IN_THREAD, guid.get(),
                             nullptr, nullptr, nullptr);
  require(server != nullptr, "a socket can be made");
  address_ = g_dbus_server_get_client_address(server);
  const auto arrived = +[](GDBusServer*, GDBusConnection* connection, gpointer self) -> gboolean {
    auto& bus = *static_cast<PeerBus*>(self);
    {
      const std::lock_guard guard(bus.mutex_);
      bus.connection_.reset(G_DBUS_CONNECTION(g_object_ref(connection)));
      bus.calls_.clear();
    }
    const auto filter = +[](GDBusConnection* from, GDBusMessage* message, gboolean incoming, gpointer data) {
      if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) return message;
      static_cast<PeerBus*>(data)->take(from, message);
      g_object_unref(message);
      return static_cast<GDBusMessage*>(nullptr);
    };
    g_dbus_connection_add_filter(connection, filter, self, nullptr);
    return TRUE;
  };
  g_signal_connect(server, "new-connection", G_CALLBACK(arrived), this);
  g_dbus_server_start(server);
  g_main_context_pop_thread_default(context_);
}

void PeerBus::on(const std::string& method, Answer answer) {
  const std::lock_guard guard(mutex_);
  answers_[method] = std::move(answer);
}

void PeerBus::reset() {
  const std::lock_guard guard(mutex_);
  calls_.clear();
  answers_.clear();
}

void PeerBus::restart() {
  // GDBus keeps a connection that its client has closed until it has reported the end on this context.
  while (g_main_context_iteration(nullptr, FALSE)) continue;
  reset();
  const std::lock_guard guard(mutex_);
  process_ = ":1." + std::to_string(++processes_);
  isKnown_ = false;
}

void PeerBus::start() {
  const std::lock_guard guard(mutex_);
  if (!connection_) return;
  const std::string former = ":1." + std::to_string(processes_ - 1);
  sendSignal(BUS, "/org/freedesktop/DBus", BUS, "NameOwnerChanged",
             g_variant_new("(sss)", dbus::BUS_NAME, former.c_str(), process_.c_str()));
}

std::size_t PeerBus::calls(const std::string& method) {
  const std::lock_guard guard(mutex_);
  return calls_[method];
}

void PeerBus::send(const char* interface, const char* signal, GVariant* values, const std::function<void()>& sending) {
  const std::lock_guard guard(mutex_);
  require(connection_ != nullptr, "somebody is connected");
  sending();
  sendSignal(process_.c_str(), dbus::OBJECT_PATH, interface, signal, values);
}

void PeerBus::sendSignal(const char* sender, const char* path, const char* interface, const char* signal,
                         GVariant* values) {
  const GObjectPtr<GDBusMessage> message(g_dbus_message_new_signal(path, interface, signal));
  g_dbus_message_set_sender(message.get(), sender);
  g_dbus_message_set_body(message.get(), values);
  g_dbus_connection_send_message(connection_.get(), message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
}

/// The answer of the bus itself, or of the extension; null for an error.
GVariant* PeerBus::answer(const std::string& method, GVariant* arguments) {
  if (method == "Hello") return g_variant_new("(s)", CLIENT);
  if (method == "GetNameOwner") return g_variant_new("(s)", process_.c_str());
  if (method == "StartServiceByName") return g_variant_new("(u)", 2U);  // it runs already
  const auto found = isKnown_ ? answers_.find(method) : answers_.end();
  return found == answers_.end() ? nullptr : found->second(arguments);
}

void PeerBus::take(GDBusConnection* connection, GDBusMessage* call) {
  const std::lock_guard guard(mutex_);
  if (connection != connection_.get()) return;
  const std::string method = g_dbus_message_get_member(call);
  const char* destination = g_dbus_message_get_destination(call);
  isKnown_ = isKnown_ || g_strcmp0(destination, process_.c_str()) == 0;
  if (isKnown_) ++calls_[method];
  // GDBus ignores the answer to AddMatch without saying so.
  if ((g_dbus_message_get_flags(call) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0 || method.ends_with("Match"))
    return;
  GObjectPtr<GDBusMessage> reply;
  if (GVariant* values = answer(method, g_dbus_message_get_body(call))) {
    reply.reset(g_dbus_message_new_method_reply(call));
    g_dbus_message_set_body(reply.get(), values);
  } else {
    reply.reset(g_dbus_message_new_method_error_literal(
        call, (std::string(dbus::ERROR_PREFIX) + dbus::error::FAILED).c_str(), "refused"));
  }
  g_dbus_message_set_sender(reply.get(), g_strcmp0(destination, BUS) == 0 ? BUS : process_.c_str());
  g_dbus_connection_send_message(connection, reply.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
  g_main_context_wakeup(context_);
}

}  // namespace vornet::fuzz
