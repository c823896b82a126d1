#include "InferredFolders.hpp"

#include "Paths.hpp"

namespace vornet::client {
namespace {

// At most so many inferred folders are kept up to date: a search can find items in thousands.
constexpr std::size_t MOST_INFERRED = 64;

// How often folders are checked within `lasting`.
constexpr int LOOKS = 4;

bool isUnshown(const Folder& folder) {
  return folder.shown == 0;
}

}  // namespace

InferredFolders::InferredFolders(GMainContext* context, FoldersOnScreen& folders, Badges& badges,
                                 std::chrono::milliseconds before, std::chrono::milliseconds lasting)
    : folders_(folders), badges_(badges), before_(before), lasting_(lasting), deciding_(context), looking_(context) {}

void InferredFolders::asked(Folder& folder) {
  folder.lastAsked = g_get_monotonic_time();
  folder.testedAt = 0;
  if (!folder.inferred && !deciding_.isRunning()) deciding_.start(before_, [this] { decide(); });
}

void InferredFolders::decide() {
  for (const auto& path : folders_.paths()) {
    Folder& folder = *folders_.find(path);
    if (isUnshown(folder) && !folder.isHeld() && !folder.inferred && folder.expected == 0) inferOrForget(folder);
  }
  if (!looking_.isRunning()) looking_.start(lasting_ / LOOKS, [this] { look(); });
}

/// File managers also ask for the folder that a window shows and for those above it, which are not in view themselves.
void InferredFolders::inferOrForget(Folder& folder) {
  const std::string base = folder.path == "/" ? "/" : folder.path + "/";
  std::erase_if(folder.entries, [&](const auto& entry) { return folders_.showsWithin(base + entry.first); });
  if (folder.entries.empty() || !badges_.mayCarryBadges(folder.path)) return badges_.forget(folder);
  makeRoom();
  folder.inferred = folder.wasInferred = true;
  badges_.syncObservations(folder);
}

void InferredFolders::makeRoom() {
  Folder* oldest = nullptr;
  std::size_t inferred = 0;
  for (const auto& [path, folder] : folders_.all()) {
    if (!isUnshown(*folder) || !folder->inferred) continue;
    ++inferred;
    if (!oldest || folder->lastAsked < oldest->lastAsked) oldest = folder.get();
  }
  if (inferred >= MOST_INFERRED) badges_.forget(*oldest);
}

void InferredFolders::look() {
  const gint64 now = g_get_monotonic_time();
  bool some = false;
  for (const auto& path : folders_.paths()) {
    Folder& folder = *folders_.find(path);
    if (!isUnshown(folder) || (!folder.inferred && folder.expected == 0)) continue;
    some = true;  // one that is expected may be inferred later
    if (folder.inferred) lookAt(folder, now);
  }
  if (some) looking_.start(lasting_ / LOOKS, [this] { look(); });
}

void InferredFolders::lookAt(Folder& folder, gint64 now) {
  const gint64 lasting = std::chrono::microseconds(lasting_).count();
  if (folder.testedAt != 0) {
    if (now - folder.testedAt >= lasting / 2) badges_.forget(folder);
  } else if (now - folder.lastAsked >= lasting) {
    folder.testedAt = now;
    badges_.redrawAll(folder);
  }
}

}  // namespace vornet::client
