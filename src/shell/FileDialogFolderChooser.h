#pragma once

#include "FolderChooser.h"

#include <functional>

class QWindow;

// Lets the user pick one directory in a file dialog: the platform theme's own where it has one
// (GTK, KDE), Qt's otherwise. The confirming button is titled after the prompt and the message is
// the window's title.
class FileDialogFolderChooser : public FolderChooser {
public:
    // `parentWindow` names the window the dialog belongs to while one is open.
    explicit FileDialogFolderChooser(std::function<QWindow*()> parentWindow = {});

    // The chosen directory's absolute path without a trailing slash, or nothing on cancel.
    QCoro::Task<std::optional<QString>> chooseFolder(QString prompt, QString message) override;

    // The dialog's object name, by which tests find it.
    static QString dialogObjectName();

private:
    std::function<QWindow*()> m_parentWindow;
};
