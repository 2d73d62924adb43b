#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QProcess>
#include <QStringList>

// A long-running child whose standard output is taken line by line, each line with the time it
// arrived (for diagnostics); standard error is kept whole. Standard input is empty, never a
// terminal. The child is killed when the object goes.
class LineProcess {
public:
    LineProcess();
    ~LineProcess();
    LineProcess(const LineProcess&) = delete;
    LineProcess& operator=(const LineProcess&) = delete;

    void start(const QString& program, const QStringList& arguments,
               const QProcessEnvironment& environment);

    // Index of the first line at or after `from` equal to `line`, waiting for it; -1 if it does
    // not come in time or the child ends first.
    qsizetype waitFor(const QString& line, qsizetype from = 0, int timeoutMs = 20000);
    // Waits until at least `count` lines have arrived.
    bool waitForLines(qsizetype count, int timeoutMs = 20000);

    // Asks the child to stop (SIGTERM) and gives its exit code, or -1 when it had to be killed
    // or did not end normally.
    int terminate(int timeoutMs = 20000);
    void kill();
    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }
    // The child's process id while it runs, 0 otherwise.
    qint64 processId() const { return m_process.processId(); }
    // Exit code once the child ended by itself, -1 if it crashed or is still running.
    int waitForExit(int timeoutMs = 20000);

    const QStringList& lines() const { return m_lines; }
    qint64 timeOf(qsizetype line) const { return m_times.value(line, -1); }
    QByteArray standardError();
    // Everything the child wrote to either stream so far.
    QByteArray allOutput();
    QStringList arguments() const { return m_process.arguments(); }
    // Lines and errors, for messages of failed checks.
    QString describe();

private:
    void takeOutput();

    QProcess m_process;
    QStringList m_lines;
    QList<qint64> m_times;
    QElapsedTimer m_clock;
    QByteArray m_out;
    QByteArray m_pending;
    QByteArray m_err;
    bool m_started = false;
};
