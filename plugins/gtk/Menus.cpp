#include "Menus.hpp"

#include <algorithm>
#include <chrono>

#include "Module.hpp"

namespace vornet::gtk {
namespace {

using namespace std::chrono_literals;

// The windows ask within a tenth of a second.
constexpr auto ECHO = 500ms;

// So many windows come to rest.
constexpr std::size_t MOST_REMEMBERED = 8;

}  // namespace

client::Menu Menus::menu(const client::Selection& selection) {
  const bool isEcho = changedAt_ != 0 && g_get_monotonic_time() - changedAt_ < std::chrono::microseconds(ECHO).count();
  if (isEcho && selection != last_) {
    const auto found = std::ranges::find(remembered_, selection, &decltype(remembered_)::value_type::first);
    if (found != remembered_.end()) return found->second;
  }
  auto menu = module_.plugin().menu(selection);
  if (menu.empty()) remember(selection, menu);  // the library needs no answer for that
  if (isEcho && menu.empty() && !last_.empty()) {
    module_.plugin().menu(last_);  // a window without entries takes no other's answer away
  } else {
    last_ = selection;
  }
  return menu;
}

client::Menu Menus::changed() {
  auto menu = module_.plugin().menu(last_);
  if (std::ranges::any_of(menu, &client::MenuEntry::enabled)) {
    remember(last_, menu);
  } else {
    remembered_.clear();  // something else than an answer: what was true of the others may be so no longer
  }
  changedAt_ = g_get_monotonic_time();
  return menu;
}

void Menus::remember(const client::Selection& selection, const client::Menu& menu) {
  std::erase_if(remembered_, [&](const auto& one) { return one.first == selection; });
  remembered_.emplace_front(selection, menu);
  if (remembered_.size() > MOST_REMEMBERED) remembered_.pop_back();
}

}  // namespace vornet::gtk
