#pragma once

#include "AppState.h"

#include <QObject>
#include <QQmlEngine>

class QJSEngine;
class QQmlEngine;

// Shows QML the process-wide application state as the singleton `AppState`, so that the views
// bind to the very object the tray menu and the bridge use.
class AppStateForeign {
    Q_GADGET
    QML_FOREIGN(AppState)
    QML_NAMED_ELEMENT(AppState)
    QML_SINGLETON

public:
    static AppState* create(QQmlEngine* qmlEngine, QJSEngine* jsEngine);
};
