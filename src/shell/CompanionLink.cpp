#include "CompanionLink.h"

#include "SingleInstance.h"

#include <QCoroSignal>
#include <QLocalSocket>
#include <QPointer>
#include <QtEndian>

CompanionLink::CompanionLink(QString directory, QObject* parent)
    : QObject(parent), m_directory(std::move(directory)) {}

CompanionLink::~CompanionLink() = default;

bool CompanionLink::ensureConnected() {
    if (m_socket && m_socket->state() == QLocalSocket::ConnectedState) {
        return true;
    }
    if (m_socket) {
        m_socket->deleteLater();
        m_socket = nullptr;
    }
    if (m_directory.isEmpty()) {
        return false;
    }
    auto* socket = new QLocalSocket(this);
    socket->connectToServer(SingleInstance(m_directory).socketPath());
    if (!socket->waitForConnected(2000)) {
        socket->deleteLater();
        return false;
    }
    m_socket = socket;
    ++m_generation;
    m_answers.clear();
    connect(socket, &QLocalSocket::readyRead, this, &CompanionLink::readAnswers);
    connect(socket, &QLocalSocket::disconnected, this, &CompanionLink::changed);
    socket->write(SingleInstance::callStreamMessage());
    return true;
}

void CompanionLink::readAnswers() {
    bool arrived = false;
    while (m_socket && m_socket->bytesAvailable() >= SingleInstance::callHeaderSize) {
        const QByteArray header = m_socket->peek(SingleInstance::callHeaderSize);
        const quint32 length = qFromBigEndian<quint32>(header.constData());
        if (m_socket->bytesAvailable() < SingleInstance::callHeaderSize + qint64(length)) {
            break;
        }
        m_socket->skip(SingleInstance::callHeaderSize);
        m_answers.insert(qFromBigEndian<quint64>(header.constData() + 4), m_socket->read(length));
        arrived = true;
    }
    if (arrived) {
        emit changed();
    }
}

QCoro::Task<std::optional<QByteArray>> CompanionLink::call(QByteArray call) {
    const QPointer<CompanionLink> self(this);
    if (!ensureConnected()) {
        co_return std::nullopt;
    }
    const quint64 generation = m_generation;
    const quint64 id = ++m_lastId;
    m_socket->write(SingleInstance::callFrame(id, call));
    // Out now rather than on the next turn of the event loop.
    m_socket->flush();
    while (true) {
        if (!self) {
            co_return QByteArray();
        }
        if (m_generation == generation) {
            if (auto answer = m_answers.find(id); answer != m_answers.end()) {
                QByteArray reply = std::move(*answer);
                m_answers.erase(answer);
                co_return reply;
            }
        }
        if (m_generation != generation || !m_socket ||
            m_socket->state() != QLocalSocket::ConnectedState) {
            co_return QByteArray(); // the companion went away with the call
        }
        auto waiting = qCoro(this, &CompanionLink::changed, std::chrono::seconds(30));
        const auto woken = co_await waiting;
        // A companion that stopped without closing its end never answers.
        if (!woken && self && SingleInstance::holder(m_directory) == 0) {
            co_return QByteArray();
        }
    }
}
