#pragma once

#include "FolderChooser.h"

// Lets the user pick one directory in Qt's own file dialog (the same on every desktop, and
// answerable in tests), with the confirming button titled after the prompt and the message as
// the window's title.
class FileDialogFolderChooser : public FolderChooser {
public:
    // The chosen directory's absolute path without a trailing slash, or nothing on cancel.
    QCoro::Task<std::optional<QString>> chooseFolder(QString prompt, QString message) override;

    // The dialog's object name, by which tests find it.
    static QString dialogObjectName();
};
