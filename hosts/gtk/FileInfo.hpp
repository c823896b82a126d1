#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Manager.hpp"
#include "plugin/FileManager.hpp"
#include "plugin/Paths.hpp"

namespace vornet::gtk {

/// The path of `file`; none when it is no local file (trash, network, recent files).
inline std::optional<std::string> pathOf(manager::FileInfo* file) {
  const std::unique_ptr<char, decltype(&g_free)> url(VORNET_CALL(file_info_get_uri)(file), g_free);
  return plugin::pathOfURL(url.get());
}

/// A file that the file manager shows, for as long as the file manager itself keeps it.
class ShownFile : public plugin::ShownItem {
 public:
  explicit ShownFile(manager::FileInfo* file) { g_weak_ref_init(&file_, file); }
  ~ShownFile() override { g_weak_ref_clear(&file_); }
  ShownFile(const ShownFile&) = delete;
  ShownFile& operator=(const ShownFile&) = delete;

  /// Emblems are only ever added to a file; the file manager drops all and asks again for a file that is invalidated.
  void redraw(const std::string&) override {
    auto* file = static_cast<manager::FileInfo*>(g_weak_ref_get(&file_));
    if (!file) return;
    VORNET_CALL(file_info_invalidate_extension_info)(file);
    g_object_unref(file);
  }

 private:
  GWeakRef file_;
};

}  // namespace vornet::gtk
