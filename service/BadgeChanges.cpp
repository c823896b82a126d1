#include "BadgeChanges.hpp"

#include <chrono>
#include <map>

#include "Selections.hpp"
#include "dbus/Interface.hpp"
#include "platform/FinderSync.hpp"

namespace vornet::service {
namespace {

// Long enough for the changes of one pass over a folder to become one signal, too short for an eye.
constexpr std::chrono::milliseconds GATHERING{10};

std::string folderOf(const std::string& path) {
  const auto separator = path.find_last_of('/');
  return separator == 0 ? "/" : path.substr(0, separator);
}

}  // namespace

void BadgeChanges::sendNow(const std::string& client, const Changes& changes) {
  for (std::size_t from = 0; from < changes.size(); from += dbus::MAX_CHANGES_A_SIGNAL) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(ss)"));
    for (std::size_t i = from; i < std::min(changes.size(), from + dbus::MAX_CHANGES_A_SIGNAL); ++i) {
      g_variant_builder_add(&builder, "(ss)", changes[i].first.c_str(), changes[i].second.c_str());
    }
    // A client that has just left the bus is no error.
    g_dbus_connection_emit_signal(connection_, client.c_str(), dbus::OBJECT_PATH, dbus::INTERFACE, "BadgesChanged",
                                  g_variant_new("(a(ss))", &builder), nullptr);
  }
}

BadgeChanges::BadgeChanges(GDBusConnection* connection, const ObservationRegistry& observations, WorkPool& pool)
    : connection_(connection), observations_(observations), timer_(pool.threads()) {}

void BadgeChanges::add(const platform::FileURL& url, const std::string& identifier) {
  if (!url.path()) return;
  const std::lock_guard guard(lock_);
  pending_.insert_or_assign(*url.path(), std::pair(url, identifier));
  if (scheduled_ || stopped_) return;
  scheduled_ = true;
  timer_.expires_after(GATHERING);
  timer_.async_wait([this](const boost::system::error_code&) { send(); });
}

void BadgeChanges::stop() {
  const std::lock_guard guard(lock_);
  stopped_ = true;
  timer_.cancel();
}

void BadgeChanges::send() {
  const std::lock_guard emitting(emission_);
  decltype(pending_) changes;
  {
    const std::lock_guard guard(lock_);
    scheduled_ = false;
    changes.swap(pending_);
  }
  const auto roots = platform::FIFinderSyncController::defaultController().directoryURLs();
  std::map<std::string, std::vector<std::string>> observers;  // by folder: changes come many to a folder
  std::map<std::string, Changes> byClient;
  for (const auto& [path, change] : changes) {
    if (!isBelow(roots, path)) continue;
    const auto folder = folderOf(path);
    auto found = observers.find(folder);
    if (found == observers.end()) found = observers.emplace(folder, observations_.observers(folder)).first;
    for (const auto& client : found->second) byClient[client].emplace_back(change.first.description(), change.second);
  }
  for (const auto& [client, list] : byClient) sendNow(client, list);
}

}  // namespace vornet::service
