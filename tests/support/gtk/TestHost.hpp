#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Manager.hpp"
#include "support/gtk/FakeFile.hpp"

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
    std::string tip;
    std::shared_ptr<gtk::manager::MenuItem> item;

    void activate() const { VORNET_CALL(menu_item_activate)(item.get()); }
  };

  struct Column {
    std::string name;
    std::string attribute;
    std::string label;
    std::string description;
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

  /// The columns that the plug-in has for list views.
  std::vector<Column> columns() const;

  /// The menu of `files`, and that of a folder's background.
  std::vector<Entry> menu(const std::vector<FakeFile*>& files);
  std::vector<Entry> backgroundMenu(FakeFile& folder);
  /// How often the plug-in reported changed menu entries.
  int itemsUpdated() const { return itemsUpdated_; }

 private:
  GTypeModule* module_ = nullptr;
  GObject* provider_ = nullptr;
  gtk::manager::InfoProvider* infoProvider_ = nullptr;
  int itemsUpdated_ = 0;
};

}  // namespace vornet::test
