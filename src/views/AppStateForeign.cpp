#include "AppStateForeign.h"

#include <QJSEngine>

AppState* AppStateForeign::create(QQmlEngine* qmlEngine, QJSEngine* jsEngine) {
    Q_UNUSED(qmlEngine)
    Q_UNUSED(jsEngine)
    AppState* state = &AppState::shared();
    // The state outlives every window; the engine must never delete it.
    QJSEngine::setObjectOwnership(state, QJSEngine::CppOwnership);
    return state;
}
