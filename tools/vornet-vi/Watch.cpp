#include "Commands.hpp"

#include <glib-unix.h>

#include <csignal>
#include <deque>
#include <set>
#include <utility>

#include "ShownFolder.hpp"
#include "Status.hpp"
#include "client/Paths.hpp"

namespace vornet::vi {
namespace {

using client::Timer;

constexpr std::chrono::milliseconds FAREWELL{2000};

// How often badges are requested, and observing is retried, where the extension has no room to observe the folder.
constexpr std::chrono::milliseconds UNOBSERVED_REFRESH{5000};

// After the extension was too busy, or could not observe the folder again.
constexpr std::chrono::milliseconds PAUSE{1000};

/// A source of the default main context, removed with its owner.
class Source {
 public:
  explicit Source(guint id) : id_(id) {}
  ~Source() { g_source_remove(id_); }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

 private:
  guint id_;
};

class Watch {
 public:
  Watch(Extension& extension, Printer& printer, const Notices& notices, const std::string& folder, int outputDescriptor)
      : extension_(extension),
        printer_(printer),
        notices_(notices),
        folder_(extension, folder,
                [this](const Item& item, bool isNew, const std::string& was) {
                  if (!isListed_) return;
                  changes_.push_back({isNew ? Change::Kind::appeared : Change::Kind::badge, item, was});
                }),
        interrupt_(g_unix_signal_add(SIGINT, handleEnd, this)),
        terminate_(g_unix_signal_add(SIGTERM, handleEnd, this)),
        deadReader_(g_unix_fd_add(outputDescriptor, G_IO_ERR, handleDeadReader, this)) {}

  void run(std::optional<std::chrono::milliseconds> duration);

 private:
  // Events. Handlers only record them; follow() acts on them.
  static gboolean handleEnd(gpointer self);
  static gboolean handleDeadReader(gint, GIOCondition, gpointer self);
  static void handleDisk(GFileMonitor*, GFile* file, GFile* other, GFileMonitorEvent event, gpointer self);
  void end();
  void touch(GFile* file);

  // Reactions.
  void watchDisk();
  void showList();
  void follow();
  bool hasExtensionLeft() const;
  bool observeAgain();
  void retryLater();
  void printChanges();
  void reportSilence();
  void check() const;

  Extension& extension_;
  Printer& printer_;
  const Notices& notices_;
  ShownFolder folder_;
  std::set<std::string> touched_;  ///< names that the disk reported
  std::deque<Change> changes_;     ///< to print, in order
  GObjectPtr<GFileMonitor> monitor_;
  Timer refresh_{nullptr};  ///< where the extension has no room
  Timer retry_{nullptr};    ///< where it is too busy
  Timer end_{nullptr};
  std::string refusedBy_;  ///< the process with which observing has just failed again
  bool isSilent_ = false;  ///< the sync application, as last reported
  bool isRefreshDue_ = false;
  bool isListed_ = false;
  bool isStopped_ = false;
  bool isTimeUp_ = false;
  bool hasFolderVanished_ = false;
  bool isUnread_ = false;
  const Source interrupt_;
  const Source terminate_;
  const Source deadReader_;
};

// --- Events ---------------------------------------------------------------------------------------------------------

void Watch::end() {
  isStopped_ = true;
  extension_.interrupt();
}

gboolean Watch::handleEnd(gpointer self) {
  static_cast<Watch*>(self)->end();
  return G_SOURCE_CONTINUE;
}

gboolean Watch::handleDeadReader(gint, GIOCondition, gpointer self) {
  static_cast<Watch*>(self)->isUnread_ = true;
  return handleEnd(self);
}

void Watch::handleDisk(GFileMonitor*, GFile* file, GFile* other, GFileMonitorEvent event, gpointer data) {
  auto* self = static_cast<Watch*>(data);
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

void Watch::touch(GFile* file) {
  const GCharPtr path(file ? g_file_get_path(file) : nullptr);
  if (!path) return;
  if (folder_.path() == path.get())
    hasFolderVanished_ = true;
  else if (client::folderOf(path.get()) == folder_.path())
    touched_.emplace(client::nameOf(path.get()));
}

// --- Reactions ------------------------------------------------------------------------------------------------------

void Watch::watchDisk() {
  const GObjectPtr<GFile> file(g_vfs_get_file_for_path(g_vfs_get_local(), folder_.path().c_str()));
  GErrorPtr error;
  monitor_.reset(g_file_monitor_directory(file.get(), G_FILE_MONITOR_WATCH_MOVES, nullptr, ErrorTo(error)));
  if (!monitor_) throw std::runtime_error(folder_.path() + ": cannot be watched: " + error->message);
  g_signal_connect(monitor_.get(), "changed", G_CALLBACK(handleDisk), this);
}

void Watch::check() const {
  if (isUnread_) throw BrokenPipe();
  if (extension_.isBusGone()) throw Failure(FailureKind::noBus, "the session bus went away");
  if (hasFolderVanished_) throw std::runtime_error(folder_.path() + ": the folder vanished");
  const auto& failure = folder_.failure();
  if (!failure || failure->kind() == FailureKind::busy) return;
  if (failure->kind() != FailureKind::gone || !isListed_) throw Failure(*failure);
}

void Watch::showList() {
  folder_.observe();
  printer_.useBadges(extension_.info().badges);
  folder_.read();
  while (!isStopped_ && (folder_.isBusy() || folder_.failure())) {
    check();
    retryLater();
    g_main_context_iteration(nullptr, TRUE);
  }
  if (isStopped_) return;
  printer_.list(folder_.path(), sortedItems(folder_.items()), true);
  isListed_ = true;
}

/// Retries after a pause what the extension was too busy for.
void Watch::retryLater() {
  const auto& failure = folder_.failure();
  if (retry_.isRunning() || !failure || failure->kind() != FailureKind::busy) return;
  retry_.start(PAUSE, [this] { folder_.retry(); });
}

bool Watch::hasExtensionLeft() const {
  if (folder_.observedBy().empty()) return false;
  return extension_.owner() != folder_.observedBy() ||
         (folder_.failure() && folder_.failure()->kind() == FailureKind::gone);
}

/// False when the extension is not available now, though it may be later.
bool Watch::observeAgain() {
  try {
    folder_.observe();
    return true;
  } catch (const Failure& failure) {
    switch (failure.kind()) {
      case FailureKind::notInstalled:
      case FailureKind::notStarted:
      case FailureKind::gone:
      case FailureKind::busy:
        return false;
      case FailureKind::interrupted:
        if (isStopped_) return false;
        throw;
      default:
        throw;
    }
  }
}

void Watch::printChanges() {
  for (; !changes_.empty(); changes_.pop_front()) printer_.change(folder_.path(), changes_.front());
}

void Watch::reportSilence() {
  const auto since = extension_.syncApplicationSilentSince();
  if (!since || std::exchange(isSilent_, *since > 0) == (*since > 0)) return;
  if (isSilent_)
    notices_.warning(SILENT, silenceSince(*since) + ": badges may be old");
  else
    notices_.warning(ANSWERING, "the sync application answers again");
}

void Watch::follow() {
  extension_.keepRunning();
  while (!isStopped_) {
    check();
    if (hasExtensionLeft()) {
      folder_.forgetObserver();
      for (Timer* timer : {&refresh_, &retry_}) timer->stop();
      isRefreshDue_ = false;
      refusedBy_.clear();
      printChanges();
      printer_.extensionLeft();
    }
    const std::string& owner = extension_.owner();
    if (folder_.observedBy().empty() && !owner.empty() && owner != refusedBy_) {
      if (observeAgain()) {
        printer_.extensionBack();
      } else {
        refusedBy_ = extension_.owner();
        retry_.start(PAUSE, [this] { refusedBy_.clear(); });
      }
      continue;
    }
    retryLater();
    if (std::exchange(isRefreshDue_, false) && !folder_.isBusy()) {
      observeAgain();
      continue;
    }
    if (!folder_.observedBy().empty() && !folder_.isObserved() && !refresh_.isRunning())
      refresh_.start(UNOBSERVED_REFRESH, [this] { isRefreshDue_ = true; });
    if (!touched_.empty() && !g_main_context_pending(nullptr)) {
      folder_.update(std::exchange(touched_, {}),
                     [this](const Item& item) { changes_.push_back({Change::Kind::vanished, item, ""}); });
    }
    printChanges();
    reportSilence();
    g_main_context_iteration(nullptr, TRUE);
  }
  printChanges();
}

void Watch::run(std::optional<std::chrono::milliseconds> duration) {
  if (duration) {
    end_.start(*duration, [this] {
      isTimeUp_ = true;
      end();
    });
  }
  try {
    watchDisk();
    showList();
    follow();
  } catch (const Failure& failure) {
    if (failure.kind() != FailureKind::interrupted) throw;
    check();
  }
  if (isUnread_) throw BrokenPipe();
  if (isTimeUp_ && !isListed_) throw Failure(FailureKind::timedOut, "the time ran out before the extension answered");
  if (folder_.isObserved() && extension_.owner() == folder_.observedBy()) {
    try {
      extension_.endObserving(folder_.path(), FAREWELL);
    } catch (const Failure&) {
      // Leaving the bus ends the observation all the same.
    }
  }
}

}  // namespace

void watchFolder(Extension& extension, Printer& printer, const Notices& notices, const std::string& folder,
                 int outputDescriptor, std::optional<std::chrono::milliseconds> duration) {
  Watch(extension, printer, notices, folder, outputDescriptor).run(duration);
}

}  // namespace vornet::vi
