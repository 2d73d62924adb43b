#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <sys/types.h>

// A child on a pseudo-terminal of its own: standard input, output and error are the terminal,
// as when a person runs the command. The test reads what the terminal shows and types answers.
// Every wait is bounded; the child is killed when the object goes.
class PtyProcess {
public:
    PtyProcess() = default;
    ~PtyProcess();
    PtyProcess(const PtyProcess&) = delete;
    PtyProcess& operator=(const PtyProcess&) = delete;

    // `typeAhead` is typed before the child exists; the child starts only once the terminal
    // has taken it in (its echo is back), so it is certainly waiting there for the child.
    bool start(const QString& program, const QStringList& arguments,
               const QProcessEnvironment& environment, const QByteArray& typeAhead = {});

    // Reads until the screen output (line ends as "\n") contains `text`.
    bool waitForOutput(const QByteArray& text, int timeoutMs = 20000);
    // Takes in what the terminal shows by now, without waiting; false at the end of the output.
    bool readAvailable();
    // Types `bytes` on the terminal.
    bool type(const QByteArray& bytes);
    // Reads to the end and gives the exit code; -1 when the child did not end in time (it is
    // then killed) or did not end normally.
    int waitForExit(int timeoutMs = 20000);

    // What the terminal showed so far, "\r\n" turned into "\n".
    QByteArray output() const;

private:
    // Reads what is there, waiting at most `timeoutMs` for the first bytes; false at the end
    // of the output.
    bool readSome(int timeoutMs);
    void kill();

    pid_t m_pid = -1;
    int m_master = -1;
    QByteArray m_output;
};
