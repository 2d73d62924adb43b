#pragma once

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QList>
#include <QString>
#include <QStringList>
#include <QTextStream>

#include <memory>
#include <vector>

// One word of the command line (`pair`, `folders add`, ...): its description, options and
// arguments, from which both its parsing and its help come. Exit status 0 on success, 1 on
// failure (reason on one line), 2 on bad usage (what was wrong, on one line).
class Command {
public:
    struct Argument {
        QString name;
        QString description;
        bool optional = false;
        // The only words it takes, when there are a few: shown as on|off.
        QStringList choices = {};
    };
    struct Option {
        QCommandLineOption option;
        bool repeatable = false;
    };

    Command(QString name, QString description);
    virtual ~Command();
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    const QString& name() const { return m_name; }
    const QString& description() const { return m_description; }
    const QList<Option>& options() const { return m_options; }
    const QList<Argument>& arguments() const { return m_arguments; }
    const std::vector<std::unique_ptr<Command>>& subcommands() const { return m_subcommands; }
    const Command* subcommand(const QString& name) const;

    // The words that name it, with its parent's: "folders add".
    QString path() const;
    // "folders add", "PATH", "[--read-only]": kept apart so that help can wrap between them.
    QStringList synopsis() const;
    // Its usage, description, arguments and options, as `COMMAND --help` shows them.
    QString helpText() const;

    // `arguments` are those after the command's own words.
    int run(const QStringList& arguments, QTextStream& out, QTextStream& err) const;

    // Option and argument names as the user types and sees them: "-h, --help", "on|off".
    static QString optionNames(const QCommandLineOption& option);
    static QString argumentSyntax(const Argument& argument);
    // What was wrong with the words `parser` failed on, for a usage message.
    static QString parseProblem(const QCommandLineParser& parser, const QStringList& arguments);

protected:
    void addOption(QCommandLineOption option, bool repeatable = false);
    void addArgument(const QString& name, const QString& description);
    void addOptionalArgument(const QString& name, const QString& description);
    // One of a few words, such as on|off.
    void addChoiceArgument(const QString& name, const QString& description,
                           const QStringList& choices);
    void addSubcommand(std::unique_ptr<Command> command);

    // Runs once the options and arguments have been checked against the declared ones.
    virtual int execute(const QCommandLineParser& parser, QTextStream& out,
                        QTextStream& err) const = 0;

    int badUsage(QTextStream& err, const QString& problem) const;
    static int fail(QTextStream& err, const QString& reason);

private:
    QString m_name;
    QString m_description;
    QList<Option> m_options;
    QList<Argument> m_arguments;
    std::vector<std::unique_ptr<Command>> m_subcommands;
    const Command* m_parent = nullptr;
};
