#pragma once

#include <KCoreDirLister>
#include <KFileItem>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QUrl>
#include <QWidget>

#include <set>
#include <string>
#include <vector>

#include "client/Plugin.hpp"

namespace vornet::dolphin {

/// One of Dolphin's views (a tab, a side of a split window, the panel of folders): tells the plug-ins' library which
/// folders it has on screen, and tells what is selected in it. It knows the widget by signals' names, properties and
/// the directory listers among its children, and does without any of them that is missing. Main thread.
class View : public QObject {
  Q_OBJECT
 public:
  /// Both outlive it.
  View(QWidget& widget, client::Plugin& plugin);
  /// Hides what it shows.
  ~View() override;

  /// The widget was shown or hidden.
  void visibilityChanged();

  /// The folder that it shows; a tree's topmost.
  QUrl url() const;
  const QWidget& widget() const { return widget_; }

  /// Whether the item at `url` is on screen in it, or a scroll away.
  bool shows(const QUrl& url) const;

  /// The emblem of the item at `url` was asked for, by this view or another. Whether this one lists it, be it hidden.
  bool asked(const QUrl& url);
  /// And no view lists it: where this one shows the results of a search, it is one of them.
  void askedForResult(const QUrl& url);

 Q_SIGNALS:
  void selected(const KFileItemList& items);

  /// It is on screen again, with items for which nobody asks again.
  void reappeared(const QList<QUrl>& items);

 private Q_SLOTS:
  void onURLChanged(const QUrl& url);
  void onSelectionChanged(const KFileItemList& items);

 private:
  /// Whether it lists a folder that holds the item at `url`.
  bool lists(const QUrl& url) const;
  /// Whether it shows what lies elsewhere than in a folder of the disk: the results of a search.
  bool showsResults() const;
  void findListers();
  void follow(KCoreDirLister& lister);
  /// Compares soon, once whatever goes on now is over.
  void compareSoon();
  void compare();
  std::multiset<std::string> foldersOnScreen() const;
  void show(std::multiset<std::string> folders);
  void forgetItemsIn(const QUrl& folder);

  QWidget& widget_;
  client::Plugin& plugin_;
  std::vector<QPointer<KCoreDirLister>> listers_;
  QUrl url_;                            ///< as told by the widget itself
  std::multiset<std::string> folders_;  ///< on screen, as the library has been told
  QSet<QUrl> asked_;                    ///< its items whose emblems were asked for since they were listed
  bool comparing_ = false;              ///< soon
  bool wasHidden_;                      ///< since it was compared last
};

}  // namespace vornet::dolphin
