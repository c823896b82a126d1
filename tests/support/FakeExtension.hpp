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

namespace vornet::test {

/// The URL of the item at `path`, any bytes.
std::string urlOf(const std::string& path);

/// An extension on the bus, under the real one's name, that does what a test says and records what it is asked. It
/// lives on the thread's default main context, like the client that is tested. URLs are as they came.
class FakeExtension {
 public:
  /// Owns the name on the bus at `address` when this returns. `folders`: URLs of the observed folders.
  FakeExtension(const std::string& address, std::vector<std::string> folders);
  ~FakeExtension();
  FakeExtension(const FakeExtension&) = delete;
  FakeExtension& operator=(const FakeExtension&) = delete;

  // What it answers.
  std::map<std::string, std::string> badges;       ///< URL -> identifier; "" for others
  std::map<std::string, std::vector<bool>> menus;  ///< first URL of the selection -> which of two entries are enabled
  /// The entries of any other selection within the folders: action, and whether it is enabled. ALL: as for a folder.
  std::vector<std::pair<std::string, bool>> menu;
  static const std::vector<std::pair<std::string, bool>> ALL;
  std::map<std::string, std::string> refusals;  ///< method -> error it is refused with; after the prefix, or whole
  std::size_t busyRequests = 0;                 ///< so many RequestBadges are refused with Busy
  std::string diesIn;                           ///< method in which it leaves the bus without an answer
  /// Changes that are sent just before the answer to the next RequestBadges.
  std::vector<std::pair<std::string, std::string>> changesBeforeAnswer;
  std::set<std::string> invalidItems;  ///< URLs because of which a RequestBadges is refused
  std::size_t places = 1000;           ///< observations that it takes; others are refused
  /// Method, or "ObservedFolders" -> what it answers in place of what it should; of any type.
  std::map<std::string, std::function<GVariant*()>> nonsense;
  std::vector<std::string> answering;  ///< the items of the RequestBadges that is being answered

  // What it was asked.
  std::multiset<std::string> observed;                  ///< folders begun and not ended
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

  /// The badge of the item is `identifier` from now on; whoever observes its folder is sent the change.
  void setBadge(const std::string& item, const std::string& identifier);

  /// Sends changes, item and identifier, to every caller so far.
  void sendChanges(const std::vector<std::pair<std::string, std::string>>& changes);

  void setFolders(const std::vector<std::string>& folders);

  /// Sends a signal, of any type, to every caller so far.
  void send(const char* interface, const char* signal, GVariant* values);

  /// Gives the bus name up, and stays on the bus: calls that it holds can still be answered.
  void giveUpName();

  /// Leaves the bus as a crashed process does.
  void die();

  /// Whether the client that called last is on the bus still.
  bool clientIsConnected() const;

 private:
  struct Held {
    std::string method;
    GDBusMethodInvocation* invocation;
    GVariant* arguments;
  };
  static void take(GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar* method,
                   GVariant* arguments, GDBusMethodInvocation* invocation, gpointer self);
  static GVariant* property(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* name, GError**,
                            gpointer self);
  void note(const std::string& method, GVariant* arguments);
  void answer(const std::string& method, GVariant* arguments, GDBusMethodInvocation* invocation);
  GVariant* menuOf(const std::vector<std::string>& selection) const;
  GVariant* foldersValue() const;
  std::shared_ptr<GVariant> callBus(const char* method, GVariant* arguments) const;

  GDBusConnection* connection_ = nullptr;
  guint registration_ = 0;
  std::vector<std::string> folders_;
  std::set<std::string> held_;
  std::vector<Held> waiting_;
  std::set<std::string> callers_;
  std::string lastCaller_;
};

}  // namespace vornet::test
