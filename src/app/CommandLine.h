#pragma once

#include <QCommandLineOption>
#include <QList>
#include <QStringList>
#include <QTextStream>

#include <memory>
#include <vector>

class Command;

// The executable's front door: picks the command, or starts the companion itself (in the tray,
// or --headless), and returns the process's exit status. The help comes from the commands.
class CommandLine {
public:
    CommandLine();
    ~CommandLine();

    static int run(int argc, char* argv[]);

    // `arguments` without the program's name, never empty.
    int dispatch(const QStringList& arguments, QTextStream& out, QTextStream& err) const;
    QString helpText() const;

private:
    const Command* find(const QString& name) const;
    // The command `words` name, following subcommands ("folders add ..."); null for none.
    const Command* resolve(const QStringList& words, bool& exact) const;
    int badUsage(QTextStream& err, const QString& problem) const;

    std::vector<std::unique_ptr<Command>> m_commands;
    QList<QCommandLineOption> m_options;
};
