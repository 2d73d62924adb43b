#include "SharedFolder.h"

#include "JsonReader.h"
#include "PathResolver.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace {

// A JSON string literal for `text`, escaped by Qt's writer.
QByteArray jsonString(const QString& text) {
    QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

} // namespace

QString SharedFolder::idString() const {
    return id.toString(QUuid::WithoutBraces).toUpper();
}

// Names and paths compare by canonical equivalence, like folder names in agent paths: "Café"
// typed precomposed and "Cafe" + U+0301 read back from the file system are the same text.
bool operator==(const SharedFolder& a, const SharedFolder& b) {
    return a.id == b.id && PathResolver::sameName(a.name, b.name) &&
           PathResolver::sameName(a.path, b.path) && a.bookmark == b.bookmark &&
           a.readOnly == b.readOnly;
}

QByteArray SharedFolder::toJson() const {
    // Written by hand so the keys keep their declared order (QJsonObject sorts them).
    QByteArray out = "{\"id\":" + jsonString(idString()) + ",\"name\":" + jsonString(name) +
                     ",\"path\":" + jsonString(path);
    if (bookmark) {
        out += ",\"bookmark\":" + jsonString(QString::fromLatin1(bookmark->toBase64()));
    }
    if (readOnly) {
        out += ",\"read_only\":true";
    }
    out += '}';
    return out;
}

QJsonObject SharedFolder::toJsonObject() const {
    QJsonObject object{{QStringLiteral("id"), idString()},
                       {QStringLiteral("name"), name},
                       {QStringLiteral("path"), path}};
    if (bookmark) {
        object.insert(QStringLiteral("bookmark"), QString::fromLatin1(bookmark->toBase64()));
    }
    if (readOnly) {
        object.insert(QStringLiteral("read_only"), true);
    }
    return object;
}

std::optional<SharedFolder> SharedFolder::fromJsonObject(const QJsonObject& object) {
    const QJsonValue id = object.value(QStringLiteral("id"));
    const QJsonValue name = object.value(QStringLiteral("name"));
    const QJsonValue path = object.value(QStringLiteral("path"));
    if (!id.isString() || !name.isString() || !path.isString()) {
        return std::nullopt;
    }
    SharedFolder folder;
    // Only the canonical 36-character form is accepted, in either letter case.
    const QString idText = id.toString();
    if (idText.size() != 36) {
        return std::nullopt;
    }
    folder.id = QUuid::fromString(idText);
    if (folder.id.isNull() && idText != QStringLiteral("00000000-0000-0000-0000-000000000000")) {
        return std::nullopt;
    }
    folder.name = name.toString();
    folder.path = path.toString();

    const QJsonValue bookmark = object.value(QStringLiteral("bookmark"));
    if (bookmark.isString()) {
        auto decoded = QByteArray::fromBase64Encoding(bookmark.toString().toLatin1(),
                                                      QByteArray::AbortOnBase64DecodingErrors);
        if (!decoded || bookmark.toString().size() % 4 != 0) {
            return std::nullopt;
        }
        folder.bookmark = *decoded;
    } else if (!bookmark.isUndefined() && !bookmark.isNull()) {
        return std::nullopt;
    }

    const QJsonValue readOnly = object.value(QStringLiteral("read_only"));
    if (readOnly.isBool()) {
        folder.readOnly = readOnly.toBool();
    } else if (!readOnly.isUndefined() && !readOnly.isNull()) {
        return std::nullopt;
    }
    return folder;
}

QByteArray SharedFolder::encodeList(const QList<SharedFolder>& folders) {
    QByteArray out = "[";
    for (qsizetype i = 0; i < folders.size(); ++i) {
        if (i > 0) {
            out += ',';
        }
        out += folders[i].toJson();
    }
    out += ']';
    return out;
}

std::optional<QList<SharedFolder>> SharedFolder::decodeList(const QByteArray& json) {
    QJsonParseError error;
    const QJsonDocument document = JsonReader::parse(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isArray()) {
        return std::nullopt;
    }
    QList<SharedFolder> folders;
    const QJsonArray array = document.array();
    folders.reserve(array.size());
    for (const QJsonValue& value : array) {
        if (!value.isObject()) {
            return std::nullopt;
        }
        auto folder = fromJsonObject(value.toObject());
        if (!folder) {
            return std::nullopt;
        }
        folders.append(*folder);
    }
    return folders;
}
