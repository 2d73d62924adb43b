#include "PythonPeer.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QJsonDocument>
#include <QTest>

namespace {

// Debian's interpreter, where python3-websockets is installed; another python3 on the PATH
// may not have it.
const QString interpreter = QStringLiteral("/usr/bin/python3");

} // namespace

PythonPeer::PythonPeer() = default;

PythonPeer::~PythonPeer() {
    stop();
}

bool PythonPeer::start() {
    if (!QFile::exists(interpreter)) {
        qWarning("%s is missing: scripts/setup installs it", qPrintable(interpreter));
        return false;
    }
    m_process.setProgram(interpreter);
    m_process.setArguments({QStringLiteral(QUILLMAR_WS_PEER_SCRIPT)});
    m_process.start();
    if (!m_process.waitForStarted(10000)) {
        return false;
    }
    const std::optional<QJsonObject> listening =
        take(QStringLiteral("listening"), 0, std::chrono::seconds(20));
    if (!listening) {
        qWarning("the Python peer did not start: %s", qPrintable(describe()));
        return false;
    }
    m_port = quint16(listening->value(QStringLiteral("port")).toInt());
    return m_port != 0;
}

void PythonPeer::readReports() {
    m_pending += m_process.readAllStandardOutput();
    qsizetype end = 0;
    while ((end = m_pending.indexOf('\n')) >= 0) {
        const QByteArray line = m_pending.left(end);
        m_pending.remove(0, end + 1);
        const QJsonDocument document = QJsonDocument::fromJson(line);
        m_reports.append(document.isObject()
                             ? document.object()
                             : QJsonObject{{QStringLiteral("event"), QStringLiteral("unreadable")},
                                           {QStringLiteral("line"), QString::fromUtf8(line)}});
        m_taken.append(false);
    }
}

std::optional<QJsonObject> PythonPeer::take(const QString& event, int connection,
                                            std::chrono::milliseconds timeout) {
    const QDeadlineTimer deadline(timeout);
    while (true) {
        readReports();
        for (qsizetype i = 0; i < m_reports.size(); ++i) {
            const QJsonObject& report = m_reports[i];
            if (!m_taken[i] && report.value(QStringLiteral("event")).toString() == event &&
                (connection == 0 ||
                 report.value(QStringLiteral("connection")).toInt() == connection)) {
                m_taken[i] = true;
                return report;
            }
        }
        if (deadline.hasExpired() || m_process.state() == QProcess::NotRunning) {
            return std::nullopt;
        }
        // The companion's side runs on this thread's event loop meanwhile.
        QTest::qWait(5);
    }
}

const QList<QJsonObject>& PythonPeer::reports() {
    readReports();
    return m_reports;
}

QString PythonPeer::describe() {
    readReports();
    QString text = QStringLiteral("Python peer reports:\n");
    for (const QJsonObject& report : std::as_const(m_reports)) {
        text += QString::fromUtf8(QJsonDocument(report).toJson(QJsonDocument::Compact)) + u'\n';
    }
    return text + QStringLiteral("standard error:\n") +
           QString::fromUtf8(m_process.readAllStandardError());
}

void PythonPeer::stop() {
    if (m_process.state() == QProcess::NotRunning) {
        return;
    }
    m_process.closeWriteChannel();
    if (!m_process.waitForFinished(10000)) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}
