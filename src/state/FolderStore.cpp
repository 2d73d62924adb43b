#include "FolderStore.h"

#include "AppSettings.h"
#include "FolderChooser.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>
#include <QUrl>

namespace {

// Like a folder's URL path: no trailing slash except for the root.
QString withoutTrailingSlash(QString path) {
    while (path.size() > 1 && path.endsWith(u'/')) {
        path.chop(1);
    }
    return path;
}

} // namespace

QString FolderStore::settingsKey() {
    return QStringLiteral("shared_folders");
}

QList<SharedFolder> FolderStore::load() {
    const std::optional<QByteArray> stored = AppSettings::data(settingsKey());
    if (!stored) {
        return {};
    }
    std::optional<QList<SharedFolder>> folders = SharedFolder::decodeList(*stored);
    if (!folders) {
        qCWarning(lcSettings) << "the shared folders in the settings could not be read";
        return {};
    }
    return std::move(*folders);
}

void FolderStore::save(const QList<SharedFolder>& folders) {
    AppSettings::setData(settingsKey(), SharedFolder::encodeList(folders));
}

std::optional<QByteArray> FolderStore::makeBookmark(const QString& path) {
    if (!QDir::isAbsolutePath(path)) {
        return std::nullopt;
    }
    return QUrl::fromLocalFile(path).toEncoded();
}

std::optional<QString> FolderStore::resolveBookmark(const QByteArray& bookmark) {
    const QUrl url = QUrl::fromEncoded(bookmark, QUrl::StrictMode);
    if (!url.isValid() || !url.isLocalFile()) {
        return std::nullopt;
    }
    const QString path = withoutTrailingSlash(url.toLocalFile());
    if (!QFileInfo(path).isDir()) {
        return std::nullopt; // the folder is gone
    }
    return path;
}

QList<SharedFolder> FolderStore::activate(const QList<SharedFolder>& folders) {
    QList<SharedFolder> result;
    result.reserve(folders.size());
    for (const SharedFolder& folder : folders) {
        if (!folder.bookmark) {
            result.append(folder);
            continue;
        }
        const std::optional<QString> resolved = resolveBookmark(*folder.bookmark);
        if (!resolved) {
            result.append(folder);
            continue;
        }
        SharedFolder refreshed = folder;
        refreshed.path = *resolved;
        result.append(refreshed);
    }
    return result;
}

QString FolderStore::uniqueName(const QString& base, const QList<SharedFolder>& existing) {
    QSet<QString> taken;
    for (const SharedFolder& folder : existing) {
        taken.insert(folder.name);
    }
    QString name = base;
    for (int counter = 2; taken.contains(name); ++counter) {
        name = base + u' ' + QString::number(counter);
    }
    return name;
}

SharedFolder FolderStore::makeRecord(const QString& path, const QList<SharedFolder>& existing) {
    const QString clean = withoutTrailingSlash(path);
    const QString base = clean == u"/" ? QStringLiteral("/") : clean.section(u'/', -1);
    SharedFolder folder{QUuid::createUuid(), uniqueName(base, existing), clean,
                        makeBookmark(clean)};
    return folder;
}

QCoro::Task<std::optional<QString>> FolderStore::choosePath(FolderChooser& chooser) {
    const std::optional<QString> chosen = co_await chooser.chooseFolder(
        QStringLiteral("Share with agents"),
        QStringLiteral("Choose a folder Quillmar agents may read and write."));
    if (!chosen || chosen->isEmpty()) {
        co_return std::nullopt;
    }
    co_return chosen;
}
