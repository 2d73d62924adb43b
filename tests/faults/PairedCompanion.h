#pragma once

#include "CommandRun.h"
#include "CompanionSandbox.h"
#include "LineProcess.h"

#include <QByteArray>
#include <QList>
#include <QStringList>

#include <memory>

// One companion as a user sets it up: a throwaway home, paired with a code through its own
// `pair` command, folders shared with `folders add`, then `--headless`, printing each status on a
// line. It may run as the test's own user or as "nobody" (through setpriv), for whom file
// permissions apply even when the test runs as root. Every output and argument list of its
// processes is kept, for the checks on the token.
class PairedCompanion {
public:
    enum class Account { Same, Nobody };

    PairedCompanion(QString program, CompanionSandbox::Bus bus = CompanionSandbox::Bus::None,
                    Account account = Account::Same);
    ~PairedCompanion();
    PairedCompanion(const PairedCompanion&) = delete;
    PairedCompanion& operator=(const PairedCompanion&) = delete;

    // Whether the sandbox is usable, and for "nobody" whether setpriv can switch to it.
    bool isValid() const { return m_valid; }
    // Why not, when it is not.
    QString problem() const { return m_problem; }

    CompanionSandbox& sandbox() { return m_sandbox; }

    // One command run to its end, against `apiBase`.
    CommandRun command(const QStringList& arguments, const QString& apiBase);
    // pair CODE, then folders add for each path, then approval on or off. Empty when it all
    // worked, else what failed.
    QString setUp(const QString& apiBase, const QString& code, const QStringList& folders,
                  bool askBeforeWriting);

    // Starts `--headless` against `apiBase` and waits for "Connected to Quillmar".
    bool start(const QString& apiBase);
    // The same without waiting, for a companion that is not meant to connect.
    void launch(const QString& apiBase);
    // Asks it to stop (SIGTERM); its exit code, -1 if it had to be killed.
    int stop();
    bool isRunning() const { return m_process && m_process->isRunning(); }

    const QStringList& lines() const;
    // Whether a line of --headless output reports an agent's call ("14:03:07  local_read_file
    // ..."), rather than the connection's status or the reason for it.
    static bool isAgentCallLine(const QString& line);
    // When line `index` arrived, on BridgeTap::now()'s clock.
    qint64 lineTime(qsizetype index) const;
    // Index of the first line equal to `line` at or after `from`, waiting up to `timeoutMs`.
    qsizetype waitFor(const QString& line, qsizetype from, int timeoutMs = 20000);
    LineProcess& process() { return *m_process; }
    QString describe();

    // Everything every process of this companion printed, and their argument lists.
    QList<QByteArray> outputs();
    const QList<QStringList>& argumentLists() const { return m_argumentLists; }

private:
    QString m_program;
    Account m_account;
    CompanionSandbox m_sandbox;
    bool m_valid = false;
    QString m_problem;
    std::unique_ptr<LineProcess> m_process;
    qint64 m_processClock = 0;
    QList<QByteArray> m_outputs;
    QList<QStringList> m_argumentLists;
};
