#pragma once

#include <gio/gio.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ExtensionLink.hpp"
#include "MainLoop.hpp"

namespace vornet::client {

/// The badges that the extension sends: answers to requests, snapshots and changes. Reports them in slices, in the
/// order in which they came. Few requests are in flight; of the unread changes it keeps one large message or a few
/// megabytes of small ones. Not thread-safe: the context's thread only.
class BadgeStream {
 public:
  /// Items of one folder that are asked for in one request.
  struct Batch {
    std::string folder;                    ///< its path
    unsigned folderId = 0;                 ///< for the listener's use
    std::vector<std::string> names;        ///< dbus::BATCH at most
    std::vector<std::string> identifiers;  ///< their badges, "" for none, as many; empty until they are answered
  };

  struct NamedBadge {
    std::string_view name;
    std::string_view identifier;  ///< "" for none
  };

  class Listener {
   public:
    virtual ~Listener() = default;
    /// The next batch to request; none when there is nothing to request before the next ask(). An empty batch is
    /// skipped.
    virtual std::optional<Batch> nextBatch() = 0;
    /// The badges of the items from `begin` to before `end` are known. False: nobody needs those of the other items.
    virtual bool badgesAnswered(const Batch& batch, std::size_t begin, std::size_t end) = 0;
    virtual void requestFailed(Batch batch, const CallError& error) = 0;
    virtual void badgeChanged(const std::string& path, const std::string& identifier) = 0;
    /// Some items of a FolderBadges, in their order. `flags` are those of the message: that a snapshot begins comes
    /// with the first of its items, that it ends with the last; there may be none of them.
    virtual void folderBadges(guint64 /*stream*/, unsigned char /*flags*/, const std::vector<NamedBadge>& /*items*/) {}
    /// Changes were dropped unread, because too many came: what is on screen should be requested again.
    virtual void changesMissed() = 0;
  };

  /// Receives the link's changes; reports from `work`, after what is queued there. All arguments outlive this object.
  BadgeStream(GMainContext* context, ExtensionLink& link, SlicedWork& work, Listener& listener);
  ~BadgeStream();
  BadgeStream(const BadgeStream&) = delete;
  BadgeStream& operator=(const BadgeStream&) = delete;

  /// Requests batches, one in each iteration of the main loop, because writing its URLs takes a while. Each answer
  /// requests the next one.
  void ask();

  /// True while requests are in flight; true while as many are as may be.
  bool isWaiting() const { return inFlight_ > 0; }
  bool isFull() const;

  /// Changes with each answer and each reset().
  unsigned progress() const { return progress_; }

  /// Drops pending requests and unreported changes: the extension that they belong to has gone.
  void reset();

 private:
  struct Changes;
  struct FolderMessage;
  /// Lives until the next reset(). Callbacks of one extension process hold a weak reference to it.
  using Session = std::shared_ptr<const char>;

  bool request();
  void answered(Batch batch, GVariant* values, const CallError& error);
  void take(GVariant* changes);
  bool report(Changes& changes);
  void takeFolder(GVariant* values);
  bool report(FolderMessage& message);

  ExtensionLink& link_;
  SlicedWork& work_;
  Listener& listener_;
  std::vector<NamedBadge> items_;  ///< of the part that is being reported
  SlicedWork questions_;
  Disposal disposal_;
  Session session_;
  unsigned inFlight_ = 0;
  unsigned progress_ = 0;
  std::size_t unread_ = 0;  ///< memory of the changes that wait to be reported, in bytes
  bool isAsking_ = false;
};

}  // namespace vornet::client
