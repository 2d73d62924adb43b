#pragma once

#include <QByteArray>
#include <QJsonObject>

// What a tool call answers: an object, or, for answers too big to build as QJsonObject cheaply,
// the compact JSON text of one (as QJsonDocument would write it). Text is only ever a successful
// result, never {"error": ...}, so a caller may send it on without looking inside.
class ToolResult {
public:
    ToolResult() = default;
    // Implicit: most tools, and stand-in dispatchers, answer with an object.
    ToolResult(QJsonObject object);

    static ToolResult fromJson(QByteArray compactJson);

    bool isJson() const { return m_isJson; }
    // The compact JSON text; empty unless isJson().
    const QByteArray& json() const { return m_json; }
    // The object, parsed from the text when there is one.
    QJsonObject toObject() const;

private:
    QJsonObject m_object;
    QByteArray m_json;
    bool m_isJson = false;
};
