#pragma once

#include <KDirLister>
#include <KFileItem>
#include <KOverlayIconPlugin>
#include <QStringList>
#include <QUrl>
#include <QWidget>

#include <map>
#include <utility>

/// The items as KDE has them.
inline KFileItemList itemsOf(const QList<QUrl>& urls) {
  KFileItemList items;
  for (const auto& url : urls) items.append(KFileItem(url));
  return items;
}

/// A view as Dolphin 22.12 has it, as far as the plug-ins see it: the class's name, its signals, a directory lister
/// among its children; asks for the emblems of what it lists, once, and again for an item that overlaysChanged names.
class DolphinView : public QWidget {
  Q_OBJECT
 public:
  explicit DolphinView(KOverlayIconPlugin* overlays, QWidget* parent = nullptr)
      : QWidget(parent), lister_(new KDirLister(new QObject(this))) {
    lister_->KCoreDirLister::setAutoErrorHandlingEnabled(false);
    lister_->setDelayedMimeTypes(true);
    connect(lister_, &KCoreDirLister::newItems, this, [this, overlays](const KFileItemList& items) {
      for (const auto& item : items) emblems_[item.url()] = overlays->getOverlays(item.url());
    });
    connect(lister_, qOverload<>(&KCoreDirLister::clear), this, [this] { emblems_.clear(); });
    connect(lister_, &KCoreDirLister::clearDir, this, [this](const QUrl& folder) {
      std::erase_if(emblems_, [&](const auto& item) { return folder.isParentOf(item.first); });
    });
    connect(overlays, &KOverlayIconPlugin::overlaysChanged, this, [this, overlays](const QUrl& item) {
      if (lists(item)) emblems_[item] = overlays->getOverlays(item);
    });
  }
  ~DolphinView() override {
    delete lister_;  // it reports that its items go
  }

  /// Makes it a view that works in another way: only its signals can be found.
  void loseLister() { delete std::exchange(lister_, nullptr); }

  void open(const QUrl& folder) {
    if (lister_) lister_->openUrl(folder);
    Q_EMIT urlChanged(folder);
  }
  void openBranch(const QUrl& folder) { lister_->openUrl(folder, KCoreDirLister::Keep); }
  void closeBranch(const QUrl& folder) { lister_->forgetDirs(folder); }
  void select(const QList<QUrl>& items) { Q_EMIT selectionChanged(itemsOf(items)); }

  bool lists(const QUrl& item) const { return emblems_.count(item) != 0; }
  /// The emblems that it draws on the item; empty for one that it does not list.
  QStringList emblem(const QUrl& item) const { return lists(item) ? emblems_.at(item) : QStringList(); }

 Q_SIGNALS:
  void urlChanged(const QUrl& url);
  void selectionChanged(const KFileItemList& items);

 private:
  KDirLister* lister_;
  std::map<QUrl, QStringList> emblems_;
};
