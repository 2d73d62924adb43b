#include "LineProcess.h"

#include <QTest>

LineProcess::LineProcess() {
    m_clock.start();
    m_process.setProcessChannelMode(QProcess::SeparateChannels);
    m_process.setStandardInputFile(QProcess::nullDevice());
    QObject::connect(&m_process, &QProcess::readyReadStandardOutput, [this] { takeOutput(); });
    QObject::connect(&m_process, &QProcess::readyReadStandardError,
                     [this] { m_err += m_process.readAllStandardError(); });
}

LineProcess::~LineProcess() {
    kill();
    QObject::disconnect(&m_process, nullptr, nullptr, nullptr);
}

void LineProcess::start(const QString& program, const QStringList& arguments,
                        const QProcessEnvironment& environment) {
    m_process.setProcessEnvironment(environment);
    m_process.start(program, arguments);
    m_started = true;
}

void LineProcess::takeOutput() {
    const QByteArray chunk = m_process.readAllStandardOutput();
    m_out += chunk;
    m_pending += chunk;
    for (qsizetype end = m_pending.indexOf('\n'); end >= 0; end = m_pending.indexOf('\n')) {
        m_lines.append(QString::fromUtf8(m_pending.left(end)));
        m_times.append(m_clock.elapsed());
        m_pending.remove(0, end + 1);
    }
}

qsizetype LineProcess::waitFor(const QString& line, qsizetype from, int timeoutMs) {
    static_cast<void>(QTest::qWaitFor(
        [&] { return m_lines.indexOf(line, from) >= 0 || !isRunning(); }, timeoutMs));
    takeOutput();
    return m_lines.indexOf(line, from);
}

bool LineProcess::waitForLines(qsizetype count, int timeoutMs) {
    static_cast<void>(
        QTest::qWaitFor([&] { return m_lines.size() >= count || !isRunning(); }, timeoutMs));
    takeOutput();
    return m_lines.size() >= count;
}

int LineProcess::terminate(int timeoutMs) {
    if (isRunning()) {
        m_process.terminate();
    }
    return waitForExit(timeoutMs);
}

int LineProcess::waitForExit(int timeoutMs) {
    if (isRunning() && !m_process.waitForFinished(timeoutMs)) {
        kill();
        return -1;
    }
    takeOutput();
    m_err += m_process.readAllStandardError();
    if (!m_started || m_process.error() == QProcess::FailedToStart) {
        return -1;
    }
    return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
}

void LineProcess::kill() {
    if (isRunning()) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

QByteArray LineProcess::standardError() {
    m_err += m_process.readAllStandardError();
    return m_err;
}

QByteArray LineProcess::allOutput() {
    takeOutput();
    return m_out + standardError();
}

QString LineProcess::describe() {
    return m_lines.join(u'|') + QStringLiteral(" / stderr: ") + QString::fromUtf8(standardError());
}
