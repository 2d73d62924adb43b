#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QUuid>

#include <optional>

// One folder the user shares with the service's agents. A plain value: identity is `id`,
// equality compares every field.
struct SharedFolder {
    QUuid id;
    QString name;
    QString path;
    std::optional<QByteArray> bookmark;
    // Agents may read but never write inside a read-only folder.
    bool readOnly = false;

    friend bool operator==(const SharedFolder& a, const SharedFolder& b);

    // The id as every interface carries it: upper-case, 36 characters, no braces.
    QString idString() const;

    // Encoded form: keys id, name, path, bookmark, read_only in that order; `bookmark` is base64
    // and left out when absent, `read_only` is present only when true (records stored before it
    // existed load as read-write). The id is upper-case, 36 characters.
    QByteArray toJson() const;
    QJsonObject toJsonObject() const;
    static std::optional<SharedFolder> fromJsonObject(const QJsonObject& object);

    // A whole list, as stored: a compact JSON array of encoded records. Decoding fails as a
    // whole when any record is malformed.
    static QByteArray encodeList(const QList<SharedFolder>& folders);
    static std::optional<QList<SharedFolder>> decodeList(const QByteArray& json);
};
