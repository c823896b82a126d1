#pragma once

#include <KFileItem>
#include <QList>
#include <QObject>
#include <QUrl>
#include <QWidget>

#include <map>
#include <memory>
#include <string>

#include "client/Plugin.hpp"

namespace vornet::dolphin {

class View;

/// The path of a file URL of this machine, with the bytes that it has on disk, without "/" at its end; "" for any other
/// URL. Qt's texts cannot hold a file name that is not UTF-8: Dolphin shows another name instead, which no file has.
std::string pathOf(const QUrl& url);

/// The paths of selected items, at most one more than the plug-ins' library reads; empty when one of them has no path.
client::Selection selectionOf(const QList<QUrl>& urls);
client::Selection selectionOf(const KFileItemList& items);

/// All views of the program: reports to the plug-ins' library which folders they hold and show. They are found by their
/// class's name, among the events of the whole program. Main thread.
class Views : public QObject {
  Q_OBJECT
 public:
  /// `plugin` outlives it.
  explicit Views(client::Plugin& plugin);
  /// Hides what they show.
  ~Views() override;

  /// True if some view shows the item at `url`, or a hidden one keeps it with its emblem. In a program that has no such
  /// view: if it was on screen recently.
  bool show(const QUrl& url) const;

  /// The emblem of the item at `url` was asked for.
  void asked(const QUrl& url);

  /// True if a menu in the window of `parent` for the folder at `url` alone is that of a view's background: the view in
  /// use shows that very folder, so that it cannot be an item in it.
  bool isBackground(const QUrl& url, const QWidget* parent) const;

 Q_SIGNALS:
  void selected(const KFileItemList& items);

  /// Results of a search that are on screen again, for which nobody asks again.
  void reappeared(const QList<QUrl>& items);

 protected:
  bool eventFilter(QObject* object, QEvent* event) override;

 private:
  void findSoon(QWidget& widget);
  void add(QWidget& widget);

  client::Plugin& plugin_;
  std::map<const QObject*, std::unique_ptr<View>> views_;
};

}  // namespace vornet::dolphin
