#pragma once

#include <KDirLister>
#include <KFileItem>
#include <KOverlayIconPlugin>
#include <QStringList>
#include <QUrl>
#include <QWidget>

#include <map>

/// A view as Dolphin 22.12 has it, as far as the plug-ins see it: the class's name, its signals, a directory lister
/// among its children; asks for the emblems of what it lists, once, and again for an item that overlaysChanged names.
class DolphinView : public QWidget {
  Q_OBJECT
 public:
  explicit DolphinView(KOverlayIconPlugin* overlays, QWidget* parent = nullptr);
  ~DolphinView() override;

  /// Makes it a view that works in another way: only its signals can be found.
  void loseLister();

  void open(const QUrl& folder);
  void openBranch(const QUrl& folder);
  void closeBranch(const QUrl& folder);
  void select(const QList<QUrl>& items);

  bool lists(const QUrl& item) const { return emblems_.count(item) != 0; }
  /// The emblems that it draws on the item; empty for one that it does not list.
  QStringList emblem(const QUrl& item) const;

 Q_SIGNALS:
  void urlChanged(const QUrl& url);
  void selectionChanged(const KFileItemList& items);

 private Q_SLOTS:
  void onItems(const KFileItemList& items);
  void onOverlays(const QUrl& item, const QStringList& icons);

 private:
  KOverlayIconPlugin* overlays_;
  QObject* model_;
  KDirLister* lister_;
  std::map<QUrl, QStringList> emblems_;
};
