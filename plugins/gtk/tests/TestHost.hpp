#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "FakeFile.hpp"
#include "Manager.hpp"

namespace vornet::test {

/// A file manager without windows: loads the built plug-in as the file manager does, and calls its providers. Not
/// thread-safe.
class TestHost {
 public:
  struct Entry {
    std::string name;
    std::string label;
    bool sensitive = false;
    std::string icon;
    std::shared_ptr<gtk::manager::MenuItem> item;

    void activate() const { VORNET_CALL(menu_item_activate)(item.get()); }
  };

  /// Loads the plug-in and makes its provider.
  TestHost();
  /// Unloads it.
  ~TestHost();
  TestHost(const TestHost&) = delete;
  TestHost& operator=(const TestHost&) = delete;

  /// Drops the provider and has the plug-in shut down.
  void unload();

  GObject* provider() const { return provider_; }

  /// A file at a path or URL, not yet asked for.
  std::unique_ptr<FakeFile> file(const std::string& pathOrURL);
  /// Watched at once.
  std::unique_ptr<FakeFile> watchedFile(const std::string& pathOrURL);

  /// The menu of `files`, and that of a folder's background.
  std::vector<Entry> menu(const std::vector<FakeFile*>& files);
  std::vector<Entry> backgroundMenu(FakeFile& folder);
  /// How often the plug-in said that its menu entries have changed.
  int itemsUpdated() const { return itemsUpdated_; }

  /// Runs the main loop until `condition` holds; false after half a minute without.
  bool waitUntil(const std::function<bool()>& condition);

 private:
  GTypeModule* module_ = nullptr;
  GObject* provider_ = nullptr;
  gtk::manager::InfoProvider* infoProvider_ = nullptr;
  int itemsUpdated_ = 0;
};

}  // namespace vornet::test
