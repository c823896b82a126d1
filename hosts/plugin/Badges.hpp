#pragma once

#include <gio/gio.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "ExtensionLink.hpp"
#include "FileManager.hpp"
#include "FoldersOnScreen.hpp"
#include "MainLoop.hpp"

namespace vornet::plugin {

/// Keeps the badges of what is on screen right: observes the folders, asks for their items' badges in batches, takes in
/// answers and changes in the order in which they come. Not thread-safe: the context's thread only.
class Badges {
 public:
  Badges(GMainContext* context, ExtensionLink& link, FoldersOnScreen& folders);
  Badges(const Badges&) = delete;
  Badges& operator=(const Badges&) = delete;

  /// The identifier of the badge of an item of `folder`, as far as known; from now on `item` is told of changes.
  const std::string& badge(Folder& folder, std::string_view name, std::unique_ptr<ShownItem> item);

  /// Begins and ends observations until there are as many as `folder` is shown.
  void adjust(Folder& folder);

  /// Ends its observations and forgets it.
  void drop(Folder& folder);

  /// Has the file manager ask again for every item of `folder` that it still shows.
  void redrawAll(const Folder& folder);

  void extensionReady();
  void extensionGone();
  void observedFoldersChanged();
  void badgesChanged(GVariant* changes);

 private:
  struct Batch;

  void begin(Folder& folder);
  void beginAgainLater();
  void askForAll(Folder& folder);
  void askSoon();
  void ask();
  bool askForNextBatch();
  void askForBatch(Folder& folder);
  void answered(std::shared_ptr<Batch> batch, GVariant* values, const std::string& error);
  void traceAnswered(const Batch& batch);
  void hear(const std::string& folder, const std::string& name, const char* identifier);
  void clear(Folder& folder);

  ExtensionLink& link_;
  FoldersOnScreen& folders_;
  SlicedWork questions_;
  SlicedWork work_;
  Timer gathering_;
  Timer retry_;
  unsigned extension_ = 0;  ///< counts the extension's processes: answers of former ones are void
  unsigned batchesUnderWay_ = 0;
  bool isAsking_ = false;
};

}  // namespace vornet::plugin
