#pragma once

#include <QStringList>
#include <QTextStream>

// The versions that agents' writes left behind: `history` lists them, `restore ID` puts one
// back. Restoring is the local user's action only; agents have no way to it.
class HistoryCommands {
public:
    static int history(const QStringList& arguments, QTextStream& out, QTextStream& err);
    static int restore(const QStringList& arguments, QTextStream& out, QTextStream& err);
};
