#include "CommandRun.h"

#include <QProcess>

CommandRun CommandRun::run(const QString& program, const QStringList& arguments,
                           const QProcessEnvironment& environment, const QString& workingDirectory,
                           int timeoutMs) {
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setStandardInputFile(QProcess::nullDevice());
    if (!workingDirectory.isEmpty()) {
        process.setWorkingDirectory(workingDirectory);
    }
    process.start(program, arguments);
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
    }
    CommandRun result;
    result.exitCode =
        process.exitStatus() == QProcess::NormalExit && process.error() != QProcess::FailedToStart
            ? process.exitCode()
            : -1;
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    return result;
}

QString CommandRun::describe() const {
    return QStringLiteral("exit %1, out: %2, err: %3")
        .arg(exitCode)
        .arg(QString::fromUtf8(out), QString::fromUtf8(err));
}
