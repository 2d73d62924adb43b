#include "FileToolWorker.h"

#include "FileService.h"
#include "JsonReader.h"
#include "ToolSandbox.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUuid>

#include <cerrno>

#include <unistd.h>

namespace {

bool writeAll(int fd, const char* data, qsizetype size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, std::size_t(size));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += n;
        size -= n;
    }
    return true;
}

} // namespace

FileToolWorker::FileToolWorker(int input, int output) : m_input(input), m_output(output) {}

std::optional<WorkerProtocol::Frame> FileToolWorker::read() {
    while (true) {
        bool malformed = false;
        if (std::optional<WorkerProtocol::Frame> frame =
                WorkerProtocol::take(m_buffer, malformed)) {
            return frame;
        }
        if (malformed) {
            return std::nullopt;
        }
        char chunk[64 * 1024];
        const ssize_t got = ::read(m_input, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return std::nullopt;
        }
        m_buffer.append(chunk, got);
    }
}

bool FileToolWorker::write(WorkerProtocol::Kind kind, QByteArrayView payload) {
    const QByteArray frame = WorkerProtocol::encode(kind, payload);
    if (!writeAll(m_output, frame.constData(), frame.size())) {
        m_lost = true;
        return false;
    }
    return true;
}

bool FileToolWorker::setUp(const QByteArray& setup) {
    const QJsonObject object = JsonReader::parse(setup).object();
    QList<SharedFolder> folders;
    for (const QJsonValue& value : object.value(QStringLiteral("folders")).toArray()) {
        const QJsonObject folder = value.toObject();
        folders.append(SharedFolder{QUuid::createUuid(),
                                    folder.value(QStringLiteral("name")).toString(),
                                    folder.value(QStringLiteral("path")).toString(), std::nullopt});
    }
    QStringList own;
    for (const QJsonValue& value : object.value(QStringLiteral("own")).toArray()) {
        own.append(value.toString());
    }
    m_policy.emplace(folders, own);
    const Confinement confinement =
        ToolSandbox::enter(folders, object.value(QStringLiteral("confine")).toBool());
    const QJsonObject ready{
        {QStringLiteral("confined"), confinement.kind() == Confinement::Kind::Kernel},
        {QStringLiteral("abi"), confinement.abi()},
        {QStringLiteral("reason"), confinement.reason()}};
    return write(WorkerProtocol::Kind::Ready, QJsonDocument(ready).toJson(QJsonDocument::Compact));
}

bool FileToolWorker::approve(const QString& shownPath, qint64 bytes) {
    const QJsonObject question{{QStringLiteral("path"), shownPath},
                               {QStringLiteral("bytes"), bytes}};
    if (!write(WorkerProtocol::Kind::Approve,
               QJsonDocument(question).toJson(QJsonDocument::Compact))) {
        return false;
    }
    const std::optional<WorkerProtocol::Frame> answer = read();
    if (!answer || answer->kind != WorkerProtocol::Kind::Answer) {
        m_lost = true;
        return false;
    }
    return answer->payload == QByteArrayView("\x01", 1);
}

bool FileToolWorker::answer(const QByteArray& call) {
    const QJsonObject object = JsonReader::parse(call).object();
    const QString method = object.value(QStringLiteral("method")).toString();
    const QJsonObject params = object.value(QStringLiteral("params")).toObject();
    const ToolResult result = FileService::execute(
        method, params, *m_policy,
        [this](const QString& shownPath, qint64 bytes) { return approve(shownPath, bytes); });
    if (m_lost) {
        return false;
    }
    QByteArray payload;
    if (result.isJson()) {
        payload.reserve(result.json().size() + 1);
        payload.append('\0');
        payload.append(result.json());
    } else {
        const QJsonObject answer = result.toObject();
        const QJsonValue error = answer.value(QStringLiteral("error"));
        if (error.isString()) {
            payload = '\1' + error.toString().toUtf8();
        } else {
            payload = '\0' + QJsonDocument(answer).toJson(QJsonDocument::Compact);
        }
    }
    return write(WorkerProtocol::Kind::Result, payload);
}

int FileToolWorker::run() {
    const std::optional<WorkerProtocol::Frame> setup = read();
    if (!setup || setup->kind != WorkerProtocol::Kind::Setup || !setUp(setup->payload)) {
        return 1;
    }
    while (true) {
        const std::optional<WorkerProtocol::Frame> frame = read();
        if (!frame) {
            return 0; // the companion is done with this worker
        }
        if (frame->kind != WorkerProtocol::Kind::Call || !answer(frame->payload)) {
            return 1;
        }
    }
}
