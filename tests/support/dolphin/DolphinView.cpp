#include "support/dolphin/DolphinView.hpp"

#include <utility>

DolphinView::DolphinView(KOverlayIconPlugin* overlays, QWidget* parent)
    : QWidget(parent), overlays_(overlays), model_(new QObject(this)), lister_(new KDirLister(model_)) {
  lister_->KCoreDirLister::setAutoErrorHandlingEnabled(false);
  lister_->setDelayedMimeTypes(true);
  connect(lister_, &KCoreDirLister::newItems, this, &DolphinView::onItems);
  connect(lister_, qOverload<>(&KCoreDirLister::clear), this, [this] { emblems_.clear(); });
  connect(lister_, &KCoreDirLister::clearDir, this, [this](const QUrl& folder) {
    for (auto item = emblems_.begin(); item != emblems_.end();)
      item = folder.isParentOf(item->first) ? emblems_.erase(item) : std::next(item);
  });
  if (overlays_) connect(overlays_, &KOverlayIconPlugin::overlaysChanged, this, &DolphinView::onOverlays);
}

DolphinView::~DolphinView() {
  delete lister_;  // it reports that its items go
}

void DolphinView::loseLister() {
  delete std::exchange(lister_, nullptr);
}

void DolphinView::open(const QUrl& folder) {
  if (lister_) lister_->openUrl(folder);
  Q_EMIT urlChanged(folder);
}

void DolphinView::openBranch(const QUrl& folder) {
  lister_->openUrl(folder, KCoreDirLister::Keep);
}

void DolphinView::closeBranch(const QUrl& folder) {
  lister_->forgetDirs(folder);
}

void DolphinView::select(const QList<QUrl>& items) {
  KFileItemList selected;
  for (const auto& item : items) selected.append(KFileItem(item));
  Q_EMIT selectionChanged(selected);
}

QStringList DolphinView::emblem(const QUrl& item) const {
  const auto found = emblems_.find(item);
  return found == emblems_.end() ? QStringList() : found->second;
}

void DolphinView::onItems(const KFileItemList& items) {
  for (const auto& item : items) emblems_[item.url()] = overlays_ ? overlays_->getOverlays(item.url()) : QStringList();
}

void DolphinView::onOverlays(const QUrl& item, const QStringList&) {
  if (const auto found = emblems_.find(item); found != emblems_.end()) found->second = overlays_->getOverlays(item);
}
