#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

// One run of a command to its end: standard input empty (never a terminal), output and errors
// kept apart. A run that does not end within its bound is killed and reported with exit code -1.
class CommandRun {
public:
    int exitCode = -1;
    QByteArray out;
    QByteArray err;

    static CommandRun run(const QString& program, const QStringList& arguments,
                          const QProcessEnvironment& environment,
                          const QString& workingDirectory = QString(), int timeoutMs = 60000);

    // Both streams, for messages of failed checks.
    QString describe() const;
};
