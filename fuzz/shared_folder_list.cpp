// The stored list of shared folders. SharedFolder::decodeList on arbitrary bytes must accept
// exactly the lists that the record rules allow (checked here by hand on the parsed JSON), and
// every list it accepts must survive encoding: decode(encode(x)) == x, and encoding again gives
// the same bytes. The encoded records keep their keys in the order id, name, path, bookmark,
// read_only; read_only is written only when true.
//
// Input: the stored bytes as they stand.

#include "Base64Reference.h"
#include "FuzzCheck.h"
#include "JsonReader.h"
#include "SharedFolder.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

namespace {

bool isHexDigit(QChar c) {
    const char16_t u = c.unicode();
    return (u >= u'0' && u <= u'9') || (u >= u'a' && u <= u'f') || (u >= u'A' && u <= u'F');
}

// 8-4-4-4-12 hexadecimal digits, either letter case.
bool isUuidText(const QString& text) {
    if (text.size() != 36) {
        return false;
    }
    for (qsizetype i = 0; i < 36; ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != u'-' : !isHexDigit(text[i])) {
            return false;
        }
    }
    return true;
}

struct Expected {
    QString id; // upper case
    QString name;
    QString path;
    std::optional<QByteArray> bookmark;
    bool readOnly = false;
};

// The records the rules allow, or nothing when any record breaks them.
std::optional<QList<Expected>> model(const QByteArray& bytes) {
    QJsonParseError error;
    const QJsonDocument document = JsonReader::parse(bytes, &error);
    if (error.error != QJsonParseError::NoError || !document.isArray()) {
        return std::nullopt;
    }
    QList<Expected> records;
    for (const QJsonValue& value : document.array()) {
        if (!value.isObject()) {
            return std::nullopt;
        }
        const QJsonObject object = value.toObject();
        const QJsonValue id = object.value(QStringLiteral("id"));
        const QJsonValue name = object.value(QStringLiteral("name"));
        const QJsonValue path = object.value(QStringLiteral("path"));
        const QJsonValue bookmark = object.value(QStringLiteral("bookmark"));
        if (!id.isString() || !isUuidText(id.toString()) || !name.isString() || !path.isString()) {
            return std::nullopt;
        }
        Expected record{id.toString().toUpper(), name.toString(), path.toString(), std::nullopt};
        if (bookmark.isString()) {
            record.bookmark = base64reference::decode(bookmark.toString());
            if (!record.bookmark) {
                return std::nullopt;
            }
        } else if (!bookmark.isUndefined() && !bookmark.isNull()) {
            return std::nullopt;
        }
        const QJsonValue readOnly = object.value(QStringLiteral("read_only"));
        if (readOnly.isBool()) {
            record.readOnly = readOnly.toBool();
        } else if (!readOnly.isUndefined() && !readOnly.isNull()) {
            return std::nullopt;
        }
        records.append(record);
    }
    return records;
}

void checkRecordEncoding(const SharedFolder& folder, const Detail& detail) {
    const QByteArray json = folder.toJson();
    QJsonParseError error;
    const QJsonDocument document = JsonReader::parse(json, &error);
    FUZZ_CHECK(error.error == QJsonParseError::NoError && document.isObject(),
               detail() + QStringLiteral("\nrecord ") + QString::fromUtf8(json));
    const QJsonObject object = document.object();
    FUZZ_CHECK(object == folder.toJsonObject(), detail());
    FUZZ_CHECK(object.size() == 3 + (folder.bookmark ? 1 : 0) + (folder.readOnly ? 1 : 0),
               detail());

    const QString id = object.value(QStringLiteral("id")).toString();
    FUZZ_CHECK(isUuidText(id) && id == id.toUpper(), detail());
    FUZZ_CHECK(QUuid::fromString(id) == folder.id, detail());

    // Inside a JSON string every quote is escaped, so these patterns can only be the keys.
    const qsizetype idAt = json.indexOf("\"id\":");
    const qsizetype nameAt = json.indexOf("\"name\":");
    const qsizetype pathAt = json.indexOf("\"path\":");
    const qsizetype bookmarkAt = json.indexOf("\"bookmark\":");
    FUZZ_CHECK(idAt == 1 && idAt < nameAt && nameAt < pathAt, detail());
    FUZZ_CHECK(folder.bookmark ? pathAt < bookmarkAt : bookmarkAt < 0, detail());
    const qsizetype readOnlyAt = json.indexOf("\"read_only\":");
    FUZZ_CHECK(folder.readOnly ? readOnlyAt > std::max(pathAt, bookmarkAt) : readOnlyAt < 0,
               detail());
    FUZZ_CHECK(!folder.readOnly || object.value(QStringLiteral("read_only")) == QJsonValue(true),
               detail());
    if (folder.bookmark) {
        const QString text = object.value(QStringLiteral("bookmark")).toString();
        FUZZ_CHECK(text == base64reference::encode(*folder.bookmark), detail());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const auto detail = [&] {
        return QStringLiteral("input ") + fuzzQuote(QString::fromUtf8(bytes));
    };

    const std::optional<QList<Expected>> expected = model(bytes);
    const std::optional<QList<SharedFolder>> decoded = SharedFolder::decodeList(bytes);
    FUZZ_CHECK(decoded.has_value() == expected.has_value(), detail());
    if (!decoded) {
        return 0;
    }
    FUZZ_CHECK(decoded->size() == expected->size(), detail());
    for (qsizetype i = 0; i < decoded->size(); ++i) {
        const SharedFolder& folder = (*decoded)[i];
        const Expected& record = (*expected)[i];
        FUZZ_CHECK(folder.id.toString(QUuid::WithoutBraces).toUpper() == record.id, detail());
        FUZZ_CHECK(folder.name == record.name, detail());
        FUZZ_CHECK(folder.path == record.path, detail());
        FUZZ_CHECK(folder.bookmark == record.bookmark, detail());
        FUZZ_CHECK(folder.readOnly == record.readOnly, detail());
        checkRecordEncoding(folder, detail);
    }

    const QByteArray encoded = SharedFolder::encodeList(*decoded);
    const std::optional<QList<SharedFolder>> again = SharedFolder::decodeList(encoded);
    FUZZ_CHECK(again.has_value(),
               detail() + QStringLiteral("\nencoded ") + fuzzQuote(QString::fromUtf8(encoded)));
    FUZZ_CHECK(*again == *decoded,
               detail() + QStringLiteral("\nencoded ") + fuzzQuote(QString::fromUtf8(encoded)));
    FUZZ_CHECK(SharedFolder::encodeList(*again) == encoded, detail());
    return 0;
}
