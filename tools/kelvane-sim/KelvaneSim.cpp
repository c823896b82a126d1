#include "kelvane-sim/KelvaneSim.hpp"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "kelvane-sim/Commands.hpp"
#include "kelvane-sim/Ownership.hpp"
#include "kelvane-sim/Places.hpp"
#include "kelvane-sim/Preferences.hpp"
#include "kelvane-sim/Printable.hpp"
#include "kelvane-sim/SyncEngine.hpp"

namespace vornet::sim {

namespace {

using Clock = std::chrono::steady_clock;

struct ActiveFault {
  Fault fault = Fault::NONE;
  std::optional<Clock::time_point> end;
};

std::string listed(const std::vector<std::string>& paths) {
  std::string text;
  for (const std::string& path : paths) text += (text.empty() ? "" : ", ") + printable(path);
  return text;
}

}  // namespace

class KelvaneSim::Impl {
 public:
  explicit Impl(Options options)
      : options_(std::move(options)),
        engine_([this](const std::string& line) { say(line); }),
        commands_(engine_, [this](const Action& action) { perform(action); }),
        server_([this](const HttpRequest& request) { return handle(request); }) {
    root = absolutePath(options_.root);
    container = options_.container.empty() ? groupContainerPath() : absolutePath(options_.container);
    state = options_.state.empty() ? container : absolutePath(options_.state);
    journal_.emplace(state);
  }
  ~Impl() { stop(); }

  void start();
  void stop();
  void setFault(const std::string& command, Fault fault, std::chrono::milliseconds duration);

  std::string root;
  std::string container;
  std::string state;

  std::uint16_t port() const {
    const std::lock_guard lock(serverMutex_);
    return port_;
  }

  const Options options_;
  SyncEngine engine_;

  // Requests and actions.
  mutable std::mutex recordMutex_;
  mutable std::condition_variable recorded_;
  std::deque<HttpRequest> requests_;
  std::vector<Action> actions_;

 private:
  void say(const std::string& line);
  HttpReply handle(const HttpRequest& request);
  void perform(const Action& action);
  Fault faultFor(const std::string& command) const;
  void applyRefusal();
  void expireFaults();

  const Commands commands_;
  std::optional<ActionJournal> journal_;
  std::mutex noticeMutex_;
  FileDescriptor claim_;

  // Guards the server's coming and going; taken before faultMutex_.
  mutable std::mutex serverMutex_;
  HttpServer server_;
  std::uint16_t port_ = 0;
  bool started_ = false;
  bool listening_ = false;

  mutable std::mutex faultMutex_;
  std::condition_variable faultsChanged_;
  std::map<std::string, ActiveFault> faults_;  // by command; "" is for all
  bool stopping_ = false;
  std::thread expiry_;
};

void KelvaneSim::Impl::say(const std::string& line) {
  if (!options_.notice) return;
  const std::lock_guard lock(noticeMutex_);
  options_.notice(line);
}

void KelvaneSim::Impl::start() {
  stop();
  checkSyncedFolder(root);
  checkOutside(container, root);
  checkOutside(state, root);
  if (!options_.force) checkOwnContainer(container);
  makePrivateFolder(container);
  makePrivateFolder(state);
  FileDescriptor claim = claimFolder(container);
  {
    // First of all, so that a port in use leaves the databases of whoever uses it alone.
    const std::lock_guard lock(serverMutex_);
    server_.listen(options_.port);
    port_ = server_.port();
    listening_ = true;
  }
  try {
    SyncEngine::Settings settings;
    settings.root = root;
    settings.databasePath = container + "/" + STATUS_DATABASE_NAME;
    settings.transferTime = options_.transferTime;
    settings.parallelTransfers = options_.parallelTransfers;
    settings.assumeSynced = options_.assumeSynced;
    engine_.start(settings);
    writeConfiguration(container, root);
    {
      const std::lock_guard lock(serverMutex_);
      started_ = true;
      server_.serve();
    }
    applyRefusal();
    writePreferences(container, root);
  } catch (const std::exception& error) {
    stop();
    throw std::runtime_error(error.what());
  }
  claim_ = std::move(claim);
  {
    const std::lock_guard lock(faultMutex_);
    stopping_ = false;
  }
  expiry_ = std::thread([this] { expireFaults(); });
}

void KelvaneSim::Impl::stop() {
  {
    const std::lock_guard lock(faultMutex_);
    stopping_ = true;
  }
  faultsChanged_.notify_all();
  if (expiry_.joinable()) expiry_.join();
  {
    const std::lock_guard lock(serverMutex_);
    server_.stop();
    started_ = listening_ = false;
  }
  engine_.stop();
  claim_.reset();
}

HttpReply KelvaneSim::Impl::handle(const HttpRequest& request) {
  {
    const std::lock_guard lock(recordMutex_);
    requests_.push_back(request);
    if (requests_.size() > MOST_REQUESTS) requests_.pop_front();
  }
  recorded_.notify_all();
  return commands_.answer(request, faultFor(std::string(commandOf(request))));
}

void KelvaneSim::Impl::perform(const Action& action) {
  {
    const std::lock_guard lock(recordMutex_);
    journal_->append(action);
    actions_.push_back(action);
  }
  recorded_.notify_all();
  say("action     " + action.name + ": " + listed(action.paths));
}

Fault KelvaneSim::Impl::faultFor(const std::string& command) const {
  const std::lock_guard lock(faultMutex_);
  const auto now = Clock::now();
  for (const std::string& key : {command, std::string()}) {
    const auto found = faults_.find(key);
    if (found != faults_.end() && (!found->second.end || now < *found->second.end)) return found->second.fault;
  }
  return Fault::NONE;
}

void KelvaneSim::Impl::setFault(const std::string& command, Fault fault, std::chrono::milliseconds duration) {
  if (!command.empty() &&
      (fault == Fault::REFUSE || std::find(COMMANDS.begin(), COMMANDS.end(), command) == COMMANDS.end())) {
    throw std::invalid_argument("no such command, or not a fault of one command: " + command);
  }
  {
    const std::lock_guard lock(faultMutex_);
    if (fault == Fault::NONE) {
      faults_.erase(command);
    } else {
      ActiveFault active{fault, std::nullopt};
      if (duration.count() > 0) active.end = Clock::now() + duration;
      faults_[command] = active;
    }
  }
  faultsChanged_.notify_all();
  applyRefusal();
}

// Opens or closes the server as the faults have it.
void KelvaneSim::Impl::applyRefusal() {
  const std::lock_guard lock(serverMutex_);
  if (!started_) return;
  const bool refuse = faultFor("") == Fault::REFUSE;
  if (refuse && listening_) {
    server_.stop();
    listening_ = false;
  } else if (!refuse && !listening_) {
    server_.listen(port_);
    server_.serve();
    listening_ = true;
  }
}

void KelvaneSim::Impl::expireFaults() {
  constexpr auto RETRY = std::chrono::milliseconds(250);
  std::unique_lock lock(faultMutex_);
  std::optional<Clock::time_point> retry;
  while (!stopping_) {
    std::optional<Clock::time_point> next = retry;
    for (const auto& [command, active] : faults_)
      if (active.end) next = next ? std::min(*next, *active.end) : *active.end;
    if (!next) {
      faultsChanged_.wait(lock);
      continue;
    }
    if (Clock::now() < *next) {
      faultsChanged_.wait_until(lock, *next);
      continue;
    }
    const std::size_t ended =
        std::erase_if(faults_, [](const auto& entry) { return entry.second.end && *entry.second.end <= Clock::now(); });
    lock.unlock();
    if (ended > 0) say("fault over");
    try {
      applyRefusal();
      retry.reset();
    } catch (const std::runtime_error& error) {
      if (!retry) say(error.what());
      retry = Clock::now() + RETRY;
    }
    lock.lock();
  }
}

// --- The object
// -------------------------------------------------------------------------------------------------------

KelvaneSim::KelvaneSim(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}
KelvaneSim::~KelvaneSim() = default;

void KelvaneSim::start() {
  impl_->start();
}
void KelvaneSim::stop() {
  impl_->stop();
}
std::uint16_t KelvaneSim::port() const {
  return impl_->port();
}
const std::string& KelvaneSim::root() const {
  return impl_->root;
}
const std::string& KelvaneSim::container() const {
  return impl_->container;
}
const std::string& KelvaneSim::state() const {
  return impl_->state;
}

void KelvaneSim::setStatus(const std::string& path, int code) {
  impl_->engine_.pin(path, code);
}
void KelvaneSim::clearStatus(const std::string& path) {
  impl_->engine_.unpin(path);
}

std::optional<int> KelvaneSim::status(const std::string& path) const {
  const auto item = impl_->engine_.find(path);
  if (!item) return std::nullopt;
  return item->code;
}

std::size_t KelvaneSim::items() const {
  return impl_->engine_.size();
}

void KelvaneSim::setFault(Fault fault, std::chrono::milliseconds duration) {
  impl_->setFault("", fault, duration);
}
void KelvaneSim::setFault(const std::string& command, Fault fault, std::chrono::milliseconds duration) {
  impl_->setFault(command, fault, duration);
}

std::vector<HttpRequest> KelvaneSim::requests() const {
  const std::lock_guard lock(impl_->recordMutex_);
  return {impl_->requests_.begin(), impl_->requests_.end()};
}

void KelvaneSim::clearRequests() {
  const std::lock_guard lock(impl_->recordMutex_);
  impl_->requests_.clear();
}

std::optional<HttpRequest> KelvaneSim::waitForRequest(const std::string& command,
                                                      std::chrono::milliseconds timeout) const {
  const auto deadline = Clock::now() + timeout;
  std::unique_lock lock(impl_->recordMutex_);
  std::optional<HttpRequest> found;
  impl_->recorded_.wait_until(lock, deadline, [&] {
    const auto request = std::find_if(impl_->requests_.begin(), impl_->requests_.end(),
                                      [&](const HttpRequest& one) { return commandOf(one) == command; });
    if (request == impl_->requests_.end()) return false;
    found = *request;
    return true;
  });
  return found;
}

std::vector<Action> KelvaneSim::actions() const {
  const std::lock_guard lock(impl_->recordMutex_);
  return impl_->actions_;
}

bool KelvaneSim::waitForActions(std::size_t count, std::chrono::milliseconds timeout) const {
  const auto deadline = Clock::now() + timeout;
  std::unique_lock lock(impl_->recordMutex_);
  return impl_->recorded_.wait_until(lock, deadline, [&] { return impl_->actions_.size() >= count; });
}

bool KelvaneSim::waitUntilIdle(std::chrono::milliseconds timeout) {
  return impl_->engine_.waitUntilIdle(timeout);
}

bool KelvaneSim::waitForStatus(const std::string& path, std::optional<int> code, std::chrono::milliseconds timeout) {
  return impl_->engine_.waitForStatus(path, code, timeout);
}

}  // namespace vornet::sim
