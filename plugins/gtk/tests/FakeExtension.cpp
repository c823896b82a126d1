#include "FakeExtension.hpp"

#include <filesystem>
#include <stdexcept>

#include "support/TemporaryFolder.hpp"

namespace vornet::test {
namespace {

constexpr const char* NAME = "com.vornet.KelvaneSync.FinderBadgeExtension";
constexpr const char* OBJECT_PATH = "/com/vornet/FinderSync1";
constexpr const char* INTERFACE = "com.vornet.FinderSync1";

std::string pathOf(const char* url) {
  gchar* path = g_filename_from_uri(url, nullptr, nullptr);
  if (!path) throw std::runtime_error(std::string("not a file URL: ") + url);
  const std::string result = path;
  g_free(path);
  return result;
}

std::string urlOf(const std::string& path) {
  gchar* url = g_filename_to_uri(path.c_str(), nullptr, nullptr);
  const std::string result = url;
  g_free(url);
  return result;
}

/// The paths in the list of URLs that is the child `index` of `arguments`.
std::vector<std::string> pathsIn(GVariant* arguments, gsize index) {
  GVariant* urls = g_variant_get_child_value(arguments, index);
  std::vector<std::string> paths;
  for (gsize i = 0; i < g_variant_n_children(urls); ++i) {
    const gchar* url = nullptr;
    g_variant_get_child(urls, i, "&s", &url);
    paths.push_back(pathOf(url));
  }
  g_variant_unref(urls);
  return paths;
}

/// The fourth entry does not apply.
GVariant* menuEntries() {
  return g_variant_new_parsed(
      "([('Share', 'share:', true, 'QMT'), ('Copy Link', 'copyLink:', true, 'QMT'), ('Comments', 'notes:', true, "
      "'QMT'), "
      "('View versions', 'viewVersions:', false, 'QMT'), ('View in Cloud', 'viewInCloud:', true, 'QMT')],)");
}

template <typename Value>
Value* checked(Value* value, GError* error) {
  if (value) return value;
  const std::string message = error->message;
  g_error_free(error);
  throw std::runtime_error(message);
}

}  // namespace

FakeExtension::FakeExtension(const std::string& address, const std::string& root) : root_(root) {
  GError* error = nullptr;
  connection_ = checked(g_dbus_connection_new_for_address_sync(
                            address.c_str(),
                            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                            nullptr, nullptr, &error),
                        error);
  description_ = checked(g_dbus_node_info_new_for_xml(readFile(VORNET_INTERFACE_FILE).c_str(), &error), error);
  static const GDBusInterfaceVTable functions = {
      [](GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar* method, GVariant* arguments,
         GDBusMethodInvocation* invocation,
         gpointer self) { static_cast<FakeExtension*>(self)->called(sender, method, arguments, invocation); },
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* property, GError**,
         gpointer self) -> GVariant* {
        if (std::string(property) == "ObservedFolders") {
          const auto url = urlOf(static_cast<FakeExtension*>(self)->root_);
          const gchar* folder = url.c_str();
          return g_variant_new_strv(&folder, 1);
        }
        if (std::string(property) == "Badges") return g_variant_new("a(sss)", nullptr);
        return g_variant_new_string("");
      },
      nullptr,
      {}};
  object_ = g_dbus_connection_register_object(connection_, OBJECT_PATH,
                                              g_dbus_node_info_lookup_interface(description_, INTERFACE), &functions,
                                              this, nullptr, &error);
  GVariant* owned =
      checked(g_dbus_connection_call_sync(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                          "org.freedesktop.DBus", "RequestName", g_variant_new("(su)", NAME, 4),
                                          nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error),
              error);
  g_variant_unref(owned);
}

FakeExtension::~FakeExtension() {
  holdsMenus_ = false;
  answerMenus();
  g_dbus_connection_unregister_object(connection_, object_);
  g_dbus_connection_close_sync(connection_, nullptr, nullptr);
  g_object_unref(connection_);
  g_dbus_node_info_unref(description_);
}

void FakeExtension::called(const std::string& sender, const std::string& method, GVariant* arguments,
                           GDBusMethodInvocation* invocation) {
  client_ = sender;
  GVariant* answer = nullptr;
  if (method == "BeginObserving" || method == "EndObserving") {
    const bool begins = method == "BeginObserving";
    const gchar* url = nullptr;
    g_variant_get(arguments, "(&s)", &url);
    const auto folder = pathOf(url);
    observations_.push_back((begins ? "begin " : "end ") + folder);
    if ((observed_[folder] += begins ? 1 : -1) == 0) observed_.erase(folder);
  } else if (method == "RequestBadges") {
    GVariantBuilder identifiers;
    g_variant_builder_init(&identifiers, G_VARIANT_TYPE_STRING_ARRAY);
    for (const auto& path : pathsIn(arguments, 0)) {
      asked_.push_back(path);
      g_variant_builder_add(&identifiers, "s", badges_[path].c_str());
    }
    answer = g_variant_new("(as)", &identifiers);
  } else if (method == "GetMenu") {
    menus_.push_back(pathsIn(arguments, 0));
    heldMenus_.push_back(invocation);
    if (!holdsMenus_) answerMenus();
    return;
  } else if (method == "PerformAction") {
    const gchar* action = nullptr;
    g_variant_get_child(arguments, 0, "&s", &action);
    performed_.push_back({action, pathsIn(arguments, 1)});
  }
  g_dbus_method_invocation_return_value(invocation, answer);
}

void FakeExtension::answerMenus() {
  for (auto* invocation : heldMenus_) g_dbus_method_invocation_return_value(invocation, menuEntries());
  heldMenus_.clear();
}

void FakeExtension::setBadge(const std::string& path, const std::string& identifier) {
  badges_[path] = identifier;
  if (!observed_.count(std::filesystem::path(path).parent_path())) return;
  GVariantBuilder changes;
  g_variant_builder_init(&changes, G_VARIANT_TYPE("a(ss)"));
  g_variant_builder_add(&changes, "(ss)", urlOf(path).c_str(), identifier.c_str());
  g_dbus_connection_emit_signal(connection_, client_.c_str(), OBJECT_PATH, INTERFACE, "BadgesChanged",
                                g_variant_new("(a(ss))", &changes), nullptr);
}

bool FakeExtension::clientIsConnected() const {
  GError* error = nullptr;
  GVariant* answer =
      checked(g_dbus_connection_call_sync(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                          "org.freedesktop.DBus", "NameHasOwner", g_variant_new("(s)", client_.c_str()),
                                          nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error),
              error);
  gboolean connected = FALSE;
  g_variant_get(answer, "(b)", &connected);
  g_variant_unref(answer);
  return connected != FALSE;
}

}  // namespace vornet::test
