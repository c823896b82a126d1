// The principal class's operations by their selector texts.
#include <functional>
#include <map>

#include "base/MenuEntries.hpp"
#include "extension/FinderSync.hpp"

namespace vornet {
namespace {

using platform::FileURL;
using Arguments = std::vector<SelectorArgument>;
using Operation = std::function<SelectorResult(FinderSync&, const Arguments&)>;

const SelectorObject& object(const Arguments& arguments, std::size_t index) {
  static const SelectorObject absent;
  if (index >= arguments.size()) return absent;
  const auto* single = std::get_if<SelectorObject>(&arguments[index]);
  if (!single) platform::fatalError("a set given to a selector that takes an object");
  return *single;
}

/// An absent object is a URL without a path; the operation decides what that means.
FileURL url(const SelectorObject& argument) {
  if (std::holds_alternative<std::monostate>(argument)) return {};
  const auto* url = std::get_if<FileURL>(&argument);
  if (!url) platform::fatalError("an object that is not a URL");
  return *url;
}

std::int64_t integer(const SelectorObject& argument) {
  const auto* number = std::get_if<std::int64_t>(&argument);
  if (!number) platform::fatalError("an object that is not a number");
  return *number;
}

std::set<FileURL> urls(const Arguments& arguments) {
  std::set<FileURL> result;
  if (arguments.empty()) return result;
  const auto* elements = std::get_if<std::vector<SelectorObject>>(&arguments[0]);
  if (!elements) platform::fatalError("an object given to a selector that takes a set");
  for (const auto& element : *elements) {
    if (!std::holds_alternative<FileURL>(element)) platform::fatalError("an element that is not a URL");
    result.insert(std::get<FileURL>(element));
  }
  return result;
}

template <void (FinderSync::*operation)()>
SelectorResult perform(FinderSync& sync, const Arguments&) {
  (sync.*operation)();
  return {};
}

template <void (FinderSync::*operation)(const FileURL&)>
SelectorResult performWithURL(FinderSync& sync, const Arguments& arguments) {
  (sync.*operation)(url(object(arguments, 0)));
  return {};
}

/// The operation that carries out the menu action `identifier`.
Operation menuOperation(std::string_view identifier) {
  static const std::map<std::string_view, Operation> table = {
      {MENU_SHARE_AS_LINK, &perform<&FinderSync::share>},
      {MENU_COPY_LINK, &perform<&FinderSync::copyLink>},
      {MENU_CFS, &perform<&FinderSync::viewInCloud>},
      {MENU_VIEW_NOTES, &perform<&FinderSync::notes>},
      {MENU_VIEW_VERSIONS, &perform<&FinderSync::viewVersions>},
  };
  return table.at(identifier);
}

using Operations = std::map<std::string, Operation, std::less<>>;

Operations makeOperations() {
  Operations table = {
      {"setFileSyncStatus:status:",
       [](FinderSync& sync, const Arguments& arguments) -> SelectorResult {
         sync.setFileSyncStatus(url(object(arguments, 0)), integer(object(arguments, 1)));
         return {};
       }},
      {"disableVI", &perform<&FinderSync::disableVI>},
      {"enableVI:",
       [](FinderSync& sync, const Arguments& arguments) -> SelectorResult {
         sync.enableVI(urls(arguments));
         return {};
       }},
      {"beginObservingDirectoryAtURL:", &performWithURL<&FinderSync::beginObservingDirectoryAtURL>},
      {"endObservingDirectoryAtURL:", &performWithURL<&FinderSync::endObservingDirectoryAtURL>},
      {"requestBadgeIdentifierForURL:", &performWithURL<&FinderSync::requestBadgeIdentifierForURL>},
      {"toolbarItemName", [](FinderSync& sync, const Arguments&) -> SelectorResult { return sync.toolbarItemName(); }},
      {"toolbarItemToolTip",
       [](FinderSync& sync, const Arguments&) -> SelectorResult { return sync.toolbarItemToolTip(); }},
      {"toolbarItemImage",
       [](FinderSync& sync, const Arguments&) -> SelectorResult { return sync.toolbarItemImage(); }},
      {"menuForMenuKind:",
       [](FinderSync& sync, const Arguments& arguments) -> SelectorResult {
         return sync.menuForMenuKind(static_cast<platform::FIMenuKind>(integer(object(arguments, 0))));
       }},
  };
  for (const auto& entry : MENU_ENTRIES) table.emplace(entry.selector, menuOperation(entry.identifier));
  return table;
}

const Operations& operations() {
  static const auto& table = *new Operations(makeOperations());  // never destroyed: see SharedObjects.cpp
  return table;
}

}  // namespace

bool FinderSync::respondsToSelector(std::string_view selector) {
  return operations().contains(selector);
}

SelectorResult FinderSync::performSelector(std::string_view selector, const std::vector<SelectorArgument>& arguments) {
  const auto found = operations().find(selector);
  if (found == operations().end()) platform::fatalError("unknown selector: " + std::string(selector));
  return found->second(*this, arguments);
}

}  // namespace vornet
