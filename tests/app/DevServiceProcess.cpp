#include "DevServiceProcess.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

DevServiceProcess::DevServiceProcess(QString program, QString stateFile)
    : m_program(std::move(program)), m_stateFile(std::move(stateFile)) {}

bool DevServiceProcess::start(quint16 port) {
    stop();
    m_process = std::make_unique<LineProcess>();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("QUILLMAR_API"));
    m_process->start(
        m_program,
        {QStringLiteral("--port"), QString::number(port), QStringLiteral("--state"), m_stateFile},
        environment);
    if (!m_process->waitForLines(2)) {
        return false;
    }
    const QString listening = m_process->lines().at(0);
    const QString code = m_process->lines().at(1);
    if (!listening.startsWith(u"listening http://127.0.0.1:") ||
        !code.startsWith(u"pairing-code ")) {
        return false;
    }
    m_port = quint16(listening.section(u':', -1).toUInt());
    m_pairingCode = code.section(u' ', 1);
    return m_port != 0 && (port == 0 || m_port == port);
}

void DevServiceProcess::stop() {
    if (m_process) {
        m_process->kill();
        m_earlierOutput += m_process->allOutput();
        m_process.reset();
    }
}

QString DevServiceProcess::baseUrl() const {
    return QStringLiteral("http://127.0.0.1:%1").arg(m_port);
}

QStringList DevServiceProcess::deviceTokens() const {
    QFile file(m_stateFile);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    QStringList tokens;
    const QJsonArray devices =
        QJsonDocument::fromJson(file.readAll()).object().value(QStringLiteral("devices")).toArray();
    for (const QJsonValue& device : devices) {
        tokens.append(device.toObject().value(QStringLiteral("device_token")).toString());
    }
    return tokens;
}

QByteArray DevServiceProcess::allOutput() {
    return m_earlierOutput + (m_process ? m_process->allOutput() : QByteArray());
}

QString DevServiceProcess::describe() {
    return m_process ? m_process->describe() : QStringLiteral("(not running)");
}
