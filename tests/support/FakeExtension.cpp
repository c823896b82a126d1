#include "FakeExtension.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "dbus/Interface.hpp"

namespace vornet::test {
namespace {

std::vector<std::string> texts(GVariant* arguments, gsize index) {
  GVariant* list = g_variant_get_child_value(arguments, index);
  std::vector<std::string> result;
  for (gsize i = 0; i < g_variant_n_children(list); ++i) {
    const gchar* text = nullptr;
    g_variant_get_child(list, i, "&s", &text);
    result.emplace_back(text);
  }
  g_variant_unref(list);
  return result;
}

std::string text(GVariant* arguments) {
  const gchar* result = nullptr;
  g_variant_get_child(arguments, 0, "&s", &result);
  return result;
}

const std::map<std::string, std::string> TITLES = {{"share:", "Share"},
                                                   {"copyLink:", "Copy Link"},
                                                   {"notes:", "Comments"},
                                                   {"viewVersions:", "View versions"},
                                                   {"viewInCloud:", "View in Cloud"}};

bool isWithin(const std::string& folder, const std::string& url) {
  return url == folder || url.starts_with(folder.ends_with("/") ? folder : folder + "/");
}

}  // namespace

std::string urlOf(const std::string& path) {
  gchar* url = g_filename_to_uri(path.c_str(), nullptr, nullptr);
  const std::string result = url ? url : "";
  g_free(url);
  return result;
}

const std::vector<std::pair<std::string, bool>> FakeExtension::ALL = {
    {"share:", true}, {"copyLink:", true}, {"notes:", true}, {"viewVersions:", false}, {"viewInCloud:", true}};

FakeExtension::FakeExtension(const std::string& address, std::vector<std::string> folders)
    : folders_(std::move(folders)) {
  GError* failure = nullptr;
  connection_ = g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &failure);
  if (!connection_) throw std::runtime_error(failure->message);
  static const GDBusInterfaceVTable table = {&take, &property, nullptr, {}};
  registration_ = g_dbus_connection_register_object(
      connection_, dbus::OBJECT_PATH, vornet_finder_sync1_interface_info(), &table, this, nullptr, nullptr);
  if (!callBus("RequestName", g_variant_new("(su)", dbus::BUS_NAME, 4)))
    throw std::runtime_error("the name is not given");
}

FakeExtension::~FakeExtension() {
  die();
}

void FakeExtension::die() {
  if (!connection_) return;
  g_dbus_connection_unregister_object(connection_, registration_);
  for (const auto& held : std::exchange(waiting_, {})) {
    g_variant_unref(held.arguments);
    g_object_unref(held.invocation);
  }
  g_dbus_connection_close_sync(connection_, nullptr, nullptr);
  g_clear_object(&connection_);
}

void FakeExtension::take(GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar* method,
                         GVariant* arguments, GDBusMethodInvocation* invocation, gpointer data) {
  auto& self = *static_cast<FakeExtension*>(data);
  self.callers_.insert(sender);
  self.lastCaller_ = sender;
  const char* destination = g_dbus_message_get_destination(g_dbus_method_invocation_get_message(invocation));
  if (g_strcmp0(destination, dbus::BUS_NAME) == 0) self.methodsByBusName.insert(method);
  self.note(method, arguments);
  const bool dies = self.diesIn == method;
  if (dies || self.held_.contains(method))
    self.waiting_.push_back({method, invocation, g_variant_ref(arguments)});
  else
    self.answer(method, arguments, invocation);
  if (dies) self.die();
}

void FakeExtension::note(const std::string& method, GVariant* arguments) {
  std::string call = method;
  const auto add = [&call](const std::vector<std::string>& words) {
    for (const auto& word : words) call += " " + word;
  };
  if (method == "RequestBadges") {
    badgeRequests.push_back(texts(arguments, 0));
  } else if (method == "GetMenu") {
    menuRequests.push_back(texts(arguments, 0));
    add(menuRequests.back());
  } else if (method == "PerformAction") {
    actions.push_back(texts(arguments, 1));
    actions.back().insert(actions.back().begin(), text(arguments));
    add(actions.back());
  } else {
    add({text(arguments)});
  }
  calls.push_back(call);
}

void FakeExtension::answer(const std::string& method, GVariant* arguments, GDBusMethodInvocation* invocation) {
  const auto refuse = [invocation](const std::string& error) {
    const std::string name = error.find('.') == std::string::npos ? dbus::ERROR_PREFIX + error : error;
    g_dbus_method_invocation_return_dbus_error(invocation, name.c_str(), "refused by a test");
  };
  if (const auto refusal = refusals.find(method); refusal != refusals.end()) return refuse(refusal->second);
  if (method == "RequestBadges") {
    answering = texts(arguments, 0);
    if (busyRequests > 0) {
      --busyRequests;
      return refuse("Busy");
    }
    if (!changesBeforeAnswer.empty()) sendChanges(std::exchange(changesBeforeAnswer, {}));
  }
  if (const auto found = nonsense.find(method); found != nonsense.end()) {
    // As a message: GDBus would not let an answer of another type pass.
    GDBusMessage* reply = g_dbus_message_new_method_reply(g_dbus_method_invocation_get_message(invocation));
    g_dbus_message_set_body(reply, found->second());
    g_dbus_connection_send_message(connection_, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(reply);
    g_object_unref(invocation);
    return;
  }
  GVariant* values = nullptr;
  if (method == "BeginObserving") {
    if (observed.size() >= places) return refuse("TooManyFolders");
    observed.insert(text(arguments));
  } else if (method == "EndObserving") {
    if (const auto found = observed.find(text(arguments)); found != observed.end()) observed.erase(found);
  } else if (method == "RequestBadges") {
    for (const auto& item : answering)
      if (invalidItems.contains(item)) return refuse("InvalidURL");
    GVariantBuilder identifiers;
    g_variant_builder_init(&identifiers, G_VARIANT_TYPE_STRING_ARRAY);
    for (const auto& item : answering) {
      const auto found = badges.find(item);
      g_variant_builder_add(&identifiers, "s", found == badges.end() ? "" : found->second.c_str());
    }
    values = g_variant_new("(as)", &identifiers);
  } else if (method == "GetMenu") {
    values = menuOf(texts(arguments, 0));
  }
  g_dbus_method_invocation_return_value(invocation, values);
}

GVariant* FakeExtension::menuOf(const std::vector<std::string>& selection) const {
  GVariantBuilder entries;
  g_variant_builder_init(&entries, G_VARIANT_TYPE("a(ssbs)"));
  const auto add = [&entries](const std::string& action, bool enabled, const char* image) {
    g_variant_builder_add(&entries, "(ssbs)", TITLES.at(action).c_str(), action.c_str(), static_cast<gboolean>(enabled),
                          image);
  };
  const bool isOurs = std::all_of(selection.begin(), selection.end(), [this](const std::string& item) {
    return std::any_of(folders_.begin(), folders_.end(), [&](const auto& folder) { return isWithin(folder, item); });
  });
  if (const auto found = menus.find(selection.empty() ? "" : selection[0]); found != menus.end()) {
    add("share:", found->second[0], "QMT");
    add("copyLink:", found->second[1], "");
  } else if (isOurs) {
    for (const auto& [action, enabled] : menu) add(action, enabled, "QMT");
  }
  return g_variant_new("(a(ssbs))", &entries);
}

void FakeExtension::release(const std::string& method) {
  held_.erase(method);
  const auto waiting = std::exchange(waiting_, {});
  for (const auto& held : waiting) {
    if (held.method != method) {
      waiting_.push_back(held);
      continue;
    }
    answer(held.method, held.arguments, held.invocation);
    g_variant_unref(held.arguments);
  }
}

std::size_t FakeExtension::heldCalls(const std::string& method) const {
  return static_cast<std::size_t>(
      std::count_if(waiting_.begin(), waiting_.end(), [&](const Held& held) { return held.method == method; }));
}

void FakeExtension::freeze() {
  held_ = {"BeginObserving", "EndObserving", "RequestBadges", "GetMenu", "PerformAction"};
}

std::size_t FakeExtension::count(const std::string& text) const {
  return static_cast<std::size_t>(
      std::count_if(calls.begin(), calls.end(), [&](const std::string& call) { return call.starts_with(text); }));
}

void FakeExtension::setBadge(const std::string& item, const std::string& identifier) {
  badges[item] = identifier;
  if (observed.contains(item.substr(0, item.rfind('/')))) sendChanges({{item, identifier}});
}

void FakeExtension::sendChanges(const std::vector<std::pair<std::string, std::string>>& changes) {
  GVariantBuilder list;
  g_variant_builder_init(&list, G_VARIANT_TYPE("a(ss)"));
  for (const auto& [item, identifier] : changes) g_variant_builder_add(&list, "(ss)", item.c_str(), identifier.c_str());
  send(dbus::INTERFACE, "BadgesChanged", g_variant_new("(a(ss))", &list));
}

void FakeExtension::send(const char* interface, const char* signal, GVariant* values) {
  g_variant_ref_sink(values);
  for (const auto& caller : callers_)
    g_dbus_connection_emit_signal(connection_, caller.c_str(), dbus::OBJECT_PATH, interface, signal, values, nullptr);
  g_variant_unref(values);
}

void FakeExtension::giveUpName() {
  callBus("ReleaseName", g_variant_new("(s)", dbus::BUS_NAME));
}

bool FakeExtension::clientIsConnected() const {
  gboolean connected = FALSE;
  if (const auto answer = callBus("NameHasOwner", g_variant_new("(s)", lastCaller_.c_str())))
    g_variant_get(answer.get(), "(b)", &connected);
  return connected != FALSE;
}

std::shared_ptr<GVariant> FakeExtension::callBus(const char* method, GVariant* arguments) const {
  GVariant* values =
      g_dbus_connection_call_sync(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                  method, arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  return values ? std::shared_ptr<GVariant>(values, g_variant_unref) : nullptr;
}

GVariant* FakeExtension::foldersValue() const {
  GVariantBuilder list;
  g_variant_builder_init(&list, G_VARIANT_TYPE_STRING_ARRAY);
  for (const auto& folder : folders_) g_variant_builder_add(&list, "s", folder.c_str());
  return g_variant_builder_end(&list);
}

GVariant* FakeExtension::property(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* name,
                                  GError** error, gpointer self) {
  auto& extension = *static_cast<FakeExtension*>(self);
  const auto found = extension.nonsense.find(name);
  if (found != extension.nonsense.end()) return g_variant_ref_sink(found->second());
  if (g_str_equal(name, "ObservedFolders")) return extension.foldersValue();
  g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_PROPERTY, "no property %s", name);
  return nullptr;
}

void FakeExtension::setFolders(const std::vector<std::string>& folders) {
  folders_ = folders;
  GVariantBuilder changed;
  g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
  g_variant_builder_add(&changed, "{sv}", "ObservedFolders", foldersValue());
  g_dbus_connection_emit_signal(connection_, nullptr, dbus::OBJECT_PATH, "org.freedesktop.DBus.Properties",
                                "PropertiesChanged", g_variant_new("(sa{sv}as)", dbus::INTERFACE, &changed, nullptr),
                                nullptr);
}

}  // namespace vornet::test
