#include "FileDialogFolderChooser.h"

#include <QDir>
#include <QFileDialog>

QString FileDialogFolderChooser::dialogObjectName() {
    return QStringLiteral("folderChooser");
}

std::optional<QString> FileDialogFolderChooser::chooseFolder(const QString& prompt,
                                                             const QString& message) {
    QFileDialog dialog;
    dialog.setObjectName(dialogObjectName());
    dialog.setOption(QFileDialog::DontUseNativeDialog);
    dialog.setOption(QFileDialog::ShowDirsOnly);
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setAcceptMode(QFileDialog::AcceptOpen);
    dialog.setLabelText(QFileDialog::Accept, prompt);
    dialog.setWindowTitle(message);
    dialog.setDirectory(QDir::homePath());

    // A modal loop of its own. The chooser is opened only by the user's own click ("Add
    // Folder…" in the tray or the window), never while a tool call waits on it, and the
    // chooser's interface returns the answer directly, so exec() is acceptable here.
    if (dialog.exec() != QDialog::Accepted) {
        return std::nullopt;
    }
    const QStringList chosen = dialog.selectedFiles();
    if (chosen.isEmpty() || chosen.front().isEmpty()) {
        return std::nullopt;
    }
    // cleanPath drops a trailing slash (but keeps "/") and any "." or ".." typed by the user.
    return QDir::cleanPath(QDir(chosen.front()).absolutePath());
}
