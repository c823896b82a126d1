#pragma once

#include <QObject>
#include <QUrl>
#include <QWidget>

#include <map>
#include <memory>

#include "View.hpp"

namespace vornet::dolphin {

/// All views of the program. They are found by their class's name, among the events of the whole program. Main thread.
class Views : public QObject {
  Q_OBJECT
 public:
  /// `plugin` outlives it.
  explicit Views(client::Plugin& plugin);
  /// Hides what they show.
  ~Views() override;

  /// Whether the item at `url` is on screen. In a program that has no such view: whether it was until lately.
  bool show(const QUrl& url) const;

  /// The emblem of the item at `url` was asked for. Whether it may be on screen: it is not known to be in hidden views
  /// alone, which will ask when they are shown.
  bool asked(const QUrl& url);

  /// Whether a menu in the window of `parent` for the folder at `url` alone is that of a view's background: the view in
  /// use shows that very folder, so that it cannot be an item in it.
  bool isBackground(const QUrl& url, const QWidget* parent) const;

 Q_SIGNALS:
  void selected(const KFileItemList& items);

  /// Items that are on screen again, and for which nobody asks again.
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
