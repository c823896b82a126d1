#include "FakeExtension.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "dbus/Interface.hpp"
#include "support/BusClient.hpp"

namespace vornet::test {
namespace {

std::vector<std::string> texts(GVariant* arguments, gsize index) {
  const GVariantPtr list = childOf(arguments, index);
  std::vector<std::string> result;
  for (gsize i = 0; i < g_variant_n_children(list.get()); ++i) result.emplace_back(textOf(childOf(list.get(), i)));
  return result;
}

std::string text(GVariant* arguments) {
  return textOf(childOf(arguments, 0));
}

const std::vector<std::string> BADGES = {"SKIPPED", "PENDING", "SYNCED"};

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
  const GCharPtr url(g_filename_to_uri(path.c_str(), nullptr, nullptr));
  return url ? url.get() : "";
}

const std::vector<std::pair<std::string, bool>> FakeExtension::ALL = {
    {"share:", true}, {"copyLink:", true}, {"notes:", true}, {"viewVersions:", false}, {"viewInCloud:", true}};

FakeExtension::FakeExtension(const std::string& address, std::vector<std::string> folders)
    : connection_(connectToBus(address)), folders_(std::move(folders)) {
  static const GDBusInterfaceVTable table = {&take, &property, nullptr, {}};
  registration_ = g_dbus_connection_register_object(
      connection_.get(), dbus::OBJECT_PATH, vornet_finder_sync1_interface_info(), &table, this, nullptr, nullptr);
  if (!callBus("RequestName", g_variant_new("(su)", dbus::BUS_NAME, 4)))
    throw std::runtime_error("the name is not given");
}

FakeExtension::~FakeExtension() {
  die();
}

void FakeExtension::die() {
  if (!connection_) return;
  g_dbus_connection_unregister_object(connection_.get(), registration_);
  for (const auto& held : std::exchange(waiting_, {})) g_object_unref(held.invocation);
  g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr);
  connection_.reset();
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
    self.waiting_.push_back({method, invocation, std::shared_ptr<GVariant>(GVariantPtr(g_variant_ref(arguments)))});
  else
    self.answer(method, arguments, invocation);
  if (dies) self.die();
}

void FakeExtension::note(const std::string& method, GVariant* arguments) {
  std::string call = method;
  std::vector<std::string> words;
  if (method == "RequestBadges") {
    badgeRequests.push_back(texts(arguments, 0));
  } else if (method == "GetMenu") {
    menuRequests.push_back(words = texts(arguments, 0));
  } else {
    if (method == "PerformAction") words = texts(arguments, 1);
    words.insert(words.begin(), text(arguments));
    if (method == "PerformAction") actions.push_back(words);
  }
  for (const auto& word : words) call += " " + word;
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
    const GObjectPtr<GDBusMethodInvocation> answered(invocation);
    const GObjectPtr<GDBusMessage> reply(
        g_dbus_message_new_method_reply(g_dbus_method_invocation_get_message(invocation)));
    g_dbus_message_set_body(reply.get(), found->second());
    g_dbus_connection_send_message(connection_.get(), reply.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    return;
  }
  GVariant* values = nullptr;
  if (method == "BeginObserving") {
    if (observed.size() >= places) return refuse("TooManyFolders");
    observed.insert(text(arguments));
  } else if (method == "RequestSnapshot") {
    if (!observed.contains(text(arguments))) return refuse("NotObserving");
    g_variant_get_child(arguments, 1, "t", &streams[text(arguments)]);
    g_dbus_method_invocation_return_value(invocation, nullptr);
    if (sendsSnapshots) sendSnapshot(text(arguments));
    return;
  } else if (method == "EndObserving") {
    if (const auto found = observed.find(text(arguments)); found != observed.end()) observed.erase(found);
    if (!observed.contains(text(arguments))) streams.erase(text(arguments));
  } else if (method == "RequestBadges") {
    std::vector<std::string> identifiers;
    for (const auto& item : answering) {
      if (invalidItems.contains(item)) return refuse("InvalidURL");
      identifiers.push_back(badges.contains(item) ? badges.at(item) : "");
    }
    values = g_variant_new("(@as)", textList(identifiers));
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
  const bool isOurs = std::ranges::all_of(selection, [this](const std::string& item) {
    return std::ranges::any_of(folders_, [&](const auto& folder) { return isWithin(folder, item); });
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
  for (const auto& held : std::exchange(waiting_, {}))
    if (held.method == method)
      answer(method, held.arguments.get(), held.invocation);
    else
      waiting_.push_back(held);
}

std::size_t FakeExtension::heldCalls(const std::string& method) const {
  return static_cast<std::size_t>(std::ranges::count(waiting_, method, &Held::method));
}

void FakeExtension::freeze() {
  held_ = {"BeginObserving", "EndObserving", "RequestSnapshot", "RequestBadges", "GetMenu", "PerformAction"};
}

std::size_t FakeExtension::count(const std::string& text) const {
  return static_cast<std::size_t>(
      std::count_if(calls.begin(), calls.end(), [&](const std::string& call) { return call.starts_with(text); }));
}

void FakeExtension::setBadge(const std::string& item, const std::string& identifier) {
  badges[item] = identifier;
  if (observed.contains(item.substr(0, item.rfind('/')))) sendChanges({{item, identifier}});
}

void FakeExtension::sendSnapshot(const std::string& folder) {
  Changes items;
  for (const auto& [item, identifier] : badges)
    if (item.substr(0, item.rfind('/')) == folder && !identifier.empty()) items.emplace_back(item, identifier);
  unsigned char flags = dbus::SNAPSHOT_BEGINS;
  for (std::size_t from = 0; !(flags & dbus::SNAPSHOT_ENDS); from += itemsASignal) {
    const auto end = std::min(items.size(), from + itemsASignal);
    if (end == items.size()) flags |= dbus::SNAPSHOT_ENDS;
    sendFolderBadges(
        folder, {items.begin() + static_cast<std::ptrdiff_t>(from), items.begin() + static_cast<std::ptrdiff_t>(end)},
        flags);
    flags &= static_cast<unsigned char>(~dbus::SNAPSHOT_BEGINS);
  }
}

void FakeExtension::sendFolderBadges(const std::string& folder, const Changes& items, unsigned char flags) {
  std::string names;
  std::string numbers;
  for (const auto& [item, identifier] : items) {
    const GCharPtr path(g_filename_from_uri(item.c_str(), nullptr, nullptr));
    if (!numbers.empty()) names += '/';
    names += GCharPtr(g_path_get_basename(path ? path.get() : item.c_str())).get();
    const auto found = std::find(BADGES.begin(), BADGES.end(), identifier);
    numbers += static_cast<char>(found == BADGES.end() ? 0 : found - BADGES.begin() + 1);
  }
  send(dbus::INTERFACE, "FolderBadges",
       g_variant_new("(tys@ay)", streams[folder], flags, names.c_str(),
                     g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, numbers.data(), numbers.size(), 1)));
}

void FakeExtension::sendChanges(const Changes& changes) {
  std::map<std::string, Changes> streamed;
  Changes others;
  for (const auto& change : changes) {
    const auto folder = change.first.substr(0, change.first.rfind('/'));
    (streams.contains(folder) ? streamed[folder] : others).push_back(change);
  }
  for (const auto& [folder, items] : streamed) sendFolderBadges(folder, items);
  if (others.empty()) return;
  GVariantBuilder list;
  g_variant_builder_init(&list, G_VARIANT_TYPE("a(ss)"));
  for (const auto& [item, identifier] : others) g_variant_builder_add(&list, "(ss)", item.c_str(), identifier.c_str());
  send(dbus::INTERFACE, "BadgesChanged", g_variant_new("(a(ss))", &list));
}

void FakeExtension::send(const char* interface, const char* signal, GVariant* values) {
  const GVariantPtr owned(g_variant_ref_sink(values));
  for (const auto& caller : callers_)
    g_dbus_connection_emit_signal(connection_.get(), caller.c_str(), dbus::OBJECT_PATH, interface, signal, values,
                                  nullptr);
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

GVariantPtr FakeExtension::callBus(const char* method, GVariant* arguments) const {
  return GVariantPtr(g_dbus_connection_call_sync(connection_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                 "org.freedesktop.DBus", method, arguments, nullptr,
                                                 G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
}

GVariant* FakeExtension::property(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* name,
                                  GError** error, gpointer self) {
  auto& extension = *static_cast<FakeExtension*>(self);
  const auto found = extension.nonsense.find(name);
  if (found != extension.nonsense.end()) return g_variant_ref_sink(found->second());
  if (g_str_equal(name, "ObservedFolders")) return textList(extension.folders_);
  if (g_str_equal(name, "InterfaceVersion") && extension.interfaceVersion > 1)
    return g_variant_new_uint32(extension.interfaceVersion);
  if (g_str_equal(name, "Badges")) {
    GVariantBuilder badges;
    g_variant_builder_init(&badges, G_VARIANT_TYPE("a(sss)"));
    for (const auto& badge : BADGES) g_variant_builder_add(&badges, "(sss)", badge.c_str(), "", "");
    return g_variant_builder_end(&badges);
  }
  g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_PROPERTY, "no property %s", name);
  return nullptr;
}

void FakeExtension::setFolders(const std::vector<std::string>& folders) {
  folders_ = folders;
  sendChange("ObservedFolders", textList(folders_));
}

void FakeExtension::changeProperty(const std::string& name, GVariant* value) {
  const std::shared_ptr<GVariant> owned(GVariantPtr(g_variant_ref_sink(value)));
  nonsense[name] = [owned] { return g_variant_ref(owned.get()); };
  sendChange(name, value);
}

void FakeExtension::sendChange(const std::string& property, GVariant* value) {
  GVariantBuilder changed;
  g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
  g_variant_builder_add(&changed, "{sv}", property.c_str(), value);
  g_dbus_connection_emit_signal(connection_.get(), nullptr, dbus::OBJECT_PATH, "org.freedesktop.DBus.Properties",
                                "PropertiesChanged", g_variant_new("(sa{sv}as)", dbus::INTERFACE, &changed, nullptr),
                                nullptr);
}

}  // namespace vornet::test
