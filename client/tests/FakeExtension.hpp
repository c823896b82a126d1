#pragma once

#include <gio/gio.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "FinderSync1.h"

namespace vornet::test {

/// An extension on the bus, under the real one's name, that does what a test says. It lives on the thread's default
/// main context, like the plug-in that is tested. URLs are as they came.
class FakeExtension {
 public:
  /// Owns the name when this returns. `folders`: URLs of the observed folders.
  FakeExtension(const std::string& address, std::vector<std::string> folders);
  ~FakeExtension();
  FakeExtension(const FakeExtension&) = delete;
  FakeExtension& operator=(const FakeExtension&) = delete;

  // What it answers.
  std::map<std::string, std::string> badges;       ///< URL -> identifier; "" for others
  std::map<std::string, std::vector<bool>> menus;  ///< first URL of the selection -> which of two entries are enabled
  std::map<std::string, std::string> refusals;     ///< method -> error it is refused with; after the prefix, or whole
  std::set<std::string> invalidItems;              ///< URLs because of which a RequestBadges is refused
  std::size_t places = 1000;                       ///< observations that it takes; others are refused
  /// Method, or "ObservedFolders" -> what it answers in place of what it should; of any type.
  std::map<std::string, std::function<GVariant*()>> nonsense;
  std::vector<std::string> answering;  ///< the items of the RequestBadges that is being answered

  // What it was asked.
  std::multiset<std::string> observed;                  ///< folders begun and not ended
  std::vector<std::string> calls;                       ///< methods in the order of their arrival
  std::vector<std::vector<std::string>> badgeRequests;  ///< the items of each
  std::vector<std::vector<std::string>> menuRequests;   ///< the selection of each
  std::vector<std::vector<std::string>> actions;        ///< action and selection of each

  /// While held, calls of `method` are taken in and not answered; released, they are, in their order.
  void hold(const std::string& method) { held_.insert(method); }
  void release(const std::string& method);
  std::size_t heldCalls(const std::string& method) const;

  /// Sends changes, item and identifier, to every caller so far.
  void sendChanges(const std::vector<std::pair<std::string, std::string>>& changes);

  void setFolders(const std::vector<std::string>& folders);

  /// Sends a signal, of any type, to every caller so far.
  void send(const char* interface, const char* signal, GVariant* values);

  /// Gives the bus name up, and stays on the bus: calls that it holds can still be answered.
  void giveUpName();

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
  GVariant* foldersValue() const;

  GDBusConnection* connection_ = nullptr;
  guint registration_ = 0;
  std::vector<std::string> folders_;
  std::set<std::string> held_;
  std::vector<Held> waiting_;
  std::set<std::string> callers_;
};

}  // namespace vornet::test
