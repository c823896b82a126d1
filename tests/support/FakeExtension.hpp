#pragma once

#include <gio/gio.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "FinderSync1.h"
#include "dbus/GLibPtr.hpp"

namespace vornet::test {

/// The URL of the item at `path`, any bytes.
std::string urlOf(const std::string& path);

/// An extension on the bus, under the real one's name, that does what a test says and records what it is asked. It
/// lives on the thread's default main context, like the client that is tested. URLs are as they came.
class FakeExtension {
 public:
  using Changes = std::vector<std::pair<std::string, std::string>>;  ///< item and identifier

  /// Owns the name on the bus at `address` when this returns. `folders`: URLs of the observed folders.
  FakeExtension(const std::string& address, std::vector<std::string> folders);
  ~FakeExtension();
  FakeExtension(const FakeExtension&) = delete;
  FakeExtension& operator=(const FakeExtension&) = delete;

  // Its answers.
  std::map<std::string, std::string> badges;       ///< URL -> identifier; "" for others
  std::map<std::string, std::vector<bool>> menus;  ///< first URL of the selection -> which of two entries are enabled
  /// The entries of any other selection within the folders: action, and whether it is enabled. ALL: as for a folder.
  std::vector<std::pair<std::string, bool>> menu;
  static const std::vector<std::pair<std::string, bool>> ALL;
  std::map<std::string, std::string> refusals;  ///< method -> error it is refused with; after the prefix, or whole
  std::size_t busyRequests = 0;                 ///< so many RequestBadges are refused with Busy
  std::string diesIn;                           ///< method in which it leaves the bus without an answer
  /// Changes that are sent just before the answer to the next RequestBadges.
  Changes changesBeforeAnswer;
  bool sendsSnapshots = true;          ///< at once, when they are requested
  std::set<std::string> invalidItems;  ///< URLs because of which a RequestBadges is refused
  std::size_t places = 1000;           ///< observations that it takes; others are refused
  unsigned interfaceVersion = 1;       ///< from 2 on it has snapshots, of what `badges` has
  std::size_t itemsASignal = 5'000;    ///< of a snapshot
  /// Method, or "ObservedFolders" -> its answer instead of the right one; of any type.
  std::map<std::string, std::function<GVariant*()>> nonsense;
  std::vector<std::string> answering;  ///< the items of the RequestBadges that is being answered

  // The calls that it got.
  std::multiset<std::string> observed;                  ///< folders begun and not ended
  std::map<std::string, guint64> streams;               ///< of folders with a snapshot requested
  std::vector<std::string> calls;                       ///< in their order: "GetMenu URL URL", but "RequestBadges"
  std::set<std::string> methodsByBusName;               ///< addressed to whoever has the bus name, not to this process
  std::vector<std::vector<std::string>> badgeRequests;  ///< the items of each
  std::vector<std::vector<std::string>> menuRequests;   ///< the selection of each
  std::vector<std::vector<std::string>> actions;        ///< action and selection of each

  /// How many calls begin with `text`.
  std::size_t count(const std::string& text) const;

  /// While held, calls of `method` are taken in and not answered; released, they are, in their order.
  void hold(const std::string& method) { held_.insert(method); }
  void release(const std::string& method);
  std::size_t heldCalls(const std::string& method) const;
  /// Holds every method.
  void freeze();

  /// Sets the badge of the item, and sends the change to whoever observes its folder.
  void setBadge(const std::string& item, const std::string& identifier);

  /// Ends the wait of a folder's snapshot: sends what `badges` has of it, in its stream.
  void sendSnapshot(const std::string& folder);
  /// Sends a FolderBadges in the stream of `folder`: names and identifiers.
  void sendFolderBadges(const std::string& folder, const Changes& items, unsigned char flags = 0);

  /// Sends changes to every caller so far; in the streams of those that have one.
  void sendChanges(const Changes& changes);

  void setFolders(const std::vector<std::string>& folders);
  /// Sets the property, and sends its change to every caller so far.
  void changeProperty(const std::string& name, GVariant* value);

  /// Sends a signal, of any type, to every caller so far.
  void send(const char* interface, const char* signal, GVariant* values);

  /// Releases the bus name and stays on the bus: calls that it holds can still be answered.
  void giveUpName();

  /// Leaves the bus as a crashed process does.
  void die();

  /// True while the client that called last is still on the bus.
  bool clientIsConnected() const;

 private:
  struct Held {
    std::string method;
    GDBusMethodInvocation* invocation;
    std::shared_ptr<GVariant> arguments;
  };
  static void take(GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar* method,
                   GVariant* arguments, GDBusMethodInvocation* invocation, gpointer self);
  static GVariant* property(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* name, GError**,
                            gpointer self);
  void note(const std::string& method, GVariant* arguments);
  void answer(const std::string& method, GVariant* arguments, GDBusMethodInvocation* invocation);
  GVariant* menuOf(const std::vector<std::string>& selection) const;
  void sendChange(const std::string& property, GVariant* value);
  GVariantPtr callBus(const char* method, GVariant* arguments) const;

  GObjectPtr<GDBusConnection> connection_;
  guint registration_ = 0;
  std::vector<std::string> folders_;
  std::set<std::string> held_;
  std::vector<Held> waiting_;
  std::set<std::string> callers_;
  std::string lastCaller_;
};

}  // namespace vornet::test
