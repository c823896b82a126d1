#include "kelvane-sim/SyncEngine.hpp"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <set>
#include <stdexcept>

#include "kelvane-sim/Printable.hpp"
#include "kelvane-sim/SyncRules.hpp"

namespace vornet::sim {

namespace {

// After a failed write of the database.
constexpr int RETRY_MILLISECONDS = 250;

}  // namespace

SyncEngine::SyncEngine(Notice notice) : notice_(std::move(notice)), wake_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (!wake_) throw std::runtime_error("cannot make an event descriptor");
}

SyncEngine::~SyncEngine() {
  stop();
}

void SyncEngine::start(const Settings& settings) {
  stop();
  settings_ = settings;
  {
    const std::lock_guard lock(mutex_);
    model_.clear();
    transfers_ = TransferQueue(settings.transferTime, settings.parallelTransfers);
    stopping_ = false;
    starting_ = true;
  }
  unwritten_.clear();
  complained_ = false;
  database_.emplace(settings.databasePath);
  watcher_.emplace(settings.root, static_cast<FolderListener&>(*this));
  watcher_->open();
  std::vector<FolderModel::Change> rows;
  {
    const std::lock_guard lock(mutex_);
    finishTransfers();
    rows = model_.rows();
    model_.takeChanges();
    starting_ = false;
    running_ = true;
  }
  try {
    database_->replaceAll(rows);
    tellNotices();
    thread_ = std::thread([this] { run(); });
  } catch (...) {
    const std::lock_guard lock(mutex_);
    running_ = false;
    throw;
  }
}

void SyncEngine::stop() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    running_ = false;
  }
  changed_.notify_all();
  if (thread_.joinable()) {
    wake();
    thread_.join();
  }
  watcher_.reset();
  database_.reset();
}

std::optional<FolderModel::Item> SyncEngine::find(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  return model_.find(path);
}

std::vector<std::optional<FolderModel::Item>> SyncEngine::findAll(const std::vector<std::string>& paths) const {
  std::vector<std::optional<FolderModel::Item>> items;
  items.reserve(paths.size());
  const std::lock_guard lock(mutex_);
  for (const std::string& path : paths) items.push_back(model_.find(path));
  return items;
}

std::optional<std::vector<std::pair<std::string, int>>> SyncEngine::children(const std::string& folder) const {
  const std::lock_guard lock(mutex_);
  return model_.children(folder);
}

std::size_t SyncEngine::size() const {
  const std::lock_guard lock(mutex_);
  return model_.size();
}

void SyncEngine::pin(const std::string& path, int code) {
  {
    const std::lock_guard lock(mutex_);
    model_.pin(path, code);
  }
  changed_.notify_all();
  wake();
}

void SyncEngine::unpin(const std::string& path) {
  {
    const std::lock_guard lock(mutex_);
    model_.unpin(path);
  }
  changed_.notify_all();
  wake();
}

bool SyncEngine::waitUntilIdle(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::unique_lock lock(mutex_);
  const std::uint64_t mine = ++askedIdle_;
  wake();
  changed_.wait_until(lock, deadline, [&] { return reachedIdle_ >= mine || !running_; });
  return reachedIdle_ >= mine;
}

bool SyncEngine::waitForStatus(const std::string& path, std::optional<int> code, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::unique_lock lock(mutex_);
  return changed_.wait_until(lock, deadline, [&] {
    const auto item = model_.find(path);
    return item ? code == item->code : !code;
  });
}

void SyncEngine::wake() {
  ::eventfd_write(wake_.get(), 1);
}

// With the lock held: told once it is released, so that a slow listener holds up no question.
void SyncEngine::note(std::string line) {
  if (notice_) notices_.push_back(std::move(line));
}

void SyncEngine::tellNotices() {
  std::vector<std::string> lines;
  {
    const std::lock_guard lock(mutex_);
    lines.swap(notices_);
  }
  for (const std::string& line : lines) notice_(line);
}

// --- What the watcher reports
// -----------------------------------------------------------------------------------------

void SyncEngine::folderListed(const std::string& folder, const std::vector<Entry>& entries) {
  {
    const std::lock_guard lock(mutex_);
    const std::string prefix = folder == "/" ? "/" : folder + "/";
    std::set<std::string_view> listed;
    for (const Entry& entry : entries) listed.insert(entry.name);
    for (const std::string& name : model_.childNames(folder))
      if (!listed.contains(name)) forget(prefix + name);
    for (const Entry& entry : entries) see(prefix + entry.name, entry, false);
  }
  changed_.notify_all();
}

void SyncEngine::itemSeen(const std::string& path, const Entry& entry, bool written) {
  {
    const std::lock_guard lock(mutex_);
    see(path, entry, written);
  }
  changed_.notify_all();
}

void SyncEngine::itemGone(const std::string& path) {
  {
    const std::lock_guard lock(mutex_);
    forget(path);
  }
  changed_.notify_all();
}

void SyncEngine::rootGone() {
  {
    const std::lock_guard lock(mutex_);
    forget("/");
    note("the synced folder is gone");
  }
  changed_.notify_all();
}

void SyncEngine::watcherNotice(const std::string& text) {
  const std::lock_guard lock(mutex_);
  note(printable(text));
}

// With the lock held.
void SyncEngine::see(const std::string& path, const Entry& entry, bool written) {
  const bool syncable = isSyncablePath(path);
  const auto known = model_.find(path);
  if (entry.folder) {
    if (known && known->folder) return;
    forget(path);
    model_.putFolder(path, syncable);
    if (!syncable && !starting_) note("not synced " + printable(path));
    return;
  }
  if (!syncable) {
    model_.putFile(path, entry.stamp, CODE_NOT_SYNCED);
    if (!known && !starting_) note("not synced " + printable(path));
    return;
  }
  const bool same = model_.stamp(path) == entry.stamp;
  if (same && !written) return;
  forget(path + "/");  // a folder of that name
  if (starting_ && settings_.assumeSynced) {
    model_.putFile(path, entry.stamp, CODE_SYNCED);
    return;
  }
  if (!model_.putFile(path, entry.stamp, CODE_PENDING)) return;
  transfers_.add(path);
  if (!starting_ && !(known && known->code == CODE_PENDING)) note("pending    " + printable(path));
}

// With the lock held.
void SyncEngine::forget(const std::string& path) {
  const bool known = path != "/" && model_.find(path).has_value();
  for (const std::string& file : model_.remove(path)) transfers_.cancel(file);
  if (known && !starting_) note("removed    " + printable(path));
}

// With the lock held.
void SyncEngine::finishTransfers() {
  for (const std::string& path : transfers_.finished(TransferQueue::Clock::now())) {
    model_.setFileCode(path, CODE_SYNCED);
    if (!starting_) note("synced     " + printable(path));
  }
}

// --- The thread
// -------------------------------------------------------------------------------------------------------

bool SyncEngine::writeChanges() {
  std::vector<FolderModel::Change> changes;
  {
    const std::lock_guard lock(mutex_);
    changes = model_.takeChanges();
  }
  if (!unwritten_.empty()) {
    for (auto& change : changes) unwritten_[std::move(change.path)] = change.code;
    changes.clear();
    for (const auto& [path, code] : unwritten_) changes.push_back({path, code});
  }
  try {
    database_->apply(changes);
    unwritten_.clear();
    complained_ = false;
    return true;
  } catch (const SqliteError& error) {
    for (auto& change : changes) unwritten_[std::move(change.path)] = change.code;
    if (!complained_) watcherNotice(std::string("cannot write sync.db, trying again: ") + error.what());
    complained_ = true;
    return false;
  }
}

int SyncEngine::pollTimeout(bool written) const {
  const auto end = transfers_.nextEnd();
  if (!end) return written ? -1 : RETRY_MILLISECONDS;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - TransferQueue::Clock::now()).count();
  const int timeout = static_cast<int>(std::clamp<std::int64_t>(left, 0, 60'000));
  return written ? timeout : std::min(timeout, RETRY_MILLISECONDS);
}

void SyncEngine::run() {
  for (;;) {
    eventfd_t count = 0;
    ::eventfd_read(wake_.get(), &count);
    std::uint64_t asked = 0;
    {
      const std::lock_guard lock(mutex_);
      if (stopping_) break;
      asked = askedIdle_;
    }
    watcher_->process();
    {
      const std::lock_guard lock(mutex_);
      finishTransfers();
    }
    const bool written = writeChanges();
    tellNotices();
    int timeout = 0;
    {
      const std::lock_guard lock(mutex_);
      if (written && transfers_.empty()) reachedIdle_ = asked;
      timeout = pollTimeout(written);
    }
    changed_.notify_all();
    std::array<pollfd, 2> waits{{{wake_.get(), POLLIN, 0}, {watcher_->fd(), POLLIN, 0}}};
    ::poll(waits.data(), waits.size(), timeout);
  }
  writeChanges();
  tellNotices();
}

}  // namespace vornet::sim
