#include "Command.h"

#include "HelpText.h"
#include "VisibleText.h"

namespace {

QString helpNames() {
    return QStringLiteral("-h, --help");
}

} // namespace

Command::Command(QString name, QString description)
    : m_name(std::move(name)), m_description(std::move(description)) {}

Command::~Command() = default;

const Command* Command::subcommand(const QString& name) const {
    for (const std::unique_ptr<Command>& command : m_subcommands) {
        if (command->name() == name) {
            return command.get();
        }
    }
    return nullptr;
}

QString Command::path() const {
    return m_parent ? m_parent->path() + u' ' + m_name : m_name;
}

QString Command::optionNames(const QCommandLineOption& option) {
    QStringList names;
    for (const QString& name : option.names()) {
        names.append((name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + name);
    }
    QString text = names.join(QStringLiteral(", "));
    if (!option.valueName().isEmpty()) {
        text += u' ' + option.valueName();
    }
    return text;
}

QString Command::argumentSyntax(const Argument& argument) {
    return argument.choices.isEmpty() ? argument.name : argument.choices.join(u'|');
}

QStringList Command::synopsis() const {
    QStringList pieces{path()};
    for (const Argument& argument : m_arguments) {
        pieces.append(argument.optional ? u'[' + argumentSyntax(argument) + u']'
                                        : argumentSyntax(argument));
    }
    for (const Option& option : m_options) {
        const QString& name = option.option.names().constLast();
        QString piece = QStringLiteral("[--") + name;
        if (!option.option.valueName().isEmpty()) {
            piece += u' ' + option.option.valueName();
        }
        piece += u']';
        if (option.repeatable) {
            piece += QStringLiteral("...");
        }
        pieces.append(piece);
    }
    return pieces;
}

QString Command::helpText() const {
    const QString program = HelpText::program();
    QString text =
        HelpText::wrap(QStringList{QStringLiteral("Usage:"), program} + synopsis(), 0, 11);
    for (const std::unique_ptr<Command>& command : m_subcommands) {
        text += HelpText::wrap(QStringList{program} + command->synopsis(), 7, 11);
    }
    text += u'\n';
    if (m_subcommands.empty()) {
        // A sentence of its own here, where the overview shows a phrase.
        QString sentence = m_description;
        sentence[0] = sentence[0].toUpper();
        if (!sentence.endsWith(u'.')) {
            sentence += u'.';
        }
        text += HelpText::wrap(sentence.split(u' ', Qt::SkipEmptyParts), 0, 0);
    } else {
        text += HelpText::entry(synopsis(), m_description);
        for (const std::unique_ptr<Command>& command : m_subcommands) {
            text += HelpText::entry(command->synopsis(), command->description());
        }
    }
    if (!m_arguments.isEmpty()) {
        text += QStringLiteral("\nArguments:\n");
        for (const Argument& argument : m_arguments) {
            text += HelpText::entry({argumentSyntax(argument)}, argument.description);
        }
    }
    text += QStringLiteral("\nOptions:\n");
    for (const Option& option : m_options) {
        text += HelpText::entry({optionNames(option.option)}, option.option.description());
    }
    text += HelpText::entry({helpNames()}, QStringLiteral("show this help"));
    return text;
}

// Qt's own text names an unknown option without its dashes; the user's word is clearer.
QString Command::parseProblem(const QCommandLineParser& parser, const QStringList& arguments) {
    const QStringList unknown = parser.unknownOptionNames();
    if (!unknown.isEmpty()) {
        for (const QString& argument : arguments) {
            if (argument == u"--") {
                break;
            }
            const QString written = argument.section(u'=', 0, 0);
            QString bare = written;
            while (bare.startsWith(u'-')) {
                bare.remove(0, 1);
            }
            if (written.startsWith(u'-') && unknown.contains(bare)) {
                return QStringLiteral("unknown option '%1'").arg(written);
            }
        }
        const QString& name = unknown.front();
        return QStringLiteral("unknown option '%1%2'")
            .arg(name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--"), name);
    }
    QString text = parser.errorText();
    if (text.endsWith(u'.')) {
        text.chop(1);
    }
    if (!text.isEmpty()) {
        text[0] = text[0].toLower();
    }
    return text;
}

int Command::run(const QStringList& arguments, QTextStream& out, QTextStream& err) const {
    if (!m_subcommands.empty() && !arguments.isEmpty() && !arguments.front().startsWith(u'-')) {
        if (const Command* command = subcommand(arguments.front())) {
            return command->run(arguments.mid(1), out, err);
        }
        if (m_arguments.isEmpty()) {
            QStringList names;
            for (const std::unique_ptr<Command>& command : m_subcommands) {
                names.append(command->name());
            }
            return badUsage(err, QStringLiteral("unknown action '%1' (%2)")
                                     .arg(arguments.front(), names.join(QStringLiteral(", "))));
        }
    }
    QCommandLineParser parser;
    for (const Option& option : m_options) {
        parser.addOption(option.option);
    }
    // The first word is taken for the program's name.
    if (!parser.parse(QStringList{HelpText::program()} + arguments)) {
        return badUsage(err, parseProblem(parser, arguments));
    }
    const QStringList given = parser.positionalArguments();
    for (qsizetype i = 0; i < m_arguments.size(); ++i) {
        const Argument& argument = m_arguments[i];
        if (i >= given.size()) {
            if (!argument.optional) {
                return badUsage(err, QStringLiteral("%1 is missing").arg(argumentSyntax(argument)));
            }
            break;
        }
        if (!argument.choices.isEmpty() && !argument.choices.contains(given[i])) {
            return badUsage(
                err,
                QStringLiteral("expected %1, got '%2'").arg(argumentSyntax(argument), given[i]));
        }
    }
    if (given.size() > m_arguments.size()) {
        return badUsage(err,
                        QStringLiteral("unexpected argument '%1'").arg(given[m_arguments.size()]));
    }
    return execute(parser, out, err);
}

void Command::addOption(QCommandLineOption option, bool repeatable) {
    m_options.append(Option{std::move(option), repeatable});
}

void Command::addArgument(const QString& name, const QString& description) {
    m_arguments.append(Argument{name, description, false, {}});
}

void Command::addOptionalArgument(const QString& name, const QString& description) {
    m_arguments.append(Argument{name, description, true, {}});
}

void Command::addChoiceArgument(const QString& name, const QString& description,
                                const QStringList& choices) {
    m_arguments.append(Argument{name, description, false, choices});
}

void Command::addSubcommand(std::unique_ptr<Command> command) {
    command->m_parent = this;
    m_subcommands.push_back(std::move(command));
}

int Command::badUsage(QTextStream& err, const QString& problem) const {
    const QString program = HelpText::program();
    err << program << " " << path() << ": " << VisibleText::oneLine(problem) << ". See " << program
        << " " << path() << " --help.\n"
        << Qt::flush;
    return 2;
}

int Command::fail(QTextStream& err, const QString& reason) {
    err << HelpText::program() << ": " << reason << "\n" << Qt::flush;
    return 1;
}
