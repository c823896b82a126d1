#include "ItemMenu.hpp"

#include <QIcon>
#include <QWidget>

#include <algorithm>
#include <utility>

#include "client/Guarded.hpp"

namespace vornet::dolphin {

ItemMenu::ItemMenu(Session& session, client::Selection selection)
    : session_(&session), selection_(std::move(selection)), end_(new QAction(this)) {
  end_->setVisible(false);
  session.menu(selection_);
  update();
  connect(&session, &Session::entriesChanged, this, [this] { client::guarded([this] { update(); }); });
}

QList<QAction*> ItemMenu::actions() const {
  return entries_ + QList<QAction*>{end_};
}

void ItemMenu::update() {
  if (!session_ || !session_->isSelected(selection_)) return;
  const auto menu = session_->menu(selection_);
  int used = 0;
  for (const auto& entry : menu) {
    auto* action = used < entries_.size() ? entries_[used] : add();
    action->setText(QString::fromStdString(entry.title).replace(QLatin1Char('&'), QLatin1String("&&")));
    action->setData(QString::fromStdString(entry.action));
    action->setIcon(entry.icon.empty() ? QIcon() : QIcon::fromTheme(QString::fromStdString(entry.icon)));
    action->setEnabled(entry.enabled);
    action->setVisible(true);
    ++used;
  }
  std::for_each(entries_.begin() + used, entries_.end(), [](QAction* action) { action->setVisible(false); });
}

QAction* ItemMenu::add() {
  auto* action = new QAction(this);
  connect(action, &QAction::triggered, this, [this, action] {
    client::guarded([&] {
      if (session_) session_->perform(action->data().toString().toStdString(), selection_);
    });
  });
  entries_.append(action);
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
  for (auto* object : end_->associatedObjects()) {
    if (auto* widget = qobject_cast<QWidget*>(object)) widget->insertAction(end_, action);
  }
#else
  for (auto* widget : end_->associatedWidgets()) widget->insertAction(end_, action);
#endif
  return action;
}

}  // namespace vornet::dolphin
