#pragma once

#include "FolderChooser.h"

#include <QStringList>

// Answers the folder chooser from a queue of paths; cancels once the queue is empty.
class QueuedFolderChooser : public FolderChooser {
public:
    QStringList answers;
    int asked = 0;

    std::optional<QString> chooseFolder(const QString& prompt, const QString& message) override;
};
