#pragma once

#include <QString>

class QQmlEngine;

// The QML module with the window's views, as linked into this program.
namespace ViewsModule {

inline QString uri() {
    return QStringLiteral("Quillmar.Views");
}
// Makes sure the module's C++ types are linked in (the library is static and nothing else
// refers to their registration) and lets `engine` find the module in the resources.
void prepare();
void prepare(QQmlEngine& engine);
// The logo image in the resources.
inline QString logoResource() {
    return QStringLiteral(":/Quillmar/Views/assets/quillmar-logo.png");
}

} // namespace ViewsModule
