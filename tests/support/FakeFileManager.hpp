#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "client/Plugin.hpp"

namespace vornet::test {

/// A file manager that shows items and asks for their emblems as the real ones do. One thread.
class FakeFileManager : public client::FileManager {
 public:
  /// Shows the item at `path`, as a manager does when it lists a folder: asks for its emblem.
  void show(const std::string& path);

  /// Stops showing it, and notifies nobody.
  void hide(const std::string& path);

  /// The emblem that it shows at `path`; "" for none, "not shown" for an item that it does not show.
  std::string emblem(const std::string& path) const;

  std::size_t redraws(const std::string& path) const;
  std::size_t shown() const { return emblems_.size(); }
  /// How many of the items that it shows have this emblem; "" for none. Cheap, to be asked again and again.
  std::size_t withEmblem(const std::string& emblem) const;

  /// Items that the plug-in keeps.
  static std::size_t keptItems() { return kept_; }

  int menuChanges = 0;
  std::vector<client::Selection> changedMenus;
  std::vector<std::string> came;  ///< folders whose first badges are awaited no longer
  int contradictions = 0;         ///< redraws whose emblem differs from the answer to a question within the call
  std::set<std::string> goneFor;  ///< items that it has freed
  std::size_t redrawn = 0;        ///< items, each time
  std::size_t lookedFor = 0;      ///< how often it was asked whether it has freed an item
  std::unique_ptr<client::Plugin> plugin;

  void menuChanged(const client::Selection& selection) override {
    ++menuChanges;
    changedMenus.push_back(selection);
  }

  void badgesCame(const std::string& folder) override { came.push_back(folder); }

 private:
  class Item;
  static inline std::size_t kept_ = 0;
  std::map<std::string, std::string> emblems_;
  std::map<std::string, std::size_t> counts_;  ///< of the items, by emblem
  std::map<std::string, std::size_t> redraws_;
};

}  // namespace vornet::test
