#include "BadgeChanges.hpp"

#include <chrono>
#include <map>

#include "Selections.hpp"
#include "dbus/Interface.hpp"
#include "platform/FinderSync.hpp"
#include "platform/linux/FinderSyncHost.hpp"
#include "platform/linux/Host.hpp"

namespace vornet::service {
namespace {

// Long enough for the changes of one pass over a folder to become one signal, too short for an eye.
constexpr std::chrono::milliseconds GATHERING{10};

// Bytes of names. So much is given to the connection at a time, and so much may be on its way: answers to questions
// wait behind it.
constexpr std::size_t MOST_AT_ONCE = 128 * 1024;
constexpr std::size_t MOST_ON_ITS_WAY = 256 * 1024;

// So many changes are taken from those that wait while others must wait to add theirs.
constexpr int CHANGES_A_TURN = 100;

// After so many changes memory is given back, once so much time has passed without another so many.
constexpr std::size_t STORM = 20'000;
constexpr std::chrono::milliseconds CALM{500};

constexpr std::size_t MEMORY_OF_A_CHANGE = 200;  // beside its path, which is there twice

std::string folderOf(const std::string& path) {
  const auto separator = path.find_last_of('/');
  return separator == 0 ? "/" : path.substr(0, separator);
}

std::size_t memoryOf(const std::string& path) {
  return 2 * path.size() + MEMORY_OF_A_CHANGE;
}

}  // namespace

/// What was given to the connection and is not sent yet. The messages share it, because some may outlive their sender.
class BadgeChanges::Output : public std::enable_shared_from_this<Output> {
 public:
  explicit Output(BadgeChanges* sender) : sender_(sender) {}

  /// Notes that `message`, of about `bytes` bytes, is on its way until it is freed.
  void add(GDBusMessage* message, std::size_t bytes) {
    auto* load = new Load{shared_from_this(), bytes};
    {
      const std::lock_guard guard(lock_);
      bytes_ += bytes;
    }
    passHandOver();
    g_object_set_qdata_full(G_OBJECT(message), g_quark_from_static_string("vornet-changes"), load, &sent);
  }

  bool hasRoom() {
    const std::lock_guard guard(lock_);
    return bytes_ < MOST_ON_ITS_WAY;
  }

  /// Stops calling the sender.
  void leave() {
    const std::lock_guard guard(lock_);
    sender_ = nullptr;
  }

 private:
  struct Load {
    std::shared_ptr<Output> output;
    std::size_t bytes;
  };

  static void sent(gpointer data) {
    passHandOver();
    const std::unique_ptr<Load> load(static_cast<Load*>(data));
    load->output->remove(load->bytes);
  }

  /// GLib hands the load from one thread to another, but it is not instrumented: the thread sanitizer sees no order.
  static void passHandOver() {
    static std::mutex lock;
    const std::lock_guard guard(lock);
  }

  void remove(std::size_t bytes) {
    const std::lock_guard guard(lock_);
    bytes_ -= bytes;
    if (bytes_ < MOST_ON_ITS_WAY && sender_) sender_->sendSoon();
  }

  std::mutex lock_;  // guards what follows
  std::size_t bytes_ = 0;
  BadgeChanges* sender_;
};

void BadgeChanges::sendNow(const std::string& client, const Changes& changes) {
  for (std::size_t from = 0; from < changes.size(); from += dbus::MAX_CHANGES_A_SIGNAL) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(ss)"));
    std::size_t bytes = 0;
    for (std::size_t i = from; i < std::min(changes.size(), from + dbus::MAX_CHANGES_A_SIGNAL); ++i) {
      GVariant* change = g_variant_new("(ss)", changes[i].first.c_str(), changes[i].second.c_str());
      // Bytes from now on, instead of objects for each text. GLib may keep the memory of objects for ever.
      g_variant_get_data(change);
      g_variant_builder_add_value(&builder, change);
      bytes += changes[i].first.size();
    }
    GVariant* body = g_variant_new("(a(ss))", &builder);
    g_variant_get_data(body);  // one block of bytes
    GDBusMessage* message = g_dbus_message_new_signal(dbus::OBJECT_PATH, dbus::INTERFACE, "BadgesChanged");
    g_dbus_message_set_destination(message, client.c_str());
    g_dbus_message_set_body(message, body);
    output_->add(message, bytes);
    // A client that has just left the bus is no error.
    g_dbus_connection_send_message(connection_, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(message);
  }
}

BadgeChanges::BadgeChanges(GDBusConnection* connection, const ObservationRegistry& observations, WorkPool& pool)
    : connection_(connection),
      observations_(observations),
      timer_(pool.threads()),
      calm_(pool.threads()),
      output_(std::make_shared<Output>(this)) {}

BadgeChanges::~BadgeChanges() {
  output_->leave();
}

bool BadgeChanges::add(const platform::FileURL& url, const std::string& identifier) {
  if (!url.path()) return true;
  const std::lock_guard guard(lock_);
  if (stopped_) return true;
  if (pending_.insert_or_assign(*url.path(), Change{url, identifier}).second) waiting_ += memoryOf(*url.path());
  if (!scheduled_) {
    scheduled_ = true;
    timer_.expires_after(GATHERING);
    timer_.async_wait([this](const boost::system::error_code&) { send(); });
  }
  return !isFull();
}

void BadgeChanges::amend(const platform::FileURL& url, const std::string& identifier) {
  const std::lock_guard guard(lock_);
  if (pending_.empty()) return;
  if (const auto found = pending_.find(*url.path()); found != pending_.end()) found->second.identifier = identifier;
}

void BadgeChanges::stop() {
  output_->leave();
  const std::lock_guard guard(lock_);
  stopped_ = true;
  timer_.cancel();
  calm_.cancel();
}

/// The connection takes more.
void BadgeChanges::sendSoon() {
  const std::lock_guard guard(lock_);
  if (scheduled_ || stopped_ || pending_.empty()) return;
  scheduled_ = true;
  timer_.expires_after(std::chrono::milliseconds(0));
  timer_.async_wait([this](const boost::system::error_code&) { send(); });
}

void BadgeChanges::send() {
  {
    const std::lock_guard guard(lock_);
    scheduled_ = false;
  }
  while (output_->hasRoom() && sendSome()) continue;
  bool hasRoom = false;
  {
    const std::lock_guard guard(lock_);
    hasRoom = !isFull();
    if (pending_.empty() && sent_ >= STORM && !stopped_) {
      sent_ = 0;
      pending_ = {};
      calm_.expires_after(CALM);
      // Changes by the ten thousand leave holes in the memory of several threads.
      calm_.async_wait([](const boost::system::error_code& cancelled) {
        if (!cancelled) platform::host::giveFreeMemoryBack();
      });
    }
  }
  if (hasRoom) platform::host::listenerHasRoom();
}

/// Sends as many changes as are to be given to the connection at a time. False when none waits.
bool BadgeChanges::sendSome() {
  const std::lock_guard emitting(emission_);
  const auto roots = platform::FIFinderSyncController::defaultController().directoryURLs();
  std::map<std::string, std::vector<std::string>> observers;  // by folder: changes come many to a folder
  std::map<std::string, Changes> byClient;
  std::vector<Change> turn;
  for (std::size_t bytes = 0; bytes < MOST_AT_ONCE; turn.clear()) {
    {
      const std::lock_guard guard(lock_);
      for (int i = 0; i < CHANGES_A_TURN && !pending_.empty(); ++i) {
        auto next = pending_.extract(pending_.begin());
        waiting_ -= memoryOf(next.key());
        turn.push_back(std::move(next.mapped()));
        ++sent_;
      }
    }
    if (turn.empty()) break;
    for (auto& [url, identifier] : turn) {
      if (!isBelow(roots, *url.path())) continue;
      const auto folder = folderOf(*url.path());
      auto found = observers.find(folder);
      if (found == observers.end()) found = observers.emplace(folder, observations_.observers(folder)).first;
      const auto text = url.description();
      for (const auto& client : found->second) byClient[client].emplace_back(text, identifier);
      bytes += text.size() * found->second.size();
    }
  }
  for (const auto& [client, list] : byClient) sendNow(client, list);
  const std::lock_guard guard(lock_);
  return !pending_.empty();
}

}  // namespace vornet::service
