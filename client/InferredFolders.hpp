#pragma once

#include <glib.h>

#include <chrono>
#include <string>

#include "Badges.hpp"
#include "FoldersOnScreen.hpp"
#include "MainLoop.hpp"

namespace vornet::client {

/// Folders on screen that no window reports: the branches of a tree, the results of a search, or all of them where a
/// file manager has no signal. A question for an item shows that its folder is on screen; silence when the items are
/// redrawn shows that it has left. Not thread-safe: the context's thread only.
class InferredFolders {
 public:
  /// `before`: how long items wait for a window to report their folder. `lasting`: how long a folder is taken to be on
  /// screen without a question; it is forgotten after twice as long at the latest.
  InferredFolders(GMainContext* context, FoldersOnScreen& folders, Badges& badges, std::chrono::milliseconds before,
                  std::chrono::milliseconds lasting);
  InferredFolders(const InferredFolders&) = delete;
  InferredFolders& operator=(const InferredFolders&) = delete;

  /// To be called when an item of `folder`, which no window shows, was asked for.
  void asked(Folder& folder);

 private:
  void decide();
  void inferOrForget(Folder& folder);
  void makeRoom();
  void look();
  void lookAt(Folder& folder, gint64 now);

  FoldersOnScreen& folders_;
  Badges& badges_;
  const std::chrono::milliseconds before_;
  const std::chrono::milliseconds lasting_;
  Timer deciding_;
  Timer looking_;
};

}  // namespace vornet::client
