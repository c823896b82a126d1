#pragma once

#include <KFileItem>
#include <QUrl>

#include <string>

#include "client/Menu.hpp"

namespace vornet::dolphin {

/// The path of a file URL of this machine, as the disk has it, without "/" at its end; "" for any other URL. Qt's texts
/// cannot hold a file name that is not UTF-8: Dolphin has another name in its place, which no file bears.
std::string pathOf(const QUrl& url);

/// The paths of selected items, at most one more than the plug-in's library reads; empty when one of them has no path.
client::Selection selectionOf(const QList<QUrl>& urls);
client::Selection selectionOf(const KFileItemList& items);

}  // namespace vornet::dolphin
