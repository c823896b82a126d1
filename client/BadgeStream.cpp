#include "BadgeStream.hpp"

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include "Paths.hpp"
#include "dbus/GLibPtr.hpp"
#include "dbus/Interface.hpp"

namespace vornet::client {
namespace {

// With batches of the size that the extension advises, four keep its threads busy.
constexpr unsigned MOST_BATCHES = 4;

// Changes of one message that are read. The extension sends 2,000 at a time.
constexpr std::size_t MOST_READ = 20'000;

// Memory of the changes that wait to be read, all messages together, in bytes: enough for 50,000 items. Beside its
// text, a change is three values.
constexpr std::size_t MOST_UNREAD = 16 << 20;
constexpr std::size_t BYTES_OF_A_CHANGE = 256;

// No item with a longer URL is on screen: every byte of its path takes three at most.
constexpr std::size_t LONGEST_URL = 3 * PATH_MAX + 32;

// No item has a longer name; most file systems have 255 at most.
constexpr std::size_t LONGEST_NAME = 1024;

/// The badge identifier `value`; "" where it is too long to be one.
std::string identifierOf(const GVariantPtr& value) {
  const gchar* text = textOf(value);
  const auto length = strnlen(text, LONGEST_IDENTIFIER + 1);
  return length > LONGEST_IDENTIFIER ? std::string() : std::string(text, length);
}

}  // namespace

/// A message of changes, a(ss): an item's URL and identifier.
struct BadgeStream::Changes {
  std::shared_ptr<GVariant> values;
  std::size_t count = 0;  ///< how many of them are read
  std::size_t next = 0;
};

/// A message of a folder's badges.
struct BadgeStream::FolderMessage {
  explicit FolderMessage(GVariant* values)
      : stream(g_variant_get_uint64(childOf(values, 0).get())),
        flags(g_variant_get_byte(childOf(values, 1).get())),
        names(childOf(values, 2)),
        badges(childOf(values, 3)) {
    gsize size = 0;
    const gchar* text = g_variant_get_string(names.get(), &size);
    rest = std::string_view(text, size);
    numbers = static_cast<const guchar*>(g_variant_get_fixed_array(badges.get(), &count, 1));
  }

  const guint64 stream;
  const unsigned char flags;
  const GVariantPtr names;
  const GVariantPtr badges;
  std::string_view rest;  ///< of the names
  const guchar* numbers = nullptr;
  gsize count = 0;
  gsize next = 0;
};

BadgeStream::BadgeStream(GMainContext* context, ExtensionLink& link, SlicedWork& work, Listener& listener)
    : link_(link),
      work_(work),
      listener_(listener),
      questions_(context),
      disposal_(context),
      session_(std::make_shared<char>()) {
  link_.onBadgesChanged([this](GVariant* changes) { take(changes); });
  link_.onFolderBadges([this](GVariant* values) { takeFolder(values); });
}

BadgeStream::~BadgeStream() {
  link_.onBadgesChanged(nullptr);
  link_.onFolderBadges(nullptr);
}

void BadgeStream::reset() {
  session_ = std::make_shared<char>();
  inFlight_ = 0;
  ++progress_;
  unread_ = 0;
}

bool BadgeStream::isFull() const {
  return inFlight_ >= MOST_BATCHES;
}

// --- Answers --------------------------------------------------------------------------------------------------------

void BadgeStream::ask() {
  if (!std::exchange(isAsking_, true)) questions_.add([this] { return isAsking_ = !isFull() && request(); });
}

/// False when there is nothing to ask for.
bool BadgeStream::request() {
  auto next = listener_.nextBatch();
  if (!next || next->names.empty()) return next.has_value();
  std::vector<std::string> paths;
  paths.reserve(next->names.size());
  for (const auto& name : next->names) paths.push_back(childPath(next->folder, name));
  ++inFlight_;
  const auto batch = std::make_shared<Batch>(*std::move(next));
  const auto done = [this, batch, session = std::weak_ptr(session_)](GVariant* values, const CallError& error) {
    if (!session.expired()) answered(std::move(*batch), values, error);
  };
  link_.callRunning("RequestBadges", g_variant_new("(@as)", urlsOf(paths)), "(as)", done);
  return true;
}

void BadgeStream::answered(Batch batch, GVariant* values, const CallError& error) {
  --inFlight_;
  ++progress_;
  const GVariantPtr list = values ? childOf(values, 0) : nullptr;
  const auto count = list ? g_variant_n_children(list.get()) : 0;
  if (count != batch.names.size()) {
    listener_.requestFailed(std::move(batch), list ? CallError{INVALID_REPLY, "an answer for other items"} : error);
    return ask();
  }
  batch.identifiers.reserve(count);
  for (gsize i = 0; i < count; ++i) batch.identifiers.push_back(identifierOf(childOf(list.get(), i)));
  work_.add([this, batch = std::move(batch), session = std::weak_ptr(session_), next = std::size_t(0)]() mutable {
    if (session.expired()) return false;
    const std::size_t begin = next;
    next = std::min(begin + SlicedWork::STEP, batch.names.size());
    return listener_.badgesAnswered(batch, begin, next) && next < batch.names.size();
  });
  ask();
}

// --- Changes --------------------------------------------------------------------------------------------------------

void BadgeStream::take(GVariant* changes) {
  const std::size_t count = g_variant_n_children(changes);
  const bool isLarge = count > Disposal::LARGE;
  const bool isTooLarge = count > MOST_READ;
  if (isLarge) disposal_.add(changes);
  if (isTooLarge) listener_.changesMissed();
  // A single message over the limit is still read.
  const auto fits = [this](std::size_t bytes) { return unread_ == 0 || unread_ + bytes <= MOST_UNREAD; };
  std::size_t bytes = count * BYTES_OF_A_CHANGE;
  if (!fits(bytes)) return listener_.changesMissed();
  if (!isTooLarge) bytes += g_variant_get_size(changes);
  if (!fits(bytes)) return listener_.changesMissed();

  const std::shared_ptr<GVariant> kept(g_variant_ref(changes), g_variant_unref);
  const auto message = std::make_shared<Changes>(Changes{kept, std::min(count, MOST_READ), 0});
  unread_ += bytes;
  work_.add([this, message, isLarge, bytes, session = std::weak_ptr(session_)] {
    if (!session.expired()) {
      if (report(*message)) return true;
      unread_ -= bytes;
    }
    if (isLarge) disposal_.add(message->values.get());
    return false;
  });
}

/// False when all have been reported.
bool BadgeStream::report(Changes& changes) {
  const std::size_t end = std::min(changes.next + SlicedWork::STEP, changes.count);
  for (; changes.next < end; ++changes.next) {
    const GVariantPtr change = childOf(changes.values.get(), changes.next);
    const GVariantPtr url = childOf(change.get(), 0);
    if (strnlen(textOf(url), LONGEST_URL + 1) > LONGEST_URL) continue;
    if (const auto path = pathOfURL(textOf(url))) listener_.badgeChanged(*path, identifierOf(childOf(change.get(), 1)));
  }
  return changes.next < changes.count;
}

// --- Folders --------------------------------------------------------------------------------------------------------

void BadgeStream::takeFolder(GVariant* values) {
  const auto message = std::make_shared<FolderMessage>(values);
  const std::size_t bytes = BYTES_OF_A_CHANGE + message->rest.size() + message->count;
  if (message->count > MOST_READ || unread_ + bytes > MOST_UNREAD) return listener_.changesMissed();
  unread_ += bytes;
  work_.add([this, message, bytes, session = std::weak_ptr(session_)] {
    if (session.expired()) return false;
    if (report(*message)) return true;
    unread_ -= bytes;
    return false;
  });
}

/// False when all have been reported.
bool BadgeStream::report(FolderMessage& message) {
  auto flags = message.flags;
  if (message.next > 0) flags &= static_cast<unsigned char>(~dbus::SNAPSHOT_BEGINS);
  const gsize end = std::min<gsize>(message.next + SlicedWork::STEP, message.count);
  items_.clear();
  for (; message.next < end; ++message.next) {
    const auto slash = std::min(message.rest.find('/'), message.rest.size());
    if (slash <= LONGEST_NAME)
      items_.push_back({message.rest.substr(0, slash), link_.badgeIdentifier(message.numbers[message.next])});
    message.rest.remove_prefix(std::min(slash + 1, message.rest.size()));
  }
  const bool isLast = message.next == message.count;
  if (!isLast) flags &= static_cast<unsigned char>(~dbus::SNAPSHOT_ENDS);
  listener_.folderBadges(message.stream, flags, items_);
  return !isLast;
}

}  // namespace vornet::client
