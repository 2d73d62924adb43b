#include "CommandLine.h"

#include "AppIdentity.h"
#include "AppState.h"
#include "AutostartCommand.h"
#include "CallCommand.h"
#include "DesktopApp.h"
#include "HeadlessRunner.h"
#include "HistoryCommands.h"
#include "McpCommand.h"
#include "OnboardingWindowController.h"
#include "StateCommands.h"
#include "WindowPresenterFor.h"

#include <QCoreApplication>
#include <QStringList>
#include <QTextStream>

#include <cstdio>
#include <functional>
#include <map>

namespace {

using Command = std::function<int(const QStringList&, QTextStream&, QTextStream&)>;

const std::map<QString, Command>& commands() {
    static const std::map<QString, Command> table{
        {QStringLiteral("call"), CallCommand::run},
        {QStringLiteral("pair"), StateCommands::pair},
        {QStringLiteral("unpair"), StateCommands::unpair},
        {QStringLiteral("status"), StateCommands::status},
        {QStringLiteral("folders"), StateCommands::folders},
        {QStringLiteral("approval"), StateCommands::approval},
        {QStringLiteral("pause"), StateCommands::pause},
        {QStringLiteral("resume"), StateCommands::resume},
        {QStringLiteral("activity"), StateCommands::activity},
        {QStringLiteral("history"), HistoryCommands::history},
        {QStringLiteral("restore"), HistoryCommands::restore},
        {QStringLiteral("mcp"), McpCommand::run},
        {QStringLiteral("autostart"), AutostartCommand::run},
    };
    return table;
}

QString helpText() {
    return QStringLiteral(
               "Usage: quillmar-companion [--headless]\n"
               "       quillmar-companion COMMAND [ARGUMENTS]\n"
               "\n"
               "Lets the agents of the Quillmar service reach files in the folders you share,\n"
               "and nowhere else.\n"
               "\n"
               "Without a command the companion starts and keeps its connection to the service:\n"
               "in the system tray, or without tray and window with --headless.\n"
               "\n"
               "Commands:\n"
               "  pair CODE             pair this computer with a code from the web app\n"
               "  unpair                forget the pairing (the shared folders are kept)\n"
               "  status                pairing, service, approval setting and shared folders\n"
               "  folders               list the shared folders, one \"NAME<TAB>PATH<TAB>ACCESS\"\n"
               "                        per line (ACCESS: read-write or read-only)\n"
               "  folders add PATH [--read-only]\n"
               "                        share a folder; prints the name agents use for it\n"
               "  folders remove NAME   stop sharing the first folder of that name\n"
               "  folders access NAME read-only|read-write\n"
               "                        let agents only read that folder, or also write it\n"
               "  approval on|off       ask before each agent write (on), or not (off)\n"
               "  pause                 close the connection until resume (kept across restarts)\n"
               "  resume                let agents reach the shared folders again\n"
               "  activity              the running companion's recent agent calls, newest first\n"
               "  history               agent writes that can be undone: ID, time, path, size\n"
               "  restore ID            put a file back as it was before that write (or remove\n"
               "                        the file the write created)\n"
               "  autostart on|off      start the companion when you log in, or not\n"
               "  mcp                   serve the shared folders to agents on this computer\n"
               "                        (Model Context Protocol on standard input and output)\n"
               "  call METHOD [PARAMS_JSON] [--folder NAME=PATH]...\n"
               "       [--read-only-folder NAME=PATH]... [--yes]\n"
               "                        run one tool call as an agent would; prints the result\n"
               "\n"
               "Options:\n"
               "  --headless            run without tray or window until interrupted\n"
               "  -h, --help            show this help\n"
               "  -V, --version         show the version\n"
               "\n"
               "Environment:\n"
               "  QUILLMAR_API          the service's address (default ") +
           AppState::defaultApiBase() +
           QStringLiteral(")\n"
                          "  QUILLMAR_KERNEL_CONFINEMENT=off\n"
                          "                        run the file tools without the kernel's "
                          "confinement\n"
                          "  QUILLMAR_VERSION_BUDGET=BYTES\n"
                          "                        how much of what agents' writes replace to "
                          "keep (default 1 GiB)\n");
}

} // namespace

int CommandLine::run(int argc, char* argv[]) {
    QStringList arguments;
    for (int i = 1; i < argc; ++i) {
        arguments.append(QString::fromLocal8Bit(argv[i]));
    }
    // Without arguments: the desktop companion, which makes its own QApplication.
    if (arguments.isEmpty()) {
        return DesktopApp::run(argc, argv, [] {
            return std::make_unique<WindowPresenterFor<OnboardingWindowController>>();
        });
    }

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(AppIdentity::id());
    QCoreApplication::setApplicationVersion(QStringLiteral(QUILLMAR_VERSION));
    QTextStream out(stdout);
    QTextStream err(stderr);

    // "COMMAND --help" and "help" show the help, whatever the command would make of the word.
    if (!arguments.isEmpty() &&
        (arguments.front() == u"help" || arguments.contains(QStringLiteral("--help")) ||
         arguments.contains(QStringLiteral("-h")))) {
        out << helpText() << Qt::flush;
        return out.status() == QTextStream::Ok ? 0 : 1;
    }
    if (!arguments.isEmpty()) {
        const auto command = commands().find(arguments.front());
        if (command != commands().end()) {
            return command->second(arguments.mid(1), out, err);
        }
    }

    bool headless = false;
    for (const QString& argument : std::as_const(arguments)) {
        if (argument == u"--help" || argument == u"-h") {
            out << helpText() << Qt::flush;
            return 0;
        }
        if (argument == u"--version" || argument == u"-v" || argument == u"-V") {
            out << "quillmar-companion " << QCoreApplication::applicationVersion() << "\n"
                << Qt::flush;
            return out.status() == QTextStream::Ok ? 0 : 1;
        }
        if (argument == u"--headless") {
            headless = true;
            continue;
        }
        const QString what = argument.startsWith(u'-') ? QStringLiteral("unknown option")
                                                       : QStringLiteral("unknown command");
        err << "quillmar-companion: " << what << " '" << argument
            << "'. See quillmar-companion --help.\n"
            << Qt::flush;
        return 2;
    }
    Q_ASSERT(headless);
    return HeadlessRunner::run(out, err);
}
