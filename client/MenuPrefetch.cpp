#include "MenuPrefetch.hpp"

#include <algorithm>
#include <cstring>
#include <utility>

#include "Paths.hpp"
#include "Plugin.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::client {
namespace {

// The extension works at so many menus at a time; more would only queue up behind a sync application that hangs.
constexpr unsigned MOST_MENUS = 4;

// So many windows can each ask for the menu of their own selection without replacing one another's.
constexpr std::size_t MOST_REMEMBERED = 8;

// An older answer is shown, and requested again: the sync application may have changed its mind.
constexpr gint64 FRESH_MICROSECONDS = 1'000'000;

constexpr const char* ICON = "vornet-vi";
constexpr const char* WHY_GREYED = "Kelvane is not running";

// Further entries and characters are cut off. An entry with a longer action is left out.
constexpr gsize MOST_ENTRIES = 100;
constexpr int LONGEST_TITLE = 200;
constexpr std::size_t LONGEST_ACTION = 200;

/// The first characters of `text`, which is valid UTF-8.
std::string cut(const gchar* text) {
  const gchar* end = text;
  for (int i = 0; i < LONGEST_TITLE && *end; ++i) end = g_utf8_next_char(end);
  return {text, end};
}

}  // namespace

Menu menuOf(GVariant* entries) {
  Menu menu;
  const gsize count = std::min(g_variant_n_children(entries), MOST_ENTRIES);
  for (gsize i = 0; i < count; ++i) {
    const GVariantPtr entry = childOf(entries, i);
    const GVariantPtr action = childOf(entry.get(), 1);
    if (strnlen(textOf(action), LONGEST_ACTION + 1) > LONGEST_ACTION) continue;
    const bool enabled = g_variant_get_boolean(childOf(entry.get(), 2).get()) != FALSE;
    menu.push_back({cut(textOf(childOf(entry.get(), 0))), textOf(action), enabled, textOf(childOf(entry.get(), 3))});
  }
  return menu;
}

MenuPrefetch::MenuPrefetch(ExtensionLink& link, Changed changed) : link_(link), changed_(std::move(changed)) {}

Menu MenuPrefetch::greyed() const {
  Menu result;
  for (const auto& [title, action] : {std::pair{"Share", "share:"},
                                      {"Copy Link", "copyLink:"},
                                      {"Comments", "notes:"},
                                      {"View versions", "viewVersions:"},
                                      {"View in Cloud", "viewInCloud:"}}) {
    result.push_back({title, action, false, ICON});
  }
  return result;
}

bool MenuPrefetch::belongs(const Selection& selection) const {
  return !selection.empty() && std::all_of(selection.begin(), selection.end(), [this](const std::string& path) {
    return link_.isObserved(path) && g_utf8_validate(path.c_str(), static_cast<gssize>(path.size()), nullptr);
  });
}

MenuPrefetch::Menus::iterator MenuPrefetch::find(const Selection& selection) {
  return std::find_if(remembered_.begin(), remembered_.end(),
                      [&selection](const auto& menu) { return menu.selection == selection; });
}

MenuPrefetch::Remembered& MenuPrefetch::remember(const Selection& selection) {
  if (const auto known = find(selection); known != remembered_.end()) {
    remembered_.splice(remembered_.begin(), remembered_, known);
  } else {
    remembered_.push_front({selection, {}, 0, 0});
    if (remembered_.size() > MOST_REMEMBERED) remembered_.pop_back();
  }
  return remembered_.front();
}

Menu MenuPrefetch::menu(const Selection& selection) {
  Menu entries = entriesFor(selection);
  for (auto& entry : entries)
    if (isSilent_ && !entry.enabled) entry.tip = WHY_GREYED;
  return entries;
}

Menu MenuPrefetch::entriesFor(const Selection& selection) {
  if (selection.empty()) return {};
  link_.ensureStarted();
  Remembered& known = remember(selection);
  if (!belongs(selection)) return {};
  if (selection.size() > Plugin::LARGEST_SELECTION) return greyed();
  const bool isStale = known.answeredAt == 0 || g_get_monotonic_time() - known.answeredAt > FRESH_MICROSECONDS;
  if (isStale && known.requestId == 0) ask(known);
  return known.answeredAt == 0 ? greyed() : known.entries;
}

/// When too many requests are in flight, the last selection waits for room. Earlier ones are requested when the file
/// manager asks again.
void MenuPrefetch::ask(Remembered& menu) {
  if (!link_.isReady() || inFlight_ >= MOST_MENUS) {
    waiting_ = menu.selection;
    return;
  }
  menu.requestId = ++lastRequestId_;
  ++inFlight_;
  const auto done = [this, id = menu.requestId, generation = generation_](GVariant* values, const std::string&) {
    if (generation != generation_) return;
    --inFlight_;
    answered(id, values);
    askNext();
  };
  link_.call("GetMenu", g_variant_new("(@as)", urlsOf(menu.selection)), "(a(ssbs))", done);
}

void MenuPrefetch::askNext() {
  const auto menu = find(std::exchange(waiting_, {}));
  if (menu != remembered_.end() && menu->requestId == 0) ask(*menu);
}

void MenuPrefetch::answered(unsigned requestId, GVariant* values) {
  const auto menu =
      std::find_if(remembered_.begin(), remembered_.end(), [=](const auto& one) { return one.requestId == requestId; });
  if (menu == remembered_.end()) return;
  menu->requestId = 0;
  if (!values) return;
  Menu entries = menuOf(childOf(values, 0).get());
  for (auto& entry : entries)
    if (!entry.icon.empty()) entry.icon = ICON;
  const bool isNew = entries != (menu->answeredAt == 0 ? greyed() : menu->entries);
  menu->entries = std::move(entries);
  menu->answeredAt = g_get_monotonic_time();
  if (isNew) changed_(Selection(menu->selection));
}

void MenuPrefetch::extensionReady() {
  observedFoldersChanged();
}

/// Keeps received answers; drops pending requests.
void MenuPrefetch::extensionGone() {
  ++generation_;
  inFlight_ = 0;
  waiting_.clear();
  for (auto& menu : remembered_) menu.requestId = 0;
}

/// A selection may have come into the synced folder, or left it.
void MenuPrefetch::observedFoldersChanged() {
  waiting_.clear();
  std::vector<Selection> selections;
  for (auto& menu : remembered_) {
    menu.answeredAt = 0;
    menu.requestId = 0;
    selections.push_back(menu.selection);
  }
  for (const auto& selection : selections) changed_(selection);
}

/// Changes the tips of greyed entries.
void MenuPrefetch::syncApplicationChanged() {
  const bool isSilent = link_.syncApplicationSilentSince().value_or(0) > 0;
  if (std::exchange(isSilent_, isSilent) == isSilent) return;
  std::vector<Selection> selections;
  for (const auto& menu : remembered_) selections.push_back(menu.selection);
  for (const auto& selection : selections) changed_(selection);
}

}  // namespace vornet::client
