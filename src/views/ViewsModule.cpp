#include "ViewsModule.h"

#include <QQmlEngine>

// Generated with the module; registers its C++ types when the module is first imported.
void qml_register_types_Quillmar_Views();

void ViewsModule::prepare() {
    // Referring to the registration keeps its object file, and the static registration in it,
    // in the program.
    static void (*volatile const registration)() = &qml_register_types_Quillmar_Views;
    Q_UNUSED(registration)
}

void ViewsModule::prepare(QQmlEngine& engine) {
    prepare();
    engine.addImportPath(QStringLiteral("qrc:/"));
}
