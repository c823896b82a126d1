#include "Watch.hpp"

#include <glib-unix.h>

#include <csignal>
#include <deque>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "BadgeLoader.hpp"
#include "Commands.hpp"
#include "Folder.hpp"
#include "GLibPtr.hpp"
#include "PathURL.hpp"
#include "RestartPace.hpp"

namespace vornet::vi {
namespace {

constexpr std::chrono::milliseconds FAREWELL{2000};

// How often badges are asked for, and observing is tried again, where the extension has no room to observe the folder.
constexpr std::chrono::milliseconds UNOBSERVED_REFRESH{5000};

// After the extension was too busy.
constexpr std::chrono::milliseconds BUSY_PAUSE{1000};

/// A source of the default main context, removed with its owner.
class Source {
 public:
  Source() = default;
  explicit Source(guint id) : id_(id) {}
  Source(Source&& other) noexcept : id_(std::exchange(other.id_, 0)) {}
  Source& operator=(Source&& other) noexcept {
    std::swap(id_, other.id_);
    return *this;
  }
  ~Source() {
    if (id_ != 0) {
      g_source_remove(id_);
    }
  }

 private:
  guint id_ = 0;
};

/// For timers: sets a flag, and goes on existing so that its owner may remove it.
gboolean raise(gpointer flag) {
  *static_cast<bool*>(flag) = true;
  return G_SOURCE_CONTINUE;
}

guint timer(std::chrono::milliseconds delay, bool* flag) {
  return g_timeout_add(static_cast<guint>(delay.count()), raise, flag);
}

}  // namespace

struct Watch::Impl {
  Impl(Client& theClient, Printer& thePrinter, std::string theFolder, int descriptor)
      : client(theClient),
        printer(thePrinter),
        folder(std::move(theFolder)),
        outputDescriptor(descriptor),
        loader(client, folder, [this](const std::string& name, const std::string& badge) { setBadge(name, badge); }) {}

  Client& client;
  Printer& printer;
  std::string folder;
  int outputDescriptor;
  std::map<std::string, Item> items;
  std::set<std::string> unanswered;  // entries whose first badge is awaited
  std::set<std::string> touched;     // names that the disk reported
  std::deque<Change> changes;        // to print, in order
  BadgeLoader loader;
  GObjectPtr<GFileMonitor> monitor;
  std::string observedBy;   // unique name of the process that answers for the folder; empty: none
  bool unobserved = false;  // it has no room to observe it
  bool refreshDue = false;
  bool retryDue = false;
  bool waitsToRetry = false;
  Source refresh;
  Source retryBusy;
  bool listed = false;
  bool stopped = false;
  bool timeUp = false;
  bool folderGone = false;
  bool busGone = false;
  bool nobodyReads = false;

  // -- What happens. Handlers only take notes; run() acts on them.

  void setBadge(const std::string& name, const std::string& identifier) {
    const auto found = items.find(name);
    if (found == items.end()) {
      return;
    }
    const std::string was = std::exchange(found->second.badge, identifier);
    const bool isFirst = unanswered.erase(name) > 0;
    if (listed && (isFirst || was != identifier)) {
      changes.push_back({isFirst ? Change::Kind::appeared : Change::Kind::badge, found->second, was});
    }
  }

  void handleBadges(const Client::Changes& told) {
    for (const auto& [path, identifier] : told) {
      // The first badge of an entry is the answer to our question, which comes after this.
      if (const auto name = nameInFolder(path, folder); name && !unanswered.contains(*name)) {
        setBadge(*name, identifier);
      }
    }
  }

  static gboolean handleEnd(gpointer data) {
    auto* self = static_cast<Impl*>(data);
    self->stopped = true;
    self->client.interrupt();
    return G_SOURCE_CONTINUE;
  }

  static gboolean handleTimeUp(gpointer data) {
    static_cast<Impl*>(data)->timeUp = true;
    return handleEnd(data);
  }

  static gboolean handleDeadReader(gint, GIOCondition, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    self->nobodyReads = true;
    return handleEnd(data);
  }

  static void handleDisk(GFileMonitor*, GFile* file, GFile* other, GFileMonitorEvent event, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    switch (event) {
      case G_FILE_MONITOR_EVENT_CREATED:
      case G_FILE_MONITOR_EVENT_DELETED:
      case G_FILE_MONITOR_EVENT_MOVED_IN:
      case G_FILE_MONITOR_EVENT_MOVED_OUT:
      case G_FILE_MONITOR_EVENT_RENAMED:
      case G_FILE_MONITOR_EVENT_UNMOUNTED:
        self->touch(file);
        self->touch(other);
        break;
      default:
        break;
    }
  }

  void touch(GFile* file) {
    if (file == nullptr) {
      return;
    }
    const GCharPtr path{g_file_get_path(file)};
    if (!path) {
      return;
    }
    if (const auto name = nameInFolder(path.get(), folder)) {
      touched.insert(*name);
    } else if (folder == path.get()) {
      folderGone = true;
    }
  }

  // -- What is done about it.

  void watchDisk() {
    const GObjectPtr<GFile> file{g_vfs_get_file_for_path(g_vfs_get_local(), folder.c_str())};
    GError* error = nullptr;
    monitor.reset(g_file_monitor_directory(file.get(), G_FILE_MONITOR_WATCH_MOVES, nullptr, &error));
    const GErrorPtr owned{error};
    if (!monitor) {
      throw Failure{FailureKind::local, folder + ": cannot be watched: " + error->message};
    }
    g_signal_connect(monitor.get(), "changed", G_CALLBACK(handleDisk), this);
  }

  /// Compares what the disk reported with what lies there now, and asks for the badges of new entries.
  void followDisk() {
    std::vector<std::string> fresh;
    for (const std::string& name : std::exchange(touched, {})) {
      const auto known = items.find(name);
      if (auto entry = readEntry(folder, name)) {
        if (known == items.end()) {
          items[name].entry = std::move(*entry);
          unanswered.insert(name);
          fresh.push_back(name);
        } else if (known->second.entry.kind != entry->kind) {
          known->second.entry = std::move(*entry);
          fresh.push_back(name);
        } else {
          // Replaced by another of its kind: the extension tells if its badge changes.
          known->second.entry = std::move(*entry);
        }
      } else if (known != items.end()) {
        if (unanswered.erase(name) == 0) {
          changes.push_back({Change::Kind::vanished, known->second, ""});
        }
        items.erase(known);
      }
    }
    if (!observedBy.empty()) {
      loader.ask(fresh);
    }
  }

  void print() {
    while (!changes.empty()) {
      const Change change = std::move(changes.front());
      changes.pop_front();
      printer.change(folder, change);
    }
  }

  /// Observes the folder, if the extension has room for it, and asks for the badges of all its entries.
  void observe() {
    refreshDue = false;
    try {
      beginObserving(client, folder);
      unobserved = false;
      refresh = Source{};
    } catch (const Failure& failure) {
      if (failure.kind() != FailureKind::noRoom) {
        throw;
      }
      unobserved = true;
      refresh = Source{timer(UNOBSERVED_REFRESH, &refreshDue)};
    }
    observedBy = client.owner();
    std::vector<std::string> names;
    for (const auto& [name, item] : items) {
      names.push_back(name);
    }
    loader.forget();
    loader.ask(names);
  }

  /// False when the extension cannot be had now, though it may be later.
  bool observeAgain() {
    try {
      observe();
      return true;
    } catch (const Failure& failure) {
      switch (failure.kind()) {
        case FailureKind::notInstalled:
        case FailureKind::notStarted:
        case FailureKind::gone:
        case FailureKind::busy:
          return false;
        case FailureKind::interrupted:
          if (stopped) {
            return false;
          }
          throw;
        default:
          throw;
      }
    }
  }

  bool extensionLeft() const {
    if (observedBy.empty()) {
      return false;
    }
    if (client.owner() != observedBy) {
      return true;
    }
    return loader.failure() && loader.failure()->kind() == FailureKind::gone;
  }

  void check() const {
    if (nobodyReads) {
      throw BrokenPipe{};
    }
    if (busGone) {
      throw Failure{FailureKind::noBus, "the session bus went away"};
    }
    if (folderGone) {
      throw Failure{FailureKind::local, folder + ": the folder vanished"};
    }
    if (loader.failure() && loader.failure()->kind() != FailureKind::gone &&
        loader.failure()->kind() != FailureKind::busy) {
      throw Failure{*loader.failure()};
    }
  }

  /// Asks again, a little later, for what the extension was too busy for.
  void retryLater() {
    if (retryDue) {
      retryDue = false;
      retryBusy = Source{};
      waitsToRetry = false;
      loader.retry();
    } else if (!waitsToRetry && loader.failure() && loader.failure()->kind() == FailureKind::busy) {
      waitsToRetry = true;
      retryBusy = Source{timer(BUSY_PAUSE, &retryDue)};
    }
  }

  void first() {
    observe();
    printer.useBadges(client.info().badges);
    for (Entry& entry : readFolder(folder)) {
      std::string name = entry.name;
      items[name].entry = std::move(entry);
    }
    std::vector<std::string> names;
    for (const auto& [name, item] : items) {
      names.push_back(name);
    }
    loader.ask(names);
    for (;;) {
      check();
      if (loader.failure() && loader.failure()->kind() == FailureKind::gone) {
        throw Failure{*loader.failure()};
      }
      retryLater();
      if (stopped || (!loader.isBusy() && !loader.failure())) {
        break;
      }
      g_main_context_iteration(nullptr, TRUE);
    }
    if (!stopped) {
      printer.list(folder, sortedItems(items), true);
      listed = true;
    }
  }

  void follow() {
    RestartPace pace;
    pace.answered(RestartPace::Clock::now());
    bool due = false;  // the next attempt to have the extension back
    Source retry;
    std::string refusedBy;  // who owned the name when the last attempt failed
    while (!stopped) {
      check();
      if (extensionLeft()) {
        observedBy.clear();
        refresh = Source{};
        refreshDue = false;
        loader.forget();
        print();
        printer.extensionLeft();
        due = false;
        refusedBy.clear();
        retry = Source{timer(pace.delay(RestartPace::Clock::now()), &due)};
      }
      // Somebody else may have started it meanwhile.
      const bool appeared = !client.owner().empty() && client.owner() != refusedBy;
      if (observedBy.empty() && (due || appeared)) {
        retry = Source{};
        due = false;
        if (observeAgain()) {
          pace.answered(RestartPace::Clock::now());
          printer.extensionBack();
        } else if (!stopped) {
          refusedBy = client.owner();
          retry = Source{timer(pace.delay(RestartPace::Clock::now()), &due)};
        }
        continue;
      }
      retryLater();
      if (refreshDue && !observedBy.empty() && !loader.isBusy()) {
        if (!observeAgain() && !stopped) {
          refresh = Source{timer(UNOBSERVED_REFRESH, &refreshDue)};
        }
        continue;
      }
      if (!touched.empty() && g_main_context_pending(nullptr) == FALSE) {
        followDisk();
      }
      print();
      g_main_context_iteration(nullptr, TRUE);
    }
    print();
  }
};

Watch::Watch(Client& client, Printer& printer, std::string folder, int outputDescriptor)
    : impl_(std::make_unique<Impl>(client, printer, std::move(folder), outputDescriptor)) {}

Watch::~Watch() {
  impl_->client.onBadgesChanged(nullptr);
  impl_->client.onOwnerChanged(nullptr);
  impl_->client.onBusClosed(nullptr);
}

void Watch::run(std::optional<std::chrono::milliseconds> duration) {
  Impl& self = *impl_;
  self.client.onBadgesChanged([&self](const Client::Changes& changes) { self.handleBadges(changes); });
  self.client.onOwnerChanged([] {});  // wakes the loop, which looks at the owner
  self.client.onBusClosed([&self] {
    self.busGone = true;
    self.client.interrupt();
  });
  const Source interrupt{g_unix_signal_add(SIGINT, Impl::handleEnd, &self)};
  const Source terminate{g_unix_signal_add(SIGTERM, Impl::handleEnd, &self)};
  const Source deadReader{g_unix_fd_add(self.outputDescriptor, G_IO_ERR, Impl::handleDeadReader, &self)};
  Source end;
  if (duration) {
    end = Source{g_timeout_add(static_cast<guint>(duration->count()), Impl::handleTimeUp, &self)};
  }

  try {
    self.watchDisk();
    self.first();
    self.follow();
  } catch (const Failure& failure) {
    if (failure.kind() != FailureKind::interrupted) {
      throw;
    }
    self.check();
  }
  if (self.nobodyReads) {
    throw BrokenPipe{};
  }
  if (self.timeUp && !self.listed) {
    throw Failure{FailureKind::timedOut, "the time was up before the extension had answered"};
  }
  if (!self.unobserved && !self.observedBy.empty() && self.client.owner() == self.observedBy) {
    try {
      self.client.endObserving(self.folder, FAREWELL);
    } catch (const Failure&) {
      // Leaving the bus ends the observation all the same.
    }
  }
}

}  // namespace vornet::vi
