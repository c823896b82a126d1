#pragma once

#include <gio/gio.h>

#include <map>
#include <string>
#include <vector>

namespace vornet::test {

/// An extension that answers as the test says, in the test's own process: for what the real one cannot be made to show.
/// It keeps one folder. It answers while the main loop runs. Not thread-safe.
class FakeExtension {
 public:
  struct Performed {
    std::string action;
    std::vector<std::string> paths;

    bool operator==(const Performed&) const = default;
  };

  /// `root`: the folder that it says is synced. When this returns, it owns the extension's name on the bus at
  /// `address`.
  FakeExtension(const std::string& address, const std::string& root);
  ~FakeExtension();
  FakeExtension(const FakeExtension&) = delete;
  FakeExtension& operator=(const FakeExtension&) = delete;

  /// The badge of the item at `path` from now on; told to the client that observes its folder.
  void setBadge(const std::string& path, const std::string& identifier);

  /// How often each folder is observed; those that are not are left out.
  const std::map<std::string, int>& observed() const { return observed_; }
  /// The calls that were made, each with the path of a folder: "begin /a".
  const std::vector<std::string>& observations() const { return observations_; }
  /// The items whose badges were asked for, each time.
  const std::vector<std::string>& asked() const { return asked_; }

  /// Menus are not answered until `answerMenus`.
  void holdMenus() { holdsMenus_ = true; }
  void answerMenus();
  /// The selections whose menus were asked for.
  const std::vector<std::vector<std::string>>& menus() const { return menus_; }

  const std::vector<Performed>& performed() const { return performed_; }

  /// Whether the last client that called is on the bus still.
  bool clientIsConnected() const;

 private:
  void called(const std::string& sender, const std::string& method, GVariant* arguments,
              GDBusMethodInvocation* invocation);

  const std::string root_;
  GDBusConnection* connection_ = nullptr;
  GDBusNodeInfo* description_ = nullptr;
  guint object_ = 0;
  std::string client_;
  std::map<std::string, std::string> badges_;
  std::map<std::string, int> observed_;
  std::vector<std::string> observations_;
  std::vector<std::string> asked_;
  std::vector<std::vector<std::string>> menus_;
  std::vector<GDBusMethodInvocation*> heldMenus_;
  bool holdsMenus_ = false;
  std::vector<Performed> performed_;
};

}  // namespace vornet::test
