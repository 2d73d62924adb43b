#include "PathResolver.h"

#include "Ascii.h"
#include "FileNameCodec.h"
#include "ToolError.h"

#include <QDir>
#include <QStringList>

#include <algorithm>

namespace {

QString trimSlashes(const QString& path) {
    qsizetype start = 0;
    qsizetype end = path.size();
    while (start < end && path[start] == u'/') {
        ++start;
    }
    while (end > start && path[end - 1] == u'/') {
        --end;
    }
    return path.mid(start, end - start);
}

} // namespace

QString PathResolver::requirePath(const QJsonObject& params) {
    const QJsonValue value = params.value(QStringLiteral("path"));
    if (!value.isString() || value.toString().isEmpty()) {
        throw ToolError(QStringLiteral("A 'path' is required."));
    }
    return value.toString();
}

bool PathResolver::sameName(const QString& a, const QString& b) {
    if (a == b) {
        return true;
    }
    if (Ascii::isAscii(a) && Ascii::isAscii(b)) {
        return false;
    }
    return a.normalized(QString::NormalizationForm_C) == b.normalized(QString::NormalizationForm_C);
}

QString PathResolver::standardize(const QString& path) {
    const QString absolute = path.startsWith(u'/') ? path : QDir::currentPath() + u'/' + path;
    // Built in place: a list of components would cost tens of bytes for each of the millions
    // of "a/" an agent may send.
    QString result;
    result.reserve(absolute.size() + 1);
    const qsizetype size = absolute.size();
    qsizetype position = 0;
    while (position < size) {
        while (position < size && absolute[position] == u'/') {
            ++position;
        }
        const qsizetype start = position;
        while (position < size && absolute[position] != u'/') {
            ++position;
        }
        const QStringView part = QStringView(absolute).sliced(start, position - start);
        if (part.isEmpty() || part == u".") {
            continue;
        }
        if (part == u"..") {
            result.truncate(std::max<qsizetype>(result.lastIndexOf(u'/'), 0));
            continue;
        }
        result += u'/';
        result += part;
    }
    return result.isEmpty() ? QStringLiteral("/") : result;
}

std::optional<QByteArray> PathResolver::nativePath(const QString& path) {
    if (path.contains(QChar(u'\0'))) {
        return std::nullopt;
    }
    return FileNameCodec::encode(path);
}

PathResolver::Resolved PathResolver::resolve(const QString& agentPath,
                                             const QList<SharedFolder>& folders) {
    const QString trimmed = trimSlashes(agentPath);

    // Split at the first "/": folder name, then everything after it as it stands.
    QString firstPiece;
    QString secondPiece;
    bool hasFirst = false;
    if (!trimmed.isEmpty()) {
        const qsizetype slash = trimmed.indexOf(u'/');
        hasFirst = true;
        firstPiece = slash < 0 ? trimmed : trimmed.left(slash);
        secondPiece = slash < 0 ? QString() : trimmed.mid(slash + 1);
    }

    const SharedFolder* chosen = nullptr;
    QString inner;
    if (hasFirst) {
        for (const SharedFolder& folder : folders) {
            if (sameName(folder.name, firstPiece)) {
                chosen = &folder;
                inner = secondPiece;
                break;
            }
        }
    }
    if (!chosen && folders.size() == 1) {
        chosen = &folders.front();
        inner = trimmed;
    }
    if (!chosen) {
        QStringList names;
        names.reserve(folders.size());
        for (const SharedFolder& folder : folders) {
            names.append(folder.name);
        }
        QString joined = names.join(QStringLiteral(", "));
        if (joined.isEmpty()) {
            joined = QStringLiteral("(none)");
        }
        throw ToolError(QStringLiteral("No shared folder named '") + firstPiece +
                        QStringLiteral("'. Prefix the path with a folder name. Shared folders: ") +
                        joined + u'.');
    }

    Resolved resolved;
    resolved.folderIndex = chosen - folders.constData();
    resolved.root = standardize(chosen->path);
    resolved.item = inner.isEmpty() ? resolved.root : standardize(resolved.root + u'/' + inner);
    const bool inside =
        resolved.item == resolved.root ||
        (resolved.item.startsWith(resolved.root) && resolved.item.size() > resolved.root.size() &&
         resolved.item[resolved.root.size()] == u'/');
    if (!inside) {
        throw ToolError(QStringLiteral("Path escapes the shared folder."));
    }
    return resolved;
}
