#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Manager.hpp"
#include "client/FileManager.hpp"
#include "client/Paths.hpp"

namespace vornet::gtk {

/// The path of `file`; none when it is no local file (trash, network, recent files).
inline std::optional<std::string> pathOf(manager::FileInfo* file) {
  const std::unique_ptr<char, decltype(&g_free)> url(VORNET_CALL(file_info_get_uri)(file), g_free);
  return client::pathOfURL(url.get());
}

/// A file that the file manager shows, for as long as the file manager itself keeps it.
class ShownFile : public client::ShownItem {
 public:
  explicit ShownFile(manager::FileInfo* file) { g_weak_ref_init(&file_, file); }
  ShownFile(const ShownFile& other) {
    const Reference file = other.get();
    g_weak_ref_init(&file_, file.get());
  }
  ~ShownFile() override { g_weak_ref_clear(&file_); }
  ShownFile& operator=(const ShownFile&) = delete;

  /// The file manager has let go of it.
  bool isGone() const { return !get(); }

  /// Emblems are only ever added to a file; the file manager drops all and asks again for a file that is invalidated.
  void redraw(const std::string&) override {
    if (const Reference file = get()) VORNET_CALL(file_info_invalidate_extension_info)(file.get());
  }

 private:
  using Reference = std::unique_ptr<manager::FileInfo, decltype(&g_object_unref)>;

  Reference get() const { return {static_cast<manager::FileInfo*>(g_weak_ref_get(&file_)), g_object_unref}; }

  mutable GWeakRef file_;  // reading it takes a reference
};

}  // namespace vornet::gtk
