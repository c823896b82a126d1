#include "Plugin.hpp"

#include <algorithm>

#include "Badges.hpp"
#include "ExtensionLink.hpp"
#include "FoldersOnScreen.hpp"
#include "InferredFolders.hpp"
#include "Log.hpp"
#include "MenuPrefetch.hpp"
#include "Paths.hpp"

namespace vornet::client {
class Plugin::Impl : public ExtensionLink::Listener {
 public:
  Impl(FileManager& fileManager, const Options& options)
      : link(options.context, {options.firstRetry, options.lastRetry}, *this),
        badges(options.context, link, folders,
               {options.gathering,
                {options.firstRetry, options.lastRetry},
                options.unobservedRefresh,
                options.leaving,
                options.expecting,
                options.coming},
               [&fileManager](const std::string& folder) { fileManager.badgesCame(folder); }),
        inferred(options.context, folders, badges, options.beforeInferring, options.inferredFor),
        menus(link, [&fileManager](const Selection& selection) { fileManager.menuChanged(selection); }) {}

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
      // Also for a folder outside the last synced folder: it may be inside the next one.
      const bool needed = std::any_of(folders.all().begin(), folders.all().end(), [](const auto& folder) {
        return folder.second->shown > 0 || folder.second->inferred || folder.second->expected != 0;
      });
      if (needed) link.restartWithBackoff();
    });
  }

  void observedFoldersChanged() override {
    guarded([this] {
      badges.observedFoldersChanged();
      menus.observedFoldersChanged();
    });
  }

  void syncApplicationChanged() override {
    guarded([this] { menus.syncApplicationChanged(); });
  }

  FoldersOnScreen folders;
  ExtensionLink link;
  Badges badges;
  InferredFolders inferred;
  MenuPrefetch menus;
};

Plugin::Plugin(FileManager& fileManager) : Plugin(fileManager, Options()) {}

Plugin::Plugin(FileManager& fileManager, const Options& options)
    : impl_(std::make_unique<Impl>(fileManager, options)) {}

Plugin::~Plugin() = default;

void Plugin::folderExpected(const std::string& path) {
  guarded([&] {
    Folder& folder = impl_->folders.at(withoutSlash(path));
    if (folder.shown > 0) return;
    impl_->link.ensureStarted();
    impl_->badges.expect(folder);
  });
}

void Plugin::folderShown(const std::string& path) {
  const TracedCall traced("folder shown");
  guarded([&] {
    Folder& folder = impl_->folders.at(withoutSlash(path));
    ++folder.shown;
    folder.inferred = false;
    folder.expected = 0;
    impl_->link.ensureStarted();
    impl_->badges.show(folder);
  });
}

void Plugin::folderHidden(const std::string& path) {
  const TracedCall traced("folder hidden");
  guarded([&] {
    Folder* folder = impl_->folders.find(withoutSlash(path));
    if (!folder || folder->shown == 0) return;
    if (--folder->shown > 0) return impl_->badges.syncObservations(*folder);
    // It may also be a branch of a tree; then the file manager asks again, and it is inferred again.
    impl_->badges.forget(*folder, folder->wasInferred);
  });
}

void Plugin::folderOpened(const std::string& path) {
  guarded([&] {
    Folder& folder = impl_->folders.at(withoutSlash(path));
    ++folder.opened;
    folder.leftAt = 0;
  });
}

void Plugin::folderClosed(const std::string& path) {
  guarded([&] {
    Folder* folder = impl_->folders.find(withoutSlash(path));
    if (!folder || folder->opened == 0 || --folder->opened > 0) return;
    if (folder->shown == 0 && !folder->inferred) impl_->badges.leave(*folder);
  });
}

std::string Plugin::emblem(const std::string& path, std::shared_ptr<ShownItem> item) {
  const TracedCall traced("emblem");
  return guarded(std::string(), [&]() -> std::string {
    const auto parent = folderOf(path);
    const auto name = nameOf(path);
    if (name.empty() || !g_utf8_validate(path.c_str(), static_cast<gssize>(path.size()), nullptr)) return {};
    // An item outside the synced folder is kept as well while a window shows it: the synced folder may change.
    Folder& folder = impl_->folders.at(parent);
    if (folder.shown == 0 && (folder.inferred || !folder.isHeld())) {
      if (impl_->badges.mayCarryBadges(parent)) impl_->link.ensureStarted();
      impl_->inferred.asked(folder);
    }
    return std::string(impl_->badges.emblem(folder, name, std::move(item)));
  });
}

bool Plugin::areBadgesComing(const std::string& path) {
  return guarded(false, [&] {
    Folder* folder = impl_->folders.find(folderOf(path));
    return folder && impl_->badges.areComing(*folder);
  });
}

Menu Plugin::menu(const Selection& selection) {
  const TracedCall traced("menu");
  return guarded(Menu(), [&] { return impl_->menus.menu(selection); });
}

void Plugin::ensureStarted() {
  guarded([this] { impl_->link.ensureStarted(); });
}

void Plugin::perform(const std::string& action, const Selection& selection) {
  guarded([&] {
    const auto performed = [action](GVariant* done, const std::string& error) {
      if (!done) g_warning("%s was not performed: %s", action.c_str(), error.c_str());
    };
    impl_->link.call("PerformAction", g_variant_new("(s@as)", action.c_str(), urlsOf(selection)), "()", performed);
  });
}

}  // namespace vornet::client
