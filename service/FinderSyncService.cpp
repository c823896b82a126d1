#include "FinderSyncService.hpp"

#include <algorithm>
#include <chrono>
#include <exception>

#include "Selections.hpp"
#include "base/AppConst.hpp"
#include "dbus/Interface.hpp"
#include "platform/linux/Host.hpp"

namespace vornet::service {
namespace {

using platform::FIFinderSyncController;
using platform::FileURL;

static_assert(dbus::MAX_OBSERVED_FOLDERS == FinderSync::MAX_FOLDERS, "only these are kept up to date");

// As many as CallGate has in flight, so that none waits here for a thread.
constexpr std::size_t MENU_THREADS = 9;
constexpr std::size_t BADGE_THREADS = 3;  // one of them for short calls

// Longer than the polling interval and a request that times out.
constexpr guint ANSWER_COUNTS_FOR_SECONDS = 15;

void refuse(GDBusMethodInvocation* invocation, const char* name, const std::string& message) {
  const std::string error = std::string(dbus::ERROR_PREFIX) + name;
  g_dbus_method_invocation_return_dbus_error(invocation, error.c_str(), message.c_str());
}

std::vector<std::string> strings(const gchar* const* texts) {
  std::vector<std::string> result;
  for (; *texts; ++texts) result.emplace_back(*texts);
  return result;
}

/// Pointers to `texts`, null at the end, as GLib takes string arrays; valid as long as `texts` is unchanged.
std::vector<const gchar*> pointers(const std::vector<std::string>& texts) {
  std::vector<const gchar*> result;
  result.reserve(texts.size() + 1);
  for (const auto& text : texts) result.push_back(text.c_str());
  result.push_back(nullptr);
  return result;
}

/// Reads every URL; refuses the call, and returns none, when there are too many or one is malformed.
std::optional<std::vector<FileURL>> readURLs(GDBusMethodInvocation* invocation, const std::vector<std::string>& texts) {
  if (texts.size() > dbus::MAX_URLS) {
    refuse(
        invocation, dbus::error::TOO_MANY_URLS,
        std::to_string(texts.size()) + " URLs in one call; at most " + std::to_string(dbus::MAX_URLS) + " are taken");
    return std::nullopt;
  }
  std::vector<FileURL> urls;
  urls.reserve(texts.size());
  for (const auto& text : texts) {
    auto url = readURL(text);
    if (!url) {
      refuse(invocation, dbus::error::INVALID_URL, "not a file URL: " + text);
      return std::nullopt;
    }
    urls.push_back(*std::move(url));
  }
  return urls;
}

/// As readURLs, for calls that cannot handle an item without a path.
std::optional<std::vector<FileURL>> readSelection(GDBusMethodInvocation* invocation,
                                                  const std::vector<std::string>& texts) {
  auto urls = readURLs(invocation, texts);
  if (!urls) return std::nullopt;
  for (std::size_t i = 0; i < urls->size(); ++i) {
    if ((*urls)[i].path()) continue;
    refuse(invocation, dbus::error::INVALID_URL, "a name that is not UTF-8: " + texts[i]);
    return std::nullopt;
  }
  return urls;
}

bool areWithin(const std::set<FileURL>& roots, const std::vector<FileURL>& urls) {
  for (const auto& url : urls)
    if (!isWithin(roots, *url.path())) return false;
  return true;
}

std::set<FileURL> observedRoots() {
  return FIFinderSyncController::defaultController().directoryURLs();
}

std::string logFilePath() {
  const auto container = platform::containerURLForGroup(App().APP_GROUP);
  if (!container) return {};
  return container->appendingPathComponent("log").appendingPathComponent(App().LOG_FILE).path().value_or("");
}

}  // namespace

FinderSyncService::FinderSyncService(FinderSync& extension, GDBusConnection* connection)
    : extension_(extension),
      connection_(connection),
      skeleton_(vornet_finder_sync1_skeleton_new()),
      observations_(dbus::MAX_OBSERVED_FOLDERS),
      observing_(threads_, 1),
      badges_(threads_, BADGE_THREADS),
      lookUps_(threads_, 1),
      menus_(threads_, MENU_THREADS),
      changes_(connection, observations_, observing_),
      answers_(extension, changes_, lookUps_),
      snapshots_(extension, changes_, observations_, observing_, lookUps_) {}

FinderSyncService::~FinderSyncService() {
  stop();
}

bool FinderSyncService::start(std::string& error) {
  connectHandlers();
  platform::host::setListener(this);
  vornet_finder_sync1_set_sync_application_silent_since(skeleton_.get(), dbus::NOT_ASKED);
  vornet_finder_sync1_set_interface_version(skeleton_.get(), dbus::INTERFACE_VERSION);
  extension_.setAnswerListener([this](const auto& silentSince) { noteAnswer(silentSince); });
  GErrorPtr failure;
  exported_ = g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(skeleton_.get()), connection_,
                                               dbus::OBJECT_PATH, ErrorTo(failure));
  if (!exported_) error = failure->message;
  return exported_;
}

void FinderSyncService::stop() {
  if (stopped_) return;
  stopped_ = true;
  if (exported_) g_dbus_interface_skeleton_unexport(G_DBUS_INTERFACE_SKELETON(skeleton_.get()));
  g_signal_handlers_disconnect_by_data(skeleton_.get(), this);
  unwatchClients();
  // Ask all to stop before waiting for any: none may begin long work meanwhile.
  for (auto* pool : {&badges_, &lookUps_, &menus_, &observing_}) pool->requestStop();
  badges_.stop();
  lookUps_.stop();
  menus_.stop();
  platform::host::setListener(nullptr);
  extension_.setAnswerListener(nullptr);
  while (g_source_remove_by_user_data(this)) continue;
  snapshots_.stop();
  changes_.stop();
  observing_.stop();
  threads_.stop();  // timers, too, are done
}

// --- What the extension does ----------------------------------------------------------------------------------------

bool FinderSyncService::badgeChanged(const FileURL& url, const std::string& identifier) {
  return changes_.add(url, identifier);
}

void FinderSyncService::badgeAnswered(const FileURL& url, const std::string& identifier) {
  changes_.amend(url, identifier);
}

void FinderSyncService::badgesInvalidated(const FileURL& folder) {
  answers_.askAgain(*folder.path());
  snapshots_.renew(*folder.path());
}

void FinderSyncService::directoriesChanged() {
  // Called under the controller's lock, on any thread: the reading is left to the thread of the main context, which
  // alone sets properties.
  const auto publish = +[](gpointer self) -> gboolean {
    static_cast<FinderSyncService*>(self)->publishProperties();
    return G_SOURCE_REMOVE;
  };
  g_idle_add(publish, this);
}

void FinderSyncService::publishProperties() {
  Strings roots;
  for (const auto& url : observedRoots()) roots.push_back(url.description());
  GVariantBuilder badges;
  g_variant_builder_init(&badges, G_VARIANT_TYPE("a(sss)"));
  for (const auto& badge : platform::host::registeredBadges())
    g_variant_builder_add(&badges, "(sss)", badge.identifier.c_str(), badge.label.c_str(), badge.image.name().c_str());
  vornet_finder_sync1_set_observed_folders(skeleton_.get(), pointers(roots).data());
  vornet_finder_sync1_set_badges(skeleton_.get(), g_variant_builder_end(&badges));
  vornet_finder_sync1_set_version(skeleton_.get(), platform::host::mainBundle().version.c_str());
  vornet_finder_sync1_set_log_file(skeleton_.get(), logFilePath().c_str());
}

void FinderSyncService::noteAnswer(const std::optional<platform::Date>& silentSince) {
  using std::chrono::duration_cast;
  silentSince_ =
      silentSince ? duration_cast<std::chrono::seconds>(silentSince->time_since_epoch()).count() : dbus::ANSWERS;
  const auto publish = +[](gpointer self) -> gboolean {
    static_cast<FinderSyncService*>(self)->publishAnswer();
    return G_SOURCE_REMOVE;
  };
  // At default priority: a client that reads the property after the answer to a menu sees that menu's result.
  g_idle_add_full(G_PRIORITY_DEFAULT, publish, this, nullptr);
}

/// An answer counts for a little longer than the folders on screen take to ask again.
void FinderSyncService::publishAnswer() {
  vornet_finder_sync1_set_sync_application_silent_since(skeleton_.get(), silentSince_);
  if (forgettingAnswer_ != 0) g_source_remove(forgettingAnswer_);
  const auto forget = +[](gpointer data) -> gboolean {
    auto& self = *static_cast<FinderSyncService*>(data);
    self.forgettingAnswer_ = 0;
    vornet_finder_sync1_set_sync_application_silent_since(self.skeleton_.get(), dbus::NOT_ASKED);
    return G_SOURCE_REMOVE;
  };
  forgettingAnswer_ = g_timeout_add_seconds(ANSWER_COUNTS_FOR_SECONDS, forget, this);
}

// --- What clients call ----------------------------------------------------------------------------------------------

void FinderSyncService::connectHandlers() {
  using Object = VornetFinderSync1;
  using Call = GDBusMethodInvocation;
  const auto self = [](gpointer data) -> FinderSyncService& { return *static_cast<FinderSyncService*>(data); };
  static const auto service = self;

  g_signal_connect(skeleton_.get(), "handle-begin-observing",
                   G_CALLBACK(+[](Object*, Call* call, const gchar* folder, gpointer data) -> gboolean {
                     auto& s = service(data);
                     s.carryOut(s.observing_, call, 1,
                                [&s, call, f = std::string(folder)] { s.beginObserving(call, f); });
                     return TRUE;
                   }),
                   this);
  g_signal_connect(skeleton_.get(), "handle-end-observing",
                   G_CALLBACK(+[](Object*, Call* call, const gchar* folder, gpointer data) -> gboolean {
                     auto& s = service(data);
                     s.carryOut(s.observing_, call, 1,
                                [&s, call, f = std::string(folder)] { s.endObserving(call, f); });
                     return TRUE;
                   }),
                   this);
  g_signal_connect(skeleton_.get(), "handle-request-snapshot",
                   G_CALLBACK(+[](Object*, Call* call, const gchar* folder, guint64 stream, gpointer data) -> gboolean {
                     auto& s = service(data);
                     s.carryOut(s.observing_, call, 1,
                                [&s, call, f = std::string(folder), stream] { s.requestSnapshot(call, f, stream); });
                     return TRUE;
                   }),
                   this);
  g_signal_connect(skeleton_.get(), "handle-request-badges",
                   G_CALLBACK(+[](Object*, Call* call, const gchar* const* items, gpointer data) -> gboolean {
                     auto& s = service(data);
                     s.carryOut(s.badges_, call, g_strv_length(const_cast<gchar**>(items)),
                                [&s, call, i = strings(items)] { s.requestBadges(call, i); });
                     return TRUE;
                   }),
                   this);
  g_signal_connect(skeleton_.get(), "handle-get-menu",
                   G_CALLBACK(+[](Object*, Call* call, const gchar* const* selection, gpointer data) -> gboolean {
                     auto& s = service(data);
                     s.carryOut(s.menus_, call, 1, [&s, call, i = strings(selection)] { s.getMenu(call, i); });
                     return TRUE;
                   }),
                   this);
  g_signal_connect(skeleton_.get(), "handle-perform-action",
                   G_CALLBACK(+[](Object*, Call* call, const gchar* action, const gchar* const* selection,
                                  gpointer data) -> gboolean {
                     auto& s = service(data);
                     s.carryOut(s.menus_, call, 1, [&s, call, a = std::string(action), i = strings(selection)] {
                       s.performAction(call, a, i);
                     });
                     return TRUE;
                   }),
                   this);
}

void FinderSyncService::carryOut(WorkPool& pool, GDBusMethodInvocation* invocation, std::size_t cost,
                                 std::function<void()> work) {
  pool.post(g_dbus_method_invocation_get_sender(invocation), cost, [invocation, work = std::move(work)] {
    try {
      work();
    } catch (const std::exception& error) {
      refuse(invocation, dbus::error::FAILED, error.what());
    }
  });
}

void FinderSyncService::beginObserving(GDBusMethodInvocation* invocation, const std::string& folder) {
  const auto url = readURL(folder);
  if (!url || !url->path()) return refuse(invocation, dbus::error::INVALID_URL, "not a file URL: " + folder);
  const std::string& path = *url->path();
  if (!isWithin(observedRoots(), path))
    return refuse(invocation, dbus::error::OUTSIDE_OBSERVED_FOLDERS, "not within an observed folder: " + path);
  if (platform::fileKindAtPath(path) != platform::FileKind::directory)
    return refuse(invocation, dbus::error::NOT_A_FOLDER, "not a folder: " + path);
  const std::string client = g_dbus_method_invocation_get_sender(invocation);
  switch (observations_.begin(client, path)) {
    case ObservationRegistry::Begun::tooManyFolders:
      return refuse(invocation, dbus::error::TOO_MANY_FOLDERS,
                    "as many folders are observed as can be kept up to date");
    case ObservationRegistry::Begun::tooManyObservations:
      return refuse(invocation, dbus::error::TOO_MANY_FOLDERS, "the caller has begun too many observations");
    case ObservationRegistry::Begun::byTheFirst:
      keepOthersCached(path);
      platform::host::folderShown(path);
      break;
    case ObservationRegistry::Begun::byAnother:
      break;
  }
  // Each time: the poller may have dropped the folder meanwhile.
  extension_.beginObservingDirectoryAtURL(*url);
  watchClient(client);
  vornet_finder_sync1_complete_begin_observing(skeleton_.get(), invocation);
}

void FinderSyncService::endObserving(GDBusMethodInvocation* invocation, const std::string& folder) {
  const auto url = readURL(folder);
  if (!url || !url->path()) return refuse(invocation, dbus::error::INVALID_URL, "not a file URL: " + folder);
  switch (observations_.end(g_dbus_method_invocation_get_sender(invocation), *url->path())) {
    case ObservationRegistry::Ended::notObserving:
      return refuse(invocation, dbus::error::NOT_OBSERVING, "the caller does not observe " + *url->path());
    case ObservationRegistry::Ended::byNobody:
      endObservationOf(*url->path());
      break;
    case ObservationRegistry::Ended::stillObserved:
      break;
  }
  vornet_finder_sync1_complete_end_observing(skeleton_.get(), invocation);
}

void FinderSyncService::endObservationOf(const std::string& folder) {
  extension_.endObservingDirectoryAtURL(FileURL::fileURLWithPath(folder));
  platform::host::folderHidden(folder);
}

/// To be called before `folder` is entered: the cache then drops the one entered longest ago, which must not be on
/// screen.
void FinderSyncService::keepOthersCached(const std::string& folder) {
  for (const auto& shown : observations_.folders())
    if (shown != folder) extension_.keepCached(shown);
}

void FinderSyncService::watchClient(const std::string& client) {
  const std::lock_guard guard(clientsLock_);
  if (clientWatches_.contains(client)) return;
  const auto vanished = +[](GDBusConnection*, const gchar* name, gpointer self) {
    auto& service = *static_cast<FinderSyncService*>(self);
    // After the client's waiting calls, so that none of them begins afterwards.
    service.observing_.post(name, 1, [&service, client = std::string(name)] { service.forgetClient(client); });
  };
  clientWatches_[client] = g_bus_watch_name_on_connection(connection_, client.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
                                                          nullptr, vanished, this, nullptr);
}

void FinderSyncService::forgetClient(const std::string& client) {
  for (const auto& folder : observations_.endAll(client)) endObservationOf(folder);
  answers_.forget(client);
  snapshots_.forget(client);
  const std::lock_guard guard(clientsLock_);
  if (const auto found = clientWatches_.find(client); found != clientWatches_.end()) {
    g_bus_unwatch_name(found->second);
    clientWatches_.erase(found);
  }
}

void FinderSyncService::unwatchClients() {
  const std::lock_guard guard(clientsLock_);
  for (const auto& [client, watch] : clientWatches_) g_bus_unwatch_name(watch);
  clientWatches_.clear();
}

void FinderSyncService::requestSnapshot(GDBusMethodInvocation* invocation, const std::string& folder, guint64 stream) {
  const auto url = readURL(folder);
  if (!url || !url->path()) return refuse(invocation, dbus::error::INVALID_URL, "not a file URL: " + folder);
  const std::string client = g_dbus_method_invocation_get_sender(invocation);
  if (!observations_.setStream(client, *url->path(), stream))
    return refuse(invocation, dbus::error::NOT_OBSERVING, "the caller does not observe " + *url->path());
  snapshots_.request(client, *url->path());
  vornet_finder_sync1_complete_request_snapshot(skeleton_.get(), invocation);
}

void FinderSyncService::requestBadges(GDBusMethodInvocation* invocation, const Strings& items) {
  auto urls = readURLs(invocation, items);
  if (!urls) return;
  if (answers_.areCached(*urls)) return answerBadges(invocation, *urls, badges_);
  carryOut(lookUps_, invocation, urls->size(),
           [this, invocation, i = *std::move(urls)] { answerBadges(invocation, i, lookUps_); });
}

void FinderSyncService::answerBadges(GDBusMethodInvocation* invocation, const URLs& items, WorkPool& pool) {
  const std::string client = g_dbus_method_invocation_get_sender(invocation);  // it may be gone with the answer
  switch (answers_.answer(invocation, items, pool)) {
    case BadgeAnswers::Outcome::tooMuch:
      return refuse(invocation, dbus::error::BUSY, "too much is to be looked up in a locked database");
    case BadgeAnswers::Outcome::givenUp:
      return refuse(invocation, dbus::error::BUSY, "the extension is ending");
    case BadgeAnswers::Outcome::inDoubt:
      return watchClient(client);
    case BadgeAnswers::Outcome::answered:
      return;
  }
}

void FinderSyncService::getMenu(GDBusMethodInvocation* invocation, const Strings& selection) {
  const auto urls = readSelection(invocation, selection);
  if (!urls) return;
  GVariantBuilder entries;
  g_variant_builder_init(&entries, G_VARIANT_TYPE("a(ssbs)"));
  if (areWithin(observedRoots(), *urls)) {
    const platform::host::Selection selected(*urls);
    if (const auto menu = extension_.menuForMenuKind(platform::FIMenuKind::contextualMenuForItems)) {
      for (const auto& item : menu->items) {
        g_variant_builder_add(&entries, "(ssbs)", item.title.c_str(), item.action.c_str(),
                              static_cast<gboolean>(item.enabled), item.image.name().c_str());
      }
    }
  }
  vornet_finder_sync1_complete_get_menu(skeleton_.get(), invocation, g_variant_builder_end(&entries));
}

void FinderSyncService::performAction(GDBusMethodInvocation* invocation, const std::string& action,
                                      const Strings& selection) {
  if (!FinderSync::isMenuAction(action))
    return refuse(invocation, dbus::error::UNKNOWN_ACTION, "no such action: " + action);
  const auto urls = readSelection(invocation, selection);
  if (!urls) return;
  const auto roots = observedRoots();
  if (roots.empty() || !areWithin(roots, *urls))
    return refuse(invocation, dbus::error::OUTSIDE_OBSERVED_FOLDERS, "the selection is not within an observed folder");
  const platform::host::Selection selected(*urls);
  extension_.performSelector(action);
  vornet_finder_sync1_complete_perform_action(skeleton_.get(), invocation);
}

}  // namespace vornet::service
