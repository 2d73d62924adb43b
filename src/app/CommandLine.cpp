#include "CommandLine.h"

#include "ActivityCommand.h"
#include "AppIdentity.h"
#include "AppState.h"
#include "ApprovalCommand.h"
#include "AutostartCommand.h"
#include "CallCommand.h"
#include "DesktopApp.h"
#include "FoldersCommand.h"
#include "HeadlessRunner.h"
#include "HelpText.h"
#include "HistoryCommand.h"
#include "McpCommand.h"
#include "OnboardingWindowController.h"
#include "PairCommand.h"
#include "PauseCommand.h"
#include "RestoreCommand.h"
#include "ResumeCommand.h"
#include "StatusCommand.h"
#include "UnpairCommand.h"
#include "VisibleText.h"
#include "WindowPresenterFor.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <algorithm>
#include <cstdio>

namespace {

QCommandLineOption headlessOption() {
    return QCommandLineOption(QStringLiteral("headless"),
                              QStringLiteral("run without tray or window until interrupted"));
}

QCommandLineOption helpOption() {
    return QCommandLineOption(
        {QStringLiteral("h"), QStringLiteral("help")},
        QStringLiteral("show this help; after a command, that command's own"));
}

QCommandLineOption versionOption() {
    return QCommandLineOption({QStringLiteral("v"), QStringLiteral("V"), QStringLiteral("version")},
                              QStringLiteral("show the version"));
}

bool asksForHelp(const QString& argument) {
    return argument == u"--help" || argument == u"-h";
}

} // namespace

CommandLine::CommandLine() {
    m_commands.push_back(std::make_unique<PairCommand>());
    m_commands.push_back(std::make_unique<UnpairCommand>());
    m_commands.push_back(std::make_unique<StatusCommand>());
    m_commands.push_back(std::make_unique<FoldersCommand>());
    m_commands.push_back(std::make_unique<ApprovalCommand>());
    m_commands.push_back(std::make_unique<PauseCommand>());
    m_commands.push_back(std::make_unique<ResumeCommand>());
    m_commands.push_back(std::make_unique<ActivityCommand>());
    m_commands.push_back(std::make_unique<HistoryCommand>());
    m_commands.push_back(std::make_unique<RestoreCommand>());
    m_commands.push_back(std::make_unique<AutostartCommand>());
    m_commands.push_back(std::make_unique<McpCommand>());
    m_commands.push_back(std::make_unique<CallCommand>());
    m_options = {headlessOption(), helpOption(), versionOption()};
}

CommandLine::~CommandLine() = default;

const Command* CommandLine::find(const QString& name) const {
    for (const std::unique_ptr<Command>& command : m_commands) {
        if (command->name() == name) {
            return command.get();
        }
    }
    return nullptr;
}

const Command* CommandLine::resolve(const QStringList& words, bool& exact) const {
    exact = false;
    if (words.isEmpty()) {
        return nullptr;
    }
    const Command* command = find(words.front());
    qsizetype used = 1;
    while (command && used < words.size()) {
        const Command* sub = command->subcommand(words[used]);
        if (!sub) {
            break;
        }
        command = sub;
        ++used;
    }
    exact = command && used == words.size();
    return command;
}

QString CommandLine::helpText() const {
    const QString program = HelpText::program();
    QString text = QStringLiteral("Usage: %1 [--headless]\n"
                                  "       %1 COMMAND [ARGUMENTS]\n"
                                  "       %1 COMMAND --help\n"
                                  "\n"
                                  "Lets the agents of the Quillmar service reach files in the "
                                  "folders you share,\n"
                                  "and nowhere else.\n"
                                  "\n"
                                  "Without a command the companion starts and keeps its "
                                  "connection to the service:\n"
                                  "in the system tray, or without tray and window with "
                                  "--headless.\n"
                                  "\n"
                                  "Commands:\n")
                       .arg(program);
    for (const std::unique_ptr<Command>& command : m_commands) {
        text += HelpText::entry(command->synopsis(), command->description());
        for (const std::unique_ptr<Command>& sub : command->subcommands()) {
            text += HelpText::entry(sub->synopsis(), sub->description());
        }
    }
    text += QStringLiteral("\nOptions:\n");
    for (const QCommandLineOption& option : m_options) {
        text += HelpText::entry({Command::optionNames(option)}, option.description());
    }
    text += QStringLiteral("\nEnvironment:\n");
    text += HelpText::entry(
        {QStringLiteral("QUILLMAR_API")},
        QStringLiteral("the service's address (default %1)").arg(AppState::defaultApiBase()));
    text += HelpText::entry({QStringLiteral("QUILLMAR_KERNEL_CONFINEMENT=off")},
                            QStringLiteral("run the file tools without the kernel's confinement"));
    text += HelpText::entry({QStringLiteral("QUILLMAR_VERSION_BUDGET=BYTES")},
                            QStringLiteral("how much of what agents' writes replace to keep "
                                           "(default 1 GiB)"));
    return text;
}

int CommandLine::badUsage(QTextStream& err, const QString& problem) const {
    err << HelpText::program() << ": " << VisibleText::oneLine(problem) << ". See "
        << HelpText::program() << " --help.\n"
        << Qt::flush;
    return 2;
}

int CommandLine::dispatch(const QStringList& arguments, QTextStream& out, QTextStream& err) const {
    // "help [COMMAND]", and --help anywhere, whatever the command would make of the word.
    const bool helpWord = arguments.front() == u"help";
    if (helpWord || std::any_of(arguments.begin(), arguments.end(), asksForHelp)) {
        QStringList words = helpWord ? arguments.mid(1) : arguments;
        words.removeIf(asksForHelp);
        bool exact = false;
        const Command* command = resolve(words, exact);
        if (helpWord && !words.isEmpty() && !exact) {
            return badUsage(err, QStringLiteral("no help for '%1'").arg(words.join(u' ')));
        }
        out << (command ? command->helpText() : helpText()) << Qt::flush;
        return out.status() == QTextStream::Ok ? 0 : 1;
    }
    if (const Command* command = find(arguments.front())) {
        return command->run(arguments.mid(1), out, err);
    }

    QCommandLineParser parser;
    parser.addOptions(m_options);
    if (!parser.parse(QStringList{HelpText::program()} + arguments)) {
        return badUsage(err, Command::parseProblem(parser, arguments));
    }
    if (!parser.positionalArguments().isEmpty()) {
        const QString word = parser.positionalArguments().front();
        return badUsage(err, find(word)
                                 ? QStringLiteral("'%1' comes first, before any option").arg(word)
                                 : QStringLiteral("unknown command '%1'").arg(word));
    }
    if (parser.isSet(versionOption())) {
        out << HelpText::program() << " " << QCoreApplication::applicationVersion() << "\n"
            << Qt::flush;
        return out.status() == QTextStream::Ok ? 0 : 1;
    }
    if (!parser.isSet(headlessOption())) {
        return badUsage(err, QStringLiteral("unknown option '%1'").arg(arguments.front()));
    }
    return HeadlessRunner::run(out, err);
}

int CommandLine::run(int argc, char* argv[]) {
    // Without arguments: the desktop companion, which makes its own QApplication.
    if (argc <= 1) {
        return DesktopApp::run(argc, argv, [] {
            return std::make_unique<WindowPresenterFor<OnboardingWindowController>>();
        });
    }
    QStringList arguments;
    for (int i = 1; i < argc; ++i) {
        arguments.append(QString::fromLocal8Bit(argv[i]));
    }

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(AppIdentity::id());
    QCoreApplication::setApplicationVersion(QStringLiteral(QUILLMAR_VERSION));
    QTextStream out(stdout);
    QTextStream err(stderr);
    return CommandLine().dispatch(arguments, out, err);
}
