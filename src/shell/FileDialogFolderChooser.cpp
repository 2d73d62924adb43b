#include "FileDialogFolderChooser.h"

#include <QCoroSignal>
#include <QDir>
#include <QFileDialog>

#include <QWindow>

#include <memory>
#include <utility>

FileDialogFolderChooser::FileDialogFolderChooser(std::function<QWindow*()> parentWindow)
    : m_parentWindow(std::move(parentWindow)) {}

QString FileDialogFolderChooser::dialogObjectName() {
    return QStringLiteral("folderChooser");
}

QCoro::Task<std::optional<QString>> FileDialogFolderChooser::chooseFolder(QString prompt,
                                                                          QString message) {
    const auto dialog = std::make_unique<QFileDialog>();
    dialog->setObjectName(dialogObjectName());
    dialog->setOption(QFileDialog::ShowDirsOnly);
    dialog->setFileMode(QFileDialog::Directory);
    dialog->setAcceptMode(QFileDialog::AcceptOpen);
    dialog->setLabelText(QFileDialog::Accept, prompt);
    dialog->setWindowTitle(message);
    dialog->setDirectory(QDir::homePath());
    if (QWindow* parent = m_parentWindow ? m_parentWindow() : nullptr) {
        // Attached to the window, so the desktop keeps it above the window and moves it along.
        dialog->winId();
        dialog->windowHandle()->setTransientParent(parent);
    }

    // Modal for the user, but answered through the application's own event loop: no loop of
    // its own runs while the dialog is up.
    dialog->open();
    const int result = co_await qCoro(dialog.get(), &QDialog::finished);
    if (result != QDialog::Accepted) {
        co_return std::nullopt;
    }
    const QStringList chosen = dialog->selectedFiles();
    if (chosen.isEmpty() || chosen.front().isEmpty()) {
        co_return std::nullopt;
    }
    // cleanPath drops a trailing slash (but keeps "/") and any "." or ".." typed by the user.
    co_return QDir::cleanPath(QDir(chosen.front()).absolutePath());
}
