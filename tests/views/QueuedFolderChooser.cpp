#include "QueuedFolderChooser.h"

QCoro::Task<std::optional<QString>> QueuedFolderChooser::chooseFolder(QString prompt,
                                                                      QString message) {
    Q_UNUSED(prompt)
    Q_UNUSED(message)
    ++asked;
    if (answers.isEmpty()) {
        co_return std::nullopt;
    }
    co_return answers.takeFirst();
}
