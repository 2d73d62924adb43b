#include "FolderArguments.h"

#include <QDir>
#include <QUuid>

std::optional<SharedFolder> FolderArguments::parse(const QString& argument, QString& error) {
    const qsizetype equals = argument.indexOf(u'=');
    if (equals <= 0 || equals == argument.size() - 1) {
        error = QStringLiteral("--folder needs NAME=PATH, got '%1'").arg(argument);
        return std::nullopt;
    }
    QString path = argument.mid(equals + 1);
    // Shared folders are absolute; a relative PATH is taken from the current directory.
    if (!QDir::isAbsolutePath(path)) {
        path = QDir::cleanPath(QDir::current().absoluteFilePath(path));
    }
    return SharedFolder{QUuid::createUuid(), argument.left(equals), path, std::nullopt};
}
