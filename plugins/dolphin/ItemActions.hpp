#pragma once

#include <KAbstractFileItemActionPlugin>
#include <QVariantList>

#include <memory>

#include "ItemMenu.hpp"

namespace vornet::dolphin {

/// The plug-in that KDE's programs ask for entries of a context menu when it opens. Dolphin has one for each window;
/// others may have one for each menu.
class ItemActions : public KAbstractFileItemActionPlugin {
  Q_OBJECT
 public:
  ItemActions(QObject* parent, const QVariantList& arguments);

  /// The entries live until those of the next menu are asked for.
  QList<QAction*> actions(const KFileItemListProperties& items, QWidget* parentWidget) override;

 private:
  std::unique_ptr<ItemMenu> menu_;
};

}  // namespace vornet::dolphin
