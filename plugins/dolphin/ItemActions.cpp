#include "ItemActions.hpp"

#include <KFileItemListProperties>
#include <KPluginFactory>

#include "client/Guarded.hpp"

namespace vornet::dolphin {

ItemActions::ItemActions(QObject* parent, const QVariantList&) : KAbstractFileItemActionPlugin(parent) {}

QList<QAction*> ItemActions::actions(const KFileItemListProperties& items, QWidget* parentWidget) {
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

K_PLUGIN_CLASS_WITH_JSON(ItemActions, "action.json")

}  // namespace vornet::dolphin

#include "ItemActions.moc"
