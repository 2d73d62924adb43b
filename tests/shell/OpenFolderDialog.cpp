#include "OpenFolderDialog.h"

#include "FileDialogFolderChooser.h"

#include <QApplication>
#include <QFileDialog>

QFileDialog* OpenFolderDialog::find() {
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        auto* dialog = qobject_cast<QFileDialog*>(widget);
        if (dialog && dialog->isVisible() &&
            dialog->objectName() == FileDialogFolderChooser::dialogObjectName()) {
            return dialog;
        }
    }
    return nullptr;
}
