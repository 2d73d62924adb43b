#include "QueuedFolderChooser.h"

std::optional<QString> QueuedFolderChooser::chooseFolder(const QString& prompt,
                                                         const QString& message) {
    Q_UNUSED(prompt)
    Q_UNUSED(message)
    ++asked;
    if (answers.isEmpty()) {
        return std::nullopt;
    }
    return answers.takeFirst();
}
