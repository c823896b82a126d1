#include "MenuPrefetch.hpp"

#include <algorithm>
#include <cstring>

#include "Paths.hpp"
#include "Plugin.hpp"
#include "Values.hpp"

namespace vornet::client {
namespace {

// The extension works at so many menus at a time; more would only queue up behind a sync application that hangs.
constexpr unsigned QUESTIONS_UNDER_WAY = 4;

// An answer that is older is shown, and asked for anew: the sync application may have changed its mind.
constexpr gint64 FRESH_MICROSECONDS = 1'000'000;

constexpr const char* ICON = "vornet-vi";

// More entries are not shown, nor more characters of a title. An entry with a longer action is left out.
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

MenuPrefetch::MenuPrefetch(ExtensionLink& link, std::function<void()> changed)
    : link_(link), changed_(std::move(changed)) {}

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

Menu MenuPrefetch::menu(const Selection& selection) {
  if (!selection.empty()) link_.want();
  if (selection != selection_) {
    selection_ = selection;
    entries_.clear();
    answeredAt_ = 0;
    asked_ = waiting_ = false;
    ++question_;
  }
  if (!belongs(selection_)) return {};
  if (selection_.size() > Plugin::LARGEST_SELECTION) return greyed();
  const bool stale = answeredAt_ == 0 || g_get_monotonic_time() - answeredAt_ > FRESH_MICROSECONDS;
  if (stale && !asked_) ask();
  return answeredAt_ == 0 ? greyed() : entries_;
}

void MenuPrefetch::ask() {
  asked_ = true;
  waiting_ = !link_.isReady() || underWay_ >= QUESTIONS_UNDER_WAY;
  if (waiting_) return;
  ++underWay_;
  GVariantBuilder urls;
  g_variant_builder_init(&urls, G_VARIANT_TYPE_STRING_ARRAY);
  for (const auto& path : selection_) g_variant_builder_add(&urls, "s", urlOfPath(path).c_str());
  const auto done = [this, question = question_, extension = extension_](GVariant* values, const std::string&) {
    if (extension != extension_) return;
    --underWay_;
    answered(question, values);
    if (waiting_) ask();
  };
  link_.call("GetMenu", g_variant_new("(as)", &urls), "(a(ssbs))", done);
}

void MenuPrefetch::answered(unsigned question, GVariant* values) {
  if (question != question_) return;
  asked_ = false;
  if (!values) return;
  Menu entries;
  const Value list = childOf(values, 0);
  const gsize count = std::min(g_variant_n_children(list.get()), MOST_ENTRIES);
  for (gsize i = 0; i < count; ++i) {
    const Value entry = childOf(list.get(), i);
    const Value action = childOf(entry.get(), 1);
    if (strnlen(textOf(action), LONGEST_ACTION + 1) > LONGEST_ACTION) continue;
    const bool enabled = g_variant_get_boolean(childOf(entry.get(), 2).get()) != FALSE;
    const bool hasImage = *textOf(childOf(entry.get(), 3)) != '\0';
    entries.push_back({cut(textOf(childOf(entry.get(), 0))), textOf(action), enabled, hasImage ? ICON : ""});
  }
  const bool isNew = entries != (answeredAt_ == 0 ? greyed() : entries_);
  entries_ = std::move(entries);
  answeredAt_ = g_get_monotonic_time();
  if (isNew) changed_();
}

void MenuPrefetch::extensionReady() {
  observedFoldersChanged();
}

/// What was answered stays; what was asked will not be.
void MenuPrefetch::extensionGone() {
  ++extension_;
  underWay_ = 0;
  asked_ = waiting_ = false;
}

/// A selection may belong now for which there were no entries, or the other way round.
void MenuPrefetch::observedFoldersChanged() {
  if (selection_.empty()) return;
  ++question_;
  answeredAt_ = 0;
  asked_ = waiting_ = false;
  changed_();
}

}  // namespace vornet::client
