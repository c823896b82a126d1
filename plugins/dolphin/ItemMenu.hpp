#pragma once

#include <QAction>
#include <QList>
#include <QObject>
#include <QPointer>

#include "Session.hpp"
#include "client/Menu.hpp"

namespace vornet::dolphin {

/// The entries in one menu, for the selection that it was opened for. When the answer comes while it is open, they
/// change where they are. Main thread.
class ItemMenu : public QObject {
  Q_OBJECT
 public:
  /// `selection` is not empty.
  ItemMenu(Session& session, client::Selection selection);

  /// Owned by this object. The last one is hidden and marks the place of entries that come later.
  QList<QAction*> actions() const;

 private:
  void update();
  QAction* add();

  QPointer<Session> session_;
  const client::Selection selection_;
  QList<QAction*> entries_;
  QAction* end_;
};

}  // namespace vornet::dolphin
