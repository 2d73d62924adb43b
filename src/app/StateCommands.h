#pragma once

#include <QStringList>
#include <QTextStream>

// The command-line administration of a companion: pair, unpair, status, folders, approval,
// pause, resume and the running companion's activity.
// Each drives the same application-state operations as the tray and window, without starting
// the bridge. Exit status 0 on success, 1 on failure (reason on one line), 2 on bad usage.
class StateCommands {
public:
    static int pair(const QStringList& arguments, QTextStream& out, QTextStream& err);
    static int unpair(const QStringList& arguments, QTextStream& out, QTextStream& err);
    static int status(const QStringList& arguments, QTextStream& out, QTextStream& err);
    static int folders(const QStringList& arguments, QTextStream& out, QTextStream& err);
    static int approval(const QStringList& arguments, QTextStream& out, QTextStream& err);
    static int pause(const QStringList& arguments, QTextStream& out, QTextStream& err);
    static int resume(const QStringList& arguments, QTextStream& out, QTextStream& err);
    static int activity(const QStringList& arguments, QTextStream& out, QTextStream& err);
};
