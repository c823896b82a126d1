#include "BadgeChanges.hpp"

#include <map>

#include "Selections.hpp"
#include "dbus/GLibPtr.hpp"
#include "dbus/Interface.hpp"
#include "platform/FinderSync.hpp"
#include "platform/linux/FinderSyncHost.hpp"
#include "platform/linux/Host.hpp"

namespace vornet::service {
namespace {

// Long enough for the changes of one pass over a folder to become one signal, too short to be seen.
constexpr std::chrono::milliseconds GATHERING{10};

// Bytes of names that are given to the connection at a time, and that may be in flight: answers queue behind them.
constexpr std::size_t MOST_AT_ONCE = 128 * 1024;
constexpr std::size_t MOST_ON_ITS_WAY = 256 * 1024;

// How many waiting changes are taken at a time; meanwhile nobody can add any.
constexpr int CHANGES_A_TURN = 100;

// After so many changes free memory is returned to the system, once this time has passed without as many again.
constexpr std::size_t STORM = 20'000;
constexpr std::chrono::milliseconds CALM{500};

constexpr std::size_t MEMORY_OF_A_CHANGE = 200;  // beside its path, which is there twice

std::string folderOf(const std::string& path) {
  const auto separator = path.find_last_of('/');
  return separator == 0 ? "/" : path.substr(0, separator);
}

std::string nameOf(const std::string& path) {
  return path.substr(path.find_last_of('/') + 1);
}

std::size_t memoryOf(const std::string& path) {
  return 2 * path.size() + MEMORY_OF_A_CHANGE;
}

}  // namespace

std::map<std::string, char, std::less<>> FolderBadges::numbers() {
  std::map<std::string, char, std::less<>> numbers;
  char number = 0;
  for (const auto& badge : platform::host::registeredBadges()) numbers[badge.identifier] = ++number;
  return numbers;
}

void FolderBadges::add(std::string_view name, std::string_view identifier) {
  if (items_++ % dbus::MAX_ITEMS_A_SIGNAL == 0)
    messages_.emplace_back();
  else
    messages_.back().names += '/';
  auto& message = messages_.back();
  const auto number = numbers_.find(identifier);
  message.names += name;
  message.badges += number == numbers_.end() ? '\0' : number->second;
  bytes_ += name.size() + 2;
}

/// Messages that the connection has not sent yet. They share this object, because some may outlive their sender.
class BadgeChanges::Output : public std::enable_shared_from_this<Output> {
 public:
  explicit Output(BadgeChanges* sender) : sender_(sender) {}

  /// Counts `message`, of about `bytes` bytes, as in flight until it is freed.
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
      // Turns the objects of all texts into bytes: GLib may never return the memory of objects.
      g_variant_get_data(change);
      g_variant_builder_add_value(&builder, change);
      bytes += changes[i].first.size();
    }
    GVariant* body = g_variant_new("(a(ss))", &builder);
    g_variant_get_data(body);  // one block of bytes
    send("BadgesChanged", client, body, bytes);
  }
}

void BadgeChanges::sendNow(const std::string& client, std::uint64_t stream, const FolderBadges& badges,
                           bool isSnapshot) {
  static const std::vector<FolderBadges::Message> none(1);
  const auto& messages = isSnapshot && badges.messages_.empty() ? none : badges.messages_;
  for (std::size_t i = 0; i < messages.size(); ++i) {
    unsigned char flags = 0;
    if (isSnapshot && i == 0) flags |= dbus::SNAPSHOT_BEGINS;
    if (isSnapshot && i + 1 == messages.size()) flags |= dbus::SNAPSHOT_ENDS;
    sendFolderBadges(client, stream, flags, messages[i]);
  }
}

void BadgeChanges::refuseSnapshot(const std::string& client, std::uint64_t stream) {
  sendFolderBadges(client, stream, dbus::NO_SNAPSHOT, {});
}

void BadgeChanges::sendFolderBadges(const std::string& client, std::uint64_t stream, unsigned char flags,
                                    const FolderBadges::Message& message) {
  GVariant* badges = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, message.badges.data(), message.badges.size(), 1);
  GVariant* body = g_variant_new("(tys@ay)", static_cast<guint64>(stream), flags, message.names.c_str(), badges);
  send("FolderBadges", client, body, message.names.size() + message.badges.size());
}

/// Gives a signal of about `bytes` bytes to the connection.
void BadgeChanges::send(const char* signal, const std::string& client, GVariant* body, std::size_t bytes) {
  const GObjectPtr<GDBusMessage> message(g_dbus_message_new_signal(dbus::OBJECT_PATH, dbus::INTERFACE, signal));
  g_dbus_message_set_destination(message.get(), client.c_str());
  g_dbus_message_set_body(message.get(), body);
  output_->add(message.get(), bytes);
  // A client that has just left the bus is no error.
  g_dbus_connection_send_message(connection_, message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
}

bool BadgeChanges::hasRoom() const {
  return output_->hasRoom();
}

BadgeChanges::Waiting BadgeChanges::waitingIn(const std::string& folder) {
  const std::lock_guard guard(lock_);
  Waiting waiting;
  for (const auto& [path, change] : pending_)
    if (folderOf(path) == folder) waiting.emplace(nameOf(path), change.number);
  return waiting;
}

BadgeChanges::BadgeChanges(GDBusConnection* connection, const ObservationRegistry& observations, WorkPool& pool)
    : connection_(connection),
      observations_(observations),
      pool_(pool),
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
  if (pending_.insert_or_assign(*url.path(), Change{url, identifier, ++lastNumber_}).second)
    waiting_ += memoryOf(*url.path());
  if (!scheduled_) sendAfter(GATHERING);
  return !isFull();
}

void BadgeChanges::amend(const platform::FileURL& url, const std::string& identifier) {
  const std::lock_guard guard(lock_);
  if (pending_.empty()) return;
  const auto found = pending_.find(*url.path());
  if (found != pending_.end()) found->second = {url, identifier, ++lastNumber_};
}

void BadgeChanges::amend(const platform::FileURL& url, const std::string& identifier, std::uint64_t number) {
  const std::lock_guard guard(lock_);
  const auto found = pending_.find(*url.path());
  if (found != pending_.end() && found->second.number == number) found->second.identifier = identifier;
}

void BadgeChanges::stop() {
  output_->leave();
  const std::lock_guard guard(lock_);
  stopped_ = true;
  timer_.cancel();
  calm_.cancel();
}

void BadgeChanges::sendSoon() {
  roomListener_();
  const std::lock_guard guard(lock_);
  if (scheduled_ || stopped_ || pending_.empty()) return;
  sendAfter(std::chrono::milliseconds(0));
}

/// With the lock held.
void BadgeChanges::sendAfter(std::chrono::milliseconds delay) {
  scheduled_ = true;
  timer_.expires_after(delay);
  timer_.async_wait([this](const boost::system::error_code& cancelled) {
    if (!cancelled) pool_.postOwn([this] { send(); });
  });
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
      calm_.async_wait([this](const boost::system::error_code& cancelled) {
        if (!cancelled) pool_.postOwn([] { platform::host::giveFreeMemoryBack(); });
      });
    }
  }
  if (hasRoom) platform::host::listenerHasRoom();
}

/// Sends what may be given to the connection at a time. False when nothing waits.
bool BadgeChanges::sendSome() {
  const std::lock_guard emitting(emission_);
  const auto roots = platform::FIFinderSyncController::defaultController().directoryURLs();
  using Observers = std::vector<ObservationRegistry::Observer>;
  std::map<std::string, Observers> observers;  // by folder: changes come many to a folder
  std::map<std::string, Changes> byClient;
  std::map<std::pair<std::string, std::uint64_t>, FolderBadges> byStream;
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
    for (const auto& [url, identifier, number] : turn) {
      if (!isBelow(roots, *url.path())) continue;
      const auto folder = folderOf(*url.path());
      auto found = observers.find(folder);
      if (found == observers.end()) found = observers.emplace(folder, observations_.observers(folder)).first;
      const auto text = url.description();
      for (const auto& [client, stream] : found->second)
        if (stream)
          byStream[{client, *stream}].add(nameOf(*url.path()), identifier);
        else
          byClient[client].emplace_back(text, identifier);
      bytes += text.size() * found->second.size();
    }
  }
  for (const auto& [client, list] : byClient) sendNow(client, list);
  for (const auto& [stream, badges] : byStream) sendNow(stream.first, stream.second, badges, false);
  const std::lock_guard guard(lock_);
  return !pending_.empty();
}

}  // namespace vornet::service
