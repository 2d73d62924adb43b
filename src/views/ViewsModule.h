#pragma once

#include <QString>

class QQmlEngine;

// The QML module with the window's views, as linked into this program.
class ViewsModule {
public:
    static QString uri() { return QStringLiteral("Quillmar.Views"); }
    // Makes sure the module's C++ types are linked in (the library is static and nothing else
    // refers to their registration) and lets `engine` find the module in the resources.
    static void prepare();
    static void prepare(QQmlEngine& engine);
    // The logo image in the resources.
    static QString logoResource() {
        return QStringLiteral(":/Quillmar/Views/assets/quillmar-logo.png");
    }
};
