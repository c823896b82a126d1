#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "FileInfo.hpp"
#include "client/MainLoop.hpp"

namespace vornet::gtk {

class Module;

/// The items of the folders that tabs hold, in front or not. A file manager asks for an item's emblem once, and then
/// not again until the item is invalidated: not when its tab comes to the front again, and not when the user comes back
/// to the folder. The shared library forgets what is not on screen. So the items are kept here while a tab holds their
/// folder, shown to the library when it comes to the front, and invalidated when the last tab has left it. The main
/// thread's.
class KnownItems {
 public:
  explicit KnownItems(Module& module);

  /// A tab begins, or ceases, to hold `folder`.
  void opened(const std::string& folder);
  void closed(const std::string& folder);

  /// A tab that holds `folder` comes to the front, or leaves it.
  void shown(const std::string& folder);
  void hidden(const std::string& folder);

  /// The emblem of `file`, the file at `path`; "" for none. Of a folder that all its tabs hold in the background, it is
  /// the last one known: nobody sees it, so it is kept as it is.
  std::string emblem(const std::string& path, manager::FileInfo* file);

 private:
  struct Item {
    std::shared_ptr<ShownFile> file;
    const char* emblem = "";  ///< as given last; interned
  };
  struct Folder {
    int tabs = 0;
    int shown = 0;
    gint64 leftAt = 0;                            ///< when the last tab left it; monotonic, in microseconds
    std::unordered_map<std::string, Item> items;  ///< by name
    std::size_t crowded = 1024;                   ///< so many items are looked through for those that are no more
  };

  Folder* find(std::string_view path);
  void dropGone(Folder& folder);
  void bringBack(const std::string& path, bool settled);
  bool bringBackItem(const std::string& path, const std::string& name, bool settled);
  void leaveSoon();
  void leave();

  Module& module_;
  std::unordered_map<std::string, Folder> folders_;
  std::vector<std::string> returned_;  ///< folders that came back to the front, until their emblems are settled
  client::SlicedWork work_;
  client::Timer leaving_;
  client::Timer settling_;
};

}  // namespace vornet::gtk
