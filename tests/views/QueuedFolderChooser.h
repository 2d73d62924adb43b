#pragma once

#include "FolderChooser.h"

#include <QStringList>

// Answers the folder chooser from a queue of paths; cancels once the queue is empty.
class QueuedFolderChooser : public FolderChooser {
public:
    QStringList answers;
    int asked = 0;

    QCoro::Task<std::optional<QString>> chooseFolder(QString prompt, QString message) override;
};
