#include "kelvane-sim/KelvaneSim.hpp"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace vornet::sim {

namespace {

using Clock = SyncedFolder::Clock;
constexpr std::chrono::milliseconds INTERVAL(250);
constexpr int LARGEST_SHARE = 20;  // looking takes a twentieth of the time, however large the folder is

}  // namespace

KelvaneSim::KelvaneSim(Options options)
    : options_(std::move(options)),
      container_(options_.container, options_.root),
      folder_(options_.transferTime, options_.parallelTransfers),
      server_([this](const HttpRequest& request) { return handle(request); }) {}

KelvaneSim::~KelvaneSim() {
  stop();
}

void KelvaneSim::start() {
  stop();
  container_.open(options_.force);
  server_.listen();  // while the port is in use, the databases are somebody else's
  listening_ = true;
  try {
    look(options_.assumeSynced);
    if (options_.force) container_.removeOthersFiles();
    container_.writeStatuses(folder_.rows());
    started_ = true;
    server_.serve();
    applyRefusal();
    container_.writePreferences();
  } catch (const std::exception&) {
    stop();
    throw;
  }
  stopping_ = false;
  thread_ = std::thread([this] { run(); });
}

void KelvaneSim::stop() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
  server_.stop();
  started_ = listening_ = false;
}

// Reads the folder from disk. Returns when the next transfer ends.
std::optional<Clock::time_point> KelvaneSim::look(bool synced) {
  const Listing listing = list(container_.root());
  const std::lock_guard lock(mutex_);
  folder_.update(listing, synced);
  return folder_.transfer(Clock::now());
}

void KelvaneSim::run() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    const std::uint64_t asked = seen_ = asked_;
    lock.unlock();
    const auto begin = Clock::now();
    const auto end = look(false);
    const auto next = Clock::now() + std::max<Clock::duration>(INTERVAL, (Clock::now() - begin) * LARGEST_SHARE);
    lock.lock();
    const auto rows = folder_.rows();
    lock.unlock();
    bool written = true;
    try {
      container_.writeStatuses(rows);
    } catch (const std::exception& error) {
      written = false;
      if (!complained_) std::fprintf(stderr, "kelvane-sim: %s; trying again\n", error.what());
    }
    complained_ = !written;
    lock.lock();
    if (written && !end) {
      idle_ = asked;
      changed_.notify_all();
    }
    changed_.wait_until(lock, std::min(end.value_or(next), next), [&] { return stopping_ || asked_ != seen_; });
  }
}

HttpReply KelvaneSim::handle(const HttpRequest& request) {
  const std::lock_guard lock(mutex_);
  requests_.push_back(request);
  changed_.notify_all();
  return answer(request, fault_, folder_, [this](const Action& action) {
    container_.record(action);
    actions_.push_back(action);
  });
}

void KelvaneSim::setStatus(const std::string& path, int code) {
  const std::lock_guard lock(mutex_);
  folder_.pin(path, code);
  ++asked_;
  changed_.notify_all();
}

std::optional<int> KelvaneSim::status(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  const auto item = folder_.find(path);
  if (!item) return std::nullopt;
  return item->code;
}

void KelvaneSim::setFault(Fault fault) {
  {
    const std::lock_guard lock(mutex_);
    fault_ = fault;
  }
  applyRefusal();
}

// Opens or closes the port as the fault requires.
void KelvaneSim::applyRefusal() {
  const bool listen = fault_ != Fault::refuse;
  if (!started_ || listen == listening_) return;
  if (listen) {
    server_.listen();
    server_.serve();
  } else {
    server_.stop();
  }
  listening_ = listen;
}

std::vector<HttpRequest> KelvaneSim::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

void KelvaneSim::clearRequests() {
  const std::lock_guard lock(mutex_);
  requests_.clear();
}

bool KelvaneSim::waitForRequest(const std::string& command, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    return std::any_of(requests_.begin(), requests_.end(),
                       [&](const HttpRequest& request) { return commandOf(request) == command; });
  });
}

std::vector<Action> KelvaneSim::actions() const {
  const std::lock_guard lock(mutex_);
  return actions_;
}

bool KelvaneSim::waitForActions(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return actions_.size() >= count; });
}

bool KelvaneSim::waitUntilIdle(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  const std::uint64_t mine = ++asked_;
  changed_.notify_all();
  changed_.wait_for(lock, timeout, [&] { return stopping_ || idle_ >= mine; });
  return !stopping_ && idle_ >= mine;
}

}  // namespace vornet::sim
