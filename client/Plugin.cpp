#include "Plugin.hpp"

#include <algorithm>

#include "Badges.hpp"
#include "ExtensionLink.hpp"
#include "FoldersOnScreen.hpp"
#include "Guarded.hpp"
#include "Inference.hpp"
#include "MenuPrefetch.hpp"
#include "Paths.hpp"
#include "Trace.hpp"

namespace vornet::client {
class Plugin::Parts : public ExtensionLink::Listener {
 public:
  Parts(FileManager& fileManager, const Options& options)
      : link(options.context, {options.firstRetry, options.lastRetry}, *this),
        badges(options.context, link, folders,
               {options.gathering, {options.firstRetry, options.lastRetry}, options.unobservedRefresh}),
        inference(options.context, folders, badges, options.beforeInferring, options.inferredFor),
        menus(link, [&fileManager] { fileManager.menuChanged(); }) {}

  void extensionReady() override {
    guarded([this] {
      badges.extensionReady();
      menus.extensionReady();
    });
  }

  void extensionGone() override {
    guarded([this] {
      badges.extensionGone();
      menus.extensionGone();
      // Also for a folder outside the former synced folder: it may lie within the next one.
      const bool needed = std::any_of(folders.all().begin(), folders.all().end(), [](const auto& folder) {
        return folder.second->shown > 0 || folder.second->inferred;
      });
      if (needed) link.wantAgain();
    });
  }

  void observedFoldersChanged() override {
    guarded([this] {
      badges.observedFoldersChanged();
      menus.observedFoldersChanged();
    });
  }

  void badgesChanged(GVariant* changes) override {
    guarded([this, changes] { badges.badgesChanged(changes); });
  }

  FoldersOnScreen folders;
  ExtensionLink link;
  Badges badges;
  Inference inference;
  MenuPrefetch menus;
};

Plugin::Plugin(FileManager& fileManager) : Plugin(fileManager, Options()) {}

Plugin::Plugin(FileManager& fileManager, const Options& options)
    : parts_(std::make_unique<Parts>(fileManager, options)) {}

Plugin::~Plugin() = default;

void Plugin::folderShown(const std::string& path) {
  const Turn turn("folder shown");
  guarded([&] {
    Folder& folder = parts_->folders.at(withoutSlash(path));
    ++folder.shown;
    folder.inferred = false;
    parts_->link.want();
    parts_->badges.adjust(folder);
  });
}

void Plugin::folderHidden(const std::string& path) {
  const Turn turn("folder hidden");
  guarded([&] {
    Folder* folder = parts_->folders.find(withoutSlash(path));
    if (!folder || folder->shown == 0) return;
    if (--folder->shown > 0) return parts_->badges.adjust(*folder);
    // It may be a tree's branch elsewhere; then it is asked for again, and inferred again.
    if (folder->wasInferred) parts_->badges.redrawAll(*folder);
    parts_->badges.drop(*folder);
  });
}

std::string Plugin::emblem(const std::string& path, std::unique_ptr<ShownItem> item) {
  const Turn turn("emblem");
  return guarded(std::string(), [&]() -> std::string {
    const auto parent = folderOf(path);
    const auto name = nameOf(path);
    if (name.empty() || !g_utf8_validate(path.c_str(), static_cast<gssize>(path.size()), nullptr)) return {};
    // An item outside the synced folder is kept as well while a window shows it: that may become another folder.
    Folder& folder = parts_->folders.at(parent);
    if (folder.shown == 0) {
      if (parts_->badges.mayCarryBadges(parent)) parts_->link.want();
      parts_->inference.asked(folder);
    }
    return std::string(parts_->badges.emblem(folder, name, std::move(item)));
  });
}

Menu Plugin::menu(const Selection& selection) {
  const Turn turn("menu");
  return guarded(Menu(), [&] { return parts_->menus.menu(selection); });
}

void Plugin::perform(const std::string& action, const Selection& selection) {
  guarded([&] {
    GVariantBuilder urls;
    g_variant_builder_init(&urls, G_VARIANT_TYPE_STRING_ARRAY);
    for (const auto& path : selection) g_variant_builder_add(&urls, "s", urlOfPath(path).c_str());
    const auto performed = [action](GVariant* done, const std::string& error) {
      if (!done) g_warning("%s was not performed: %s", action.c_str(), error.c_str());
    };
    parts_->link.call("PerformAction", g_variant_new("(sas)", action.c_str(), &urls), "()", performed);
  });
}

}  // namespace vornet::client
