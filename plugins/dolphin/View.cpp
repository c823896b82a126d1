#include "View.hpp"

#include <QMetaObject>
#include <QVariant>

#include <algorithm>
#include <iterator>
#include <utility>

#include "Locations.hpp"
#include "client/Guarded.hpp"

namespace vornet::dolphin {
namespace {

QUrl parentOf(const QUrl& url) {
  return url.adjusted(QUrl::StripTrailingSlash).adjusted(QUrl::RemoveFilename | QUrl::StripTrailingSlash);
}

bool hasSignal(const QObject& object, const char* signature) {
  return object.metaObject()->indexOfSignal(signature) >= 0;
}

}  // namespace

View::View(QWidget& widget, client::Plugin& plugin)
    : widget_(widget), plugin_(plugin), url_(widget.property("url").toUrl()), wasHidden_(!widget.isVisible()) {
  if (hasSignal(widget, "urlChanged(QUrl)")) {
    connect(&widget, SIGNAL(urlChanged(QUrl)), this, SLOT(onURLChanged(QUrl)));
  }
  if (hasSignal(widget, "selectionChanged(KFileItemList)")) {
    connect(&widget, SIGNAL(selectionChanged(KFileItemList)), this, SLOT(onSelectionChanged(KFileItemList)));
  }
  compareSoon();
}

View::~View() {
  client::guarded([this] { show({}); });
}

void View::visibilityChanged() {
  if (widget_.isVisible()) return compareSoon();
  wasHidden_ = true;
  show({});
}

QUrl View::url() const {
  for (const auto& lister : listers_) {
    if (lister) return lister->url();
  }
  return url_;
}

bool View::lists(const QUrl& url) const {
  return std::any_of(listers_.begin(), listers_.end(),
                     [&url](const auto& lister) { return lister && !lister->findByUrl(url).isNull(); });
}

bool View::showsResults() const {
  return std::any_of(listers_.begin(), listers_.end(),
                     [](const auto& lister) { return lister && !lister->url().isLocalFile(); });
}

bool View::shows(const QUrl& url) const {
  // Results are not found by the folder that they lie in: what was asked for since they are shown is one of them.
  return widget_.isVisible() && (lists(url) || (asked_.contains(url) && showsResults()));
}

bool View::asked(const QUrl& url) {
  if (!lists(url)) return false;
  asked_.insert(url);
  return true;
}

void View::askedForResult(const QUrl& url) {
  if (widget_.isVisible() && showsResults()) asked_.insert(url);
}

void View::onURLChanged(const QUrl& url) {
  client::guarded([&] {
    url_ = url;
    compareSoon();
  });
}

void View::onSelectionChanged(const KFileItemList& items) {
  client::guarded([&] {
    if (widget_.isVisible()) Q_EMIT selected(items);
  });
}

void View::findListers() {
  listers_.erase(std::remove(listers_.begin(), listers_.end(), nullptr), listers_.end());
  for (auto* lister : widget_.findChildren<KCoreDirLister*>()) {
    if (std::find(listers_.begin(), listers_.end(), lister) != listers_.end()) continue;
    listers_.emplace_back(lister);
    follow(*lister);
  }
}

void View::follow(KCoreDirLister& lister) {
  const auto compared = [this] { compareSoon(); };
  connect(&lister, &KCoreDirLister::started, this, compared);
  connect(&lister, qOverload<>(&KCoreDirLister::completed), this, compared);
  connect(&lister, &KCoreDirLister::listingDirCompleted, this, compared);
  connect(&lister, qOverload<>(&KCoreDirLister::canceled), this, compared);
  connect(&lister, &KCoreDirLister::listingDirCanceled, this, compared);
  connect(&lister, qOverload<const QUrl&, const QUrl&>(&KCoreDirLister::redirection), this, compared);
  connect(&lister, &QObject::destroyed, this, compared);
  connect(&lister, qOverload<>(&KCoreDirLister::clear), this, [this] {
    asked_.clear();
    compareSoon();
  });
  connect(&lister, &KCoreDirLister::clearDir, this, [this](const QUrl& folder) {
    forgetItemsIn(folder);
    compareSoon();
  });
  connect(&lister, &KCoreDirLister::itemsDeleted, this, [this](const KFileItemList& items) {
    for (const auto& item : items) asked_.remove(item.url());
    compareSoon();
  });
}

void View::compareSoon() {
  if (std::exchange(comparing_, true)) return;
  QMetaObject::invokeMethod(this, [this] { client::guarded([this] { compare(); }); }, Qt::QueuedConnection);
}

void View::compare() {
  comparing_ = false;
  findListers();
  if (!widget_.isVisible()) return;
  show(foldersOnScreen());
  if (std::exchange(wasHidden_, false) && !asked_.isEmpty()) Q_EMIT reappeared(asked_.values());
}

std::multiset<std::string> View::foldersOnScreen() const {
  std::multiset<std::string> folders;
  const auto add = [&folders](const QUrl& folder) {
    if (auto path = pathOf(folder); !path.empty()) folders.insert(std::move(path));
  };
  for (const auto& lister : listers_) {
    if (!lister) continue;
    for (const auto& folder : lister->directories()) add(folder);
  }
  if (listers_.empty()) add(url_);
  return folders;
}

void View::show(std::multiset<std::string> folders) {
  std::vector<std::string> come;
  std::vector<std::string> gone;
  std::set_difference(folders.begin(), folders.end(), folders_.begin(), folders_.end(), std::back_inserter(come));
  std::set_difference(folders_.begin(), folders_.end(), folders.begin(), folders.end(), std::back_inserter(gone));
  folders_ = std::move(folders);
  for (const auto& folder : come) plugin_.folderShown(folder);
  for (const auto& folder : gone) plugin_.folderHidden(folder);
}

void View::forgetItemsIn(const QUrl& folder) {
  const auto parent = folder.adjusted(QUrl::StripTrailingSlash);
  for (auto item = asked_.begin(); item != asked_.end();) {
    item = parentOf(*item) == parent ? asked_.erase(item) : std::next(item);
  }
}

}  // namespace vornet::dolphin
