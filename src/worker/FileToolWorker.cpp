#include "FileToolWorker.h"

#include "FileService.h"
#include "FileState.h"
#include "JsonReader.h"
#include "ToolResult.h"
#include "ToolSandbox.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUuid>

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
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
                                    folder.value(QStringLiteral("path")).toString(), std::nullopt,
                                    !folder.value(QStringLiteral("writable")).toBool()});
    }
    m_keep = object.value(QStringLiteral("keep")).toBool();
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
        [this](const QString& shownPath, qint64 bytes) { return approve(shownPath, bytes); }, this);
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
    // Summary and result in one write: the companion wakes once for both.
    const QByteArray frames =
        summaryFrame(result) + WorkerProtocol::encode(WorkerProtocol::Kind::Result, payload);
    if (!writeAll(m_output, frames.constData(), frames.size())) {
        m_lost = true;
        return false;
    }
    return true;
}

bool FileToolWorker::writeWithDescriptor(WorkerProtocol::Kind kind, QByteArrayView payload,
                                         int descriptor) {
    if (descriptor < 0) {
        return write(kind, payload);
    }
    const QByteArray frame = WorkerProtocol::encode(kind, payload);
    // The descriptor travels with the frame's first byte; the rest follows as usual.
    iovec first{const_cast<char*>(frame.constData()), 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &first;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof(int));
    ssize_t sent = -1;
    do {
        sent = ::sendmsg(m_output, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent != 1 || !writeAll(m_output, frame.constData() + 1, frame.size() - 1)) {
        m_lost = true;
        return false;
    }
    return true;
}

void FileToolWorker::replacing(const PendingWrite& write, int previous, const struct stat& before) {
    if (!m_keep || m_lost) {
        return;
    }
    const QJsonObject about{
        {QStringLiteral("path"), write.path},
        {QStringLiteral("real"), QString::fromLatin1(write.target.realPath.toBase64())},
        {QStringLiteral("before"), FileState::of(before).toJson()},
        {QStringLiteral("readable"), previous >= 0}};
    if (!writeWithDescriptor(WorkerProtocol::Kind::Previous,
                             QJsonDocument(about).toJson(QJsonDocument::Compact), previous)) {
        return;
    }
    // The file is cut only once its bytes are safe (or the companion could not keep them).
    const std::optional<WorkerProtocol::Frame> kept = read();
    if (!kept || kept->kind != WorkerProtocol::Kind::Kept) {
        m_lost = true;
    }
}

void FileToolWorker::written(const PendingWrite& write, bool created, const struct stat* after) {
    if (!m_keep || m_lost) {
        return;
    }
    QJsonObject report{
        {QStringLiteral("path"), write.path},
        {QStringLiteral("real"), QString::fromLatin1(write.target.realPath.toBase64())},
        {QStringLiteral("created"), created}};
    if (after) {
        report.insert(QStringLiteral("after"), FileState::of(*after).toJson());
    }
    this->write(WorkerProtocol::Kind::Written,
                QJsonDocument(report).toJson(QJsonDocument::Compact));
}

QByteArray FileToolWorker::summaryFrame(const ToolResult& result) {
    qint64 bytes = -1;
    qint64 items = -1;
    if (result.isJson()) {
        // Listings are written with their count first: {"count":N,...}.
        const QByteArray& json = result.json();
        static const QByteArray prefix = QByteArrayLiteral("{\"count\":");
        if (json.startsWith(prefix)) {
            const qsizetype end = json.indexOf(',', prefix.size());
            bool ok = false;
            const qint64 count = json.mid(prefix.size(), end - prefix.size()).toLongLong(&ok);
            items = ok ? count : -1;
        }
    } else {
        const QJsonObject object = result.toObject();
        if (object.contains(QStringLiteral("error"))) {
            return QByteArray();
        }
        if (const QJsonValue content = object.value(QStringLiteral("content"));
            content.isString()) {
            bytes = content.toString().toUtf8().size();
        } else if (const QJsonValue written = object.value(QStringLiteral("bytes"));
                   written.isDouble()) {
            bytes = written.toInteger();
        }
        if (const QJsonValue count = object.value(QStringLiteral("count")); count.isDouble()) {
            items = count.toInteger();
        }
    }
    const QJsonObject summary{{QStringLiteral("bytes"), bytes}, {QStringLiteral("items"), items}};
    return WorkerProtocol::encode(WorkerProtocol::Kind::Summary,
                                  QJsonDocument(summary).toJson(QJsonDocument::Compact));
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
