#pragma once

#include "MenuItem.h"

#include <QList>

#include <functional>

class QAction;
class QMenu;
class QWidget;

// Turns a list of menu items into a new QMenu. Each action carries the item's represented
// object as its data; choosing it calls `dispatch` with the item and the action that sent it.
namespace StatusMenuRenderer {

using Dispatch = std::function<void(const MenuItem& item, QAction* sender)>;

QMenu* render(const QList<MenuItem>& items, const Dispatch& dispatch, QWidget* parent = nullptr);

// Menus read "&" as the mark of a mnemonic; a folder named "R&D" must show as it is.
QString displayText(const QString& title);

} // namespace StatusMenuRenderer
