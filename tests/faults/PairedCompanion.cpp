#include "PairedCompanion.h"

#include "BridgeTap.h"
#include "EventWait.h"

#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QStandardPaths>

#include <unistd.h>

namespace {

constexpr uid_t nobodyId = 65534;

// setpriv's arguments that run a program as nobody:nogroup with no other groups.
const QStringList asNobody{QStringLiteral("--reuid=nobody"), QStringLiteral("--regid=nogroup"),
                           QStringLiteral("--clear-groups"), QStringLiteral("--")};

bool giveToNobody(const QString& root) {
    bool ok = ::chown(QFile::encodeName(root).constData(), nobodyId, nobodyId) == 0;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        ok = ::lchown(QFile::encodeName(it.next()).constData(), nobodyId, nobodyId) == 0 && ok;
    }
    return ok;
}

const QStringList noLines;

} // namespace

PairedCompanion::PairedCompanion(QString program, CompanionSandbox::Bus bus, Account account)
    : m_program(std::move(program)), m_account(account), m_sandbox(bus) {
    if (!m_sandbox.isValid()) {
        m_problem = QStringLiteral("cannot make a sandbox");
        return;
    }
    if (account == Account::Nobody) {
        if (::geteuid() != 0) {
            m_problem = QStringLiteral("only root can run the companion as nobody");
            return;
        }
        if (QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty()) {
            m_problem = QStringLiteral("setpriv is not installed");
            return;
        }
        if (!giveToNobody(m_sandbox.root())) {
            m_problem = QStringLiteral("cannot hand the sandbox to nobody");
            return;
        }
        const CommandRun probe =
            CommandRun::run(QStringLiteral("setpriv"),
                            asNobody + QStringList{m_program, QStringLiteral("--version")},
                            m_sandbox.environment());
        if (probe.exitCode != 0) {
            m_problem = QStringLiteral("nobody cannot run the companion: ") + probe.describe();
            return;
        }
    }
    m_valid = true;
}

PairedCompanion::~PairedCompanion() {
    if (m_process) {
        m_process->kill();
    }
}

CommandRun PairedCompanion::command(const QStringList& arguments, const QString& apiBase) {
    m_sandbox.setApiBase(apiBase);
    const bool nobody = m_account == Account::Nobody;
    const QString program = nobody ? QStringLiteral("setpriv") : m_program;
    const QStringList all = nobody ? asNobody + QStringList{m_program} + arguments : arguments;
    // Run with the event loop turning, so that whoever watches this process's children (the
    // census of argument lists) sees this one too.
    LineProcess process;
    process.start(program, all, m_sandbox.environment());
    EventWait::until([&] { return !process.isRunning(); }, 60000);
    CommandRun run;
    run.exitCode = process.waitForExit(1000);
    for (const QString& line : process.lines()) {
        run.out += line.toUtf8() + '\n';
    }
    run.err = process.standardError();
    m_outputs << process.allOutput();
    m_argumentLists << all;
    return run;
}

QString PairedCompanion::setUp(const QString& apiBase, const QString& code,
                               const QStringList& folders, bool askBeforeWriting) {
    CommandRun run = command({QStringLiteral("pair"), code}, apiBase);
    if (run.exitCode != 0) {
        return QStringLiteral("pair: ") + run.describe();
    }
    for (const QString& folder : folders) {
        run = command({QStringLiteral("folders"), QStringLiteral("add"), folder}, apiBase);
        if (run.exitCode != 0) {
            return QStringLiteral("folders add: ") + run.describe();
        }
    }
    run = command({QStringLiteral("approval"),
                   askBeforeWriting ? QStringLiteral("on") : QStringLiteral("off")},
                  apiBase);
    return run.exitCode == 0 ? QString() : QStringLiteral("approval: ") + run.describe();
}

bool PairedCompanion::start(const QString& apiBase) {
    launch(apiBase);
    return m_process->waitFor(QStringLiteral("Connected to Quillmar")) >= 0;
}

void PairedCompanion::launch(const QString& apiBase) {
    stop();
    m_sandbox.setApiBase(apiBase);
    const bool nobody = m_account == Account::Nobody;
    const QString program = nobody ? QStringLiteral("setpriv") : m_program;
    const QStringList arguments =
        nobody ? asNobody + QStringList{m_program, QStringLiteral("--headless")}
               : QStringList{QStringLiteral("--headless")};
    m_process = std::make_unique<LineProcess>();
    // LineProcess counts its line times from its construction.
    m_processClock = BridgeTap::now();
    m_argumentLists << arguments;
    m_process->start(program, arguments, m_sandbox.environment());
}

int PairedCompanion::stop() {
    if (!m_process) {
        return 0;
    }
    const int status = m_process->terminate();
    m_outputs << m_process->allOutput();
    m_process.reset();
    return status;
}

bool PairedCompanion::isAgentCallLine(const QString& line) {
    static const QRegularExpression call(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d  \\S"));
    return call.match(line).hasMatch();
}

const QStringList& PairedCompanion::lines() const {
    return m_process ? m_process->lines() : noLines;
}

qint64 PairedCompanion::lineTime(qsizetype index) const {
    return m_process ? m_processClock + m_process->timeOf(index) : -1;
}

qsizetype PairedCompanion::waitFor(const QString& line, qsizetype from, int timeoutMs) {
    return m_process ? m_process->waitFor(line, from, timeoutMs) : -1;
}

QString PairedCompanion::describe() {
    return m_process ? m_process->describe() : QStringLiteral("(not running)");
}

QList<QByteArray> PairedCompanion::outputs() {
    QList<QByteArray> all = m_outputs;
    if (m_process) {
        all << m_process->allOutput();
    }
    return all;
}
