#include "ToolResult.h"

#include "JsonReader.h"

#include <utility>

ToolResult::ToolResult(QJsonObject object) : m_object(std::move(object)) {}

ToolResult ToolResult::fromJson(QByteArray compactJson) {
    ToolResult result;
    result.m_json = std::move(compactJson);
    result.m_isJson = true;
    return result;
}

QJsonObject ToolResult::toObject() const {
    return m_isJson ? JsonReader::parse(m_json).object() : m_object;
}
