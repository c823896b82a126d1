#include "Locations.hpp"

#include <QFile>

#include <algorithm>

#include "client/Plugin.hpp"

namespace vornet::dolphin {
namespace {

template <typename Items, typename Location>
client::Selection selectionOf(const Items& items, const Location& location) {
  const auto read = std::min(static_cast<std::size_t>(items.size()), client::Plugin::LARGEST_SELECTION + 1);
  client::Selection selection;
  selection.reserve(read);
  for (auto item = items.begin(); selection.size() < read; ++item) {
    auto path = pathOf(location(*item));
    if (path.empty()) return {};
    selection.push_back(std::move(path));
  }
  return selection;
}

}  // namespace

std::string pathOf(const QUrl& url) {
  if (!url.isLocalFile() || !url.host().isEmpty()) return {};
  std::string path = QFile::encodeName(url.toLocalFile()).toStdString();
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

client::Selection selectionOf(const QList<QUrl>& urls) {
  return selectionOf(urls, [](const QUrl& url) { return url; });
}

client::Selection selectionOf(const KFileItemList& items) {
  return selectionOf(items, [](const KFileItem& item) { return item.url(); });
}

}  // namespace vornet::dolphin
