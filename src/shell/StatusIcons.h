#pragma once

#include <QIcon>
#include <QList>
#include <QString>

// The tray's drive symbols, drawn for this application (src/shell/assets) and rendered into
// pixmaps at the sizes panels ask for, each from artwork laid out on that size's pixel grid so
// that no size is a blurred scaling of another.
namespace StatusIcons {

// The icon for a symbol name of the status model; a null icon for a name it does not know.
QIcon icon(const QString& symbolName);
QList<int> sizes();

} // namespace StatusIcons
