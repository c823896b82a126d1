#include <KAbstractFileItemActionPlugin>
#include <KFileItemListProperties>
#include <KPluginFactory>
#include <QAction>
#include <QIcon>
#include <QPointer>
#include <QWidget>

#include <algorithm>
#include <memory>
#include <utility>

#include "Session.hpp"
#include "client/Log.hpp"

namespace vornet::dolphin {
namespace {

/// The entries in one menu, for the selection that it was opened for. They change in place when the answer comes while
/// the menu is open. Main thread.
class ItemMenu : public QObject {
 public:
  /// `selection` is not empty.
  ItemMenu(Session& session, client::Selection selection)
      : session_(&session), selection_(std::move(selection)), end_(new QAction(this)) {
    end_->setVisible(false);
    update();
    connect(&session, &Session::menuUpdated, this, [this](const client::Selection& updated) {
      client::guarded([&] {
        if (updated == selection_) update();
      });
    });
  }

  /// Owned by this object. The last one is hidden and marks the place of entries that come later.
  QList<QAction*> actions() const { return entries_ + QList<QAction*>{end_}; }

 private:
  void update() {
    if (!session_) return;
    const auto menu = session_->menu(selection_);
    int used = 0;
    for (const auto& entry : menu) {
      auto* action = used < entries_.size() ? entries_[used] : add();
      action->setText(QString::fromStdString(entry.title).replace(QLatin1Char('&'), QLatin1String("&&")));
      action->setData(QString::fromStdString(entry.action));
      action->setIcon(entry.icon.empty() ? QIcon() : QIcon::fromTheme(QString::fromStdString(entry.icon)));
      action->setEnabled(entry.enabled);
      action->setToolTip(QString::fromStdString(entry.tip));
      action->setVisible(true);
      ++used;
    }
    std::for_each(entries_.begin() + used, entries_.end(), [](QAction* action) { action->setVisible(false); });
  }

  QAction* add() {
    auto* action = new QAction(this);
    connect(action, &QAction::triggered, this, [this, action] {
      client::guarded([&] {
        if (session_) session_->perform(action->data().toString().toStdString(), selection_);
      });
    });
    entries_.append(action);
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    for (auto* object : end_->associatedObjects())
      if (auto* widget = qobject_cast<QWidget*>(object)) widget->insertAction(end_, action);
#else
    for (auto* widget : end_->associatedWidgets()) widget->insertAction(end_, action);
#endif
    return action;
  }

  QPointer<Session> session_;
  const client::Selection selection_;
  QList<QAction*> entries_;
  QAction* end_;
};

}  // namespace

/// The plug-in that KDE's programs ask for entries of a context menu when it opens. Dolphin has one for each window;
/// others may have one for each menu.
class ItemActions : public KAbstractFileItemActionPlugin {
  Q_OBJECT
 public:
  ItemActions(QObject* parent, const QVariantList&) : KAbstractFileItemActionPlugin(parent) {}

  /// The entries live until those of the next menu are asked for.
  QList<QAction*> actions(const KFileItemListProperties& items, QWidget* parentWidget) override {
    return client::guarded(QList<QAction*>(), [&] {
      menu_.reset();
      Session* const session = Session::instance();
      if (!session) return QList<QAction*>();
      auto selection = session->selection(items.urlList(), parentWidget);
      if (selection.empty()) return QList<QAction*>();
      menu_ = std::make_unique<ItemMenu>(*session, std::move(selection));
      return menu_->actions();
    });
  }

 private:
  std::unique_ptr<ItemMenu> menu_;
};

K_PLUGIN_CLASS_WITH_JSON(ItemActions, "action.json")

}  // namespace vornet::dolphin

#include "ItemActions.moc"
