#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The part of the system's application kit that the core needs: images by name, menus, running applications.
namespace vornet::platform {

/// An image known by name, or an empty one. A value; the host draws it.
class Image {
 public:
  /// A new, empty image.
  Image() = default;

  /// The image resource called `name` (without folder or extension); none when the extension's resources hold no such
  /// image. Any thread.
  static std::optional<Image> named(std::string_view name);

  /// The resource's name; empty for an empty image.
  const std::string& name() const noexcept { return name_; }
  bool isEmpty() const noexcept { return name_.empty(); }

  friend bool operator==(const Image&, const Image&) = default;

 private:
  explicit Image(std::string name) : name_(std::move(name)) {}
  std::string name_;
};

/// One entry of a context menu. `action` is the selector text that the principal class is sent ("share:").
struct MenuItem {
  std::string title;
  std::string action;
  Image image;
  bool enabled = false;
};

/// A context menu: its entries from top to bottom.
struct ContextMenu {
  std::vector<MenuItem> items;
};

/// The identifiers of the running processes of the application `bundleIdentifier`, this one among them when it is of
/// that application. Any thread.
std::vector<std::int64_t> runningApplicationsWithBundleIdentifier(std::string_view bundleIdentifier);

}  // namespace vornet::platform
