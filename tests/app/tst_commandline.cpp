// The companion's command line as a person uses it: the real executable, a throwaway home for
// each case, and for the write question a real terminal.

#include "CommandRun.h"
#include "CompanionSandbox.h"
#include "PtyProcess.h"
#include "TempTree.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

namespace {

const QString companionBin = QStringLiteral(QUILLMAR_COMPANION_BIN);
const QString testApi = QStringLiteral("http://127.0.0.1:9");
const QByteArray declined = "{\"error\":\"Write was declined on the user's computer.\"}\n";

CommandRun run(const CompanionSandbox& sandbox, const QStringList& arguments) {
    return CommandRun::run(companionBin, arguments, sandbox.environment());
}

QByteArray fileBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

QStringList args(std::initializer_list<const char*> words) {
    QStringList list;
    for (const char* word : words) {
        list.append(QString::fromUtf8(word));
    }
    return list;
}

} // namespace

class CommandLineTest : public QObject {
    Q_OBJECT

    TempTree tree;
    std::unique_ptr<CompanionSandbox> sandbox;

    CommandRun companion(const QStringList& arguments) const { return run(*sandbox, arguments); }

    QStringList writeCall(const QString& name, const QStringList& extra = {}) const {
        return QStringList{QStringLiteral("call"), QStringLiteral("local_write_file"),
                           QStringLiteral(R"({"path":"Docs/%1","content":"hi"})").arg(name)} +
               extra;
    }

private slots:
    void init() {
        sandbox = std::make_unique<CompanionSandbox>();
        QVERIFY(sandbox->isValid());
        sandbox->setApiBase(testApi);
        tree.dir(QStringLiteral("Docs"));
        tree.dir(QStringLiteral("Other/Docs"));
        tree.file(QStringLiteral("plain.txt"), "x");
    }

    void cleanup() { sandbox.reset(); }

    void helpMentionsEveryCommand_data() {
        QTest::addColumn<QString>("option");
        QTest::newRow("long") << QStringLiteral("--help");
        QTest::newRow("short") << QStringLiteral("-h");
    }
    void helpMentionsEveryCommand() {
        QFETCH(QString, option);
        const CommandRun r = companion({option});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.err, QByteArray());
        const QString help = QString::fromUtf8(r.out);
        for (const char* mention : {"pair CODE",
                                    "unpair",
                                    "status",
                                    "folders",
                                    "folders add PATH",
                                    "folders remove NAME",
                                    "folders access NAME read-only|read-write",
                                    "--read-only",
                                    "approval on|off",
                                    "pause",
                                    "resume",
                                    "activity",
                                    "history",
                                    "restore ID",
                                    "autostart on|off",
                                    "call METHOD",
                                    "--folder NAME=PATH",
                                    "--read-only-folder NAME=PATH",
                                    "--yes",
                                    "--headless",
                                    "--help",
                                    "--version",
                                    "QUILLMAR_API"}) {
            QVERIFY2(help.contains(QString::fromUtf8(mention)), mention);
        }
    }

    void versionIsOneLine_data() {
        QTest::addColumn<QString>("option");
        QTest::newRow("long") << QStringLiteral("--version");
        QTest::newRow("short") << QStringLiteral("-v");
    }
    void versionIsOneLine() {
        QFETCH(QString, option);
        const CommandRun r = companion({option});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, QByteArray("quillmar-companion 0.1.0\n"));
        QCOMPARE(r.err, QByteArray());
    }

    void unknownWordsAreBadUsage_data() {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("named");
        QTest::newRow("option") << args({"--frobnicate"}) << QStringLiteral("--frobnicate");
        QTest::newRow("command") << args({"frobnicate"}) << QStringLiteral("frobnicate");
        QTest::newRow("after --headless")
            << args({"--headless", "--fast"}) << QStringLiteral("--fast");
        QTest::newRow("command after an option")
            << args({"--headless", "pair"}) << QStringLiteral("pair");
    }
    void unknownWordsAreBadUsage() {
        QFETCH(QStringList, arguments);
        QFETCH(QString, named);
        const CommandRun r = companion(arguments);
        QCOMPARE(r.exitCode, 2);
        QCOMPARE(r.out, QByteArray());
        QCOMPARE(r.err.count('\n'), 1);
        QVERIFY(r.err.endsWith('\n'));
        QVERIFY2(QString::fromUtf8(r.err).contains(named), r.err.constData());
    }

    void commandUsageErrors_data() {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("pair without code") << args({"pair"});
        QTest::newRow("pair with two codes") << args({"pair", "AAAA1111", "BBBB2222"});
        QTest::newRow("unpair with argument") << args({"unpair", "now"});
        QTest::newRow("status with argument") << args({"status", "-v"});
        QTest::newRow("folders with one word") << args({"folders", "add"});
        QTest::newRow("folders remove without name") << args({"folders", "remove"});
        QTest::newRow("folders add with two paths") << args({"folders", "add", "/tmp", "/var"});
        QTest::newRow("folders unknown action") << args({"folders", "share", "/tmp"});
        QTest::newRow("approval without value") << args({"approval"});
        QTest::newRow("approval maybe") << args({"approval", "maybe"});
        QTest::newRow("approval twice") << args({"approval", "on", "off"});
        QTest::newRow("approval capitalised") << args({"approval", "ON"});
        QTest::newRow("autostart maybe") << args({"autostart", "maybe"});
        QTest::newRow("call with bad json") << args({"call", "local_list_files", "{"});
    }
    void commandUsageErrors() {
        QFETCH(QStringList, arguments);
        const CommandRun r = companion(arguments);
        QCOMPARE(r.exitCode, 2);
        QCOMPARE(r.out, QByteArray());
        QCOMPARE(r.err.count('\n'), 1);
        // Bad usage changes nothing.
        QVERIFY(!QFile::exists(sandbox->settingsFile()));
        QCOMPARE(companion({QStringLiteral("folders")}).out, QByteArray());
    }

    void usageErrorsSayWhatWasWrong_data() {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("message");
        QTest::newRow("missing argument")
            << args({"pair"})
            << QStringLiteral("quillmar-companion pair: CODE is missing. See quillmar-companion "
                              "pair --help.\n");
        QTest::newRow("extra argument")
            << args({"restore", "a", "b"})
            << QStringLiteral("quillmar-companion restore: unexpected argument 'b'. See "
                              "quillmar-companion restore --help.\n");
        QTest::newRow("not a choice")
            << args({"folders", "access", "Docs", "writable"})
            << QStringLiteral("quillmar-companion folders access: expected "
                              "read-only|read-write, got 'writable'. See quillmar-companion "
                              "folders access --help.\n");
        QTest::newRow("unknown action")
            << args({"folders", "share", "/tmp"})
            << QStringLiteral("quillmar-companion folders: unknown action 'share' (add, remove, "
                              "access). See quillmar-companion folders --help.\n");
        QTest::newRow("option of another command")
            << args({"folders", "remove", "Docs", "--read-only"})
            << QStringLiteral("quillmar-companion folders remove: unknown option '--read-only'. "
                              "See quillmar-companion folders remove --help.\n");
        QTest::newRow("option without its value")
            << args({"call", "local_list_files", "--read-only-folder"})
            << QStringLiteral("quillmar-companion call: missing value after "
                              "'--read-only-folder'. See quillmar-companion call --help.\n");
        QTest::newRow("help for an unknown command")
            << args({"help", "frobnicate"})
            << QStringLiteral("quillmar-companion: no help for 'frobnicate'. See "
                              "quillmar-companion --help.\n");
    }
    void usageErrorsSayWhatWasWrong() {
        QFETCH(QStringList, arguments);
        QFETCH(QString, message);
        const CommandRun r = companion(arguments);
        QCOMPARE(r.exitCode, 2);
        QCOMPARE(r.out, QByteArray());
        QCOMPARE(QString::fromUtf8(r.err), message);
    }

    void commandHelpShowsItsOwnUsage_data() {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("usage");
        QTest::addColumn<QString>("mention");
        QTest::newRow("pair --help")
            << args({"pair", "--help"}) << QStringLiteral("pair CODE\n") << QStringLiteral("CODE");
        QTest::newRow("folders add -h")
            << args({"folders", "add", "-h"}) << QStringLiteral("folders add PATH [--read-only]\n")
            << QStringLiteral("--read-only");
        QTest::newRow("help approval")
            << args({"help", "approval"}) << QStringLiteral("approval on|off\n")
            << QStringLiteral("on|off");
        QTest::newRow("folders --help")
            << args({"folders", "--help"}) << QStringLiteral("folders\n")
            << QStringLiteral("quillmar-companion folders access NAME read-only|read-write\n");
        QTest::newRow("after the call's arguments")
            << args({"call", "local_list_files", "{}", "--help"})
            << QStringLiteral("call METHOD [PARAMS_JSON] [--folder NAME=PATH]...\n")
            << QStringLiteral("--read-only-folder NAME=PATH");
    }
    void commandHelpShowsItsOwnUsage() {
        QFETCH(QStringList, arguments);
        QFETCH(QString, usage);
        QFETCH(QString, mention);
        const CommandRun r = companion(arguments);
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.err, QByteArray());
        const QString help = QString::fromUtf8(r.out);
        QVERIFY2(help.startsWith(QStringLiteral("Usage: quillmar-companion ") + usage),
                 qPrintable(help));
        QVERIFY2(help.contains(mention), qPrintable(help));
        QVERIFY2(help.contains(QStringLiteral("-h, --help")), qPrintable(help));
        // The command's help, not the overview.
        QVERIFY2(!help.contains(QStringLiteral("QUILLMAR_API")), qPrintable(help));
    }

    void callWithoutMethodIsBadUsage() {
        const CommandRun r = companion({QStringLiteral("call")});
        QCOMPARE(r.exitCode, 2);
        QCOMPARE(r.out, QByteArray());
        QVERIFY(r.err.contains("METHOD"));
    }

    void addingWhatIsNotAFolderFails_data() {
        QTest::addColumn<QString>("relative");
        QTest::addColumn<QString>("reason");
        QTest::newRow("missing") << QStringLiteral("nope") << QStringLiteral("does not exist.");
        QTest::newRow("file") << QStringLiteral("plain.txt") << QStringLiteral("is not a folder.");
    }
    void addingWhatIsNotAFolderFails() {
        QFETCH(QString, relative);
        QFETCH(QString, reason);
        const QString path = tree.path(relative);
        const CommandRun r = companion({QStringLiteral("folders"), QStringLiteral("add"), path});
        QCOMPARE(r.exitCode, 1);
        QCOMPARE(r.out, QByteArray());
        QCOMPARE(QString::fromUtf8(r.err),
                 QStringLiteral("quillmar-companion: %1 %2\n").arg(path, reason));
        QCOMPARE(companion({QStringLiteral("folders")}).out, QByteArray());
    }

    void foldersAreListedAddedAndRemovedInOrder() {
        const QString docs = tree.path(QStringLiteral("Docs"));
        const QString otherDocs = tree.path(QStringLiteral("Other/Docs"));
        CommandRun r = companion({QStringLiteral("folders"), QStringLiteral("add"), docs});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, QByteArray("Docs\n"));
        // The same name again gets a number; a relative path is taken from the current folder.
        r = CommandRun::run(companionBin, args({"folders", "add", "Other/Docs/"}),
                            sandbox->environment(), tree.path());
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, QByteArray("Docs 2\n"));
        r = companion({QStringLiteral("folders"), QStringLiteral("add"), docs});
        QCOMPARE(r.out, QByteArray("Docs 3\n"));

        r = companion({QStringLiteral("folders")});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(
            QString::fromUtf8(r.out),
            QStringLiteral("Docs\t%1\tread-write\nDocs 2\t%2\tread-write\nDocs 3\t%1\tread-write\n")
                .arg(docs, otherDocs));

        r = companion(args({"folders", "remove", "Docs 2"}));
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, QByteArray("Stopped sharing Docs 2\n"));
        r = companion(args({"folders", "remove", "Unknown"}));
        QCOMPARE(r.exitCode, 1);
        QCOMPARE(r.out, QByteArray());
        QCOMPARE(r.err, QByteArray("quillmar-companion: No shared folder named 'Unknown'.\n"));

        r = companion({QStringLiteral("folders")});
        QCOMPARE(QString::fromUtf8(r.out),
                 QStringLiteral("Docs\t%1\tread-write\nDocs 3\t%1\tread-write\n").arg(docs));
    }

    void statusShowsPairingApiApprovalAndFolders() {
        CommandRun r = companion({QStringLiteral("status")});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.err, QByteArray());
        QCOMPARE(QString::fromUtf8(r.out), QStringLiteral("Paired: no\n"
                                                          "Running: no\n"
                                                          "API: http://127.0.0.1:9\n"
                                                          "Ask before writing files: on\n"
                                                          "File access: confined by the kernel\n"
                                                          "Shared folders: 0\n"));

        const QString docs = tree.path(QStringLiteral("Docs"));
        QCOMPARE(companion({QStringLiteral("folders"), QStringLiteral("add"), docs}).exitCode, 0);
        r = companion(args({"approval", "off"}));
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, QByteArray("Ask before writing files: off\n"));

        // A token left by an earlier pairing (no secret service here: the file) counts as
        // paired; the token itself is never shown.
        const QByteArray token = "cli-status-token-7f3a9c";
        QVERIFY(QDir().mkpath(QFileInfo(sandbox->tokenFile()).path()));
        QFile::setPermissions(QFileInfo(sandbox->tokenFile()).path(),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QFile tokenFile(sandbox->tokenFile());
        QVERIFY(tokenFile.open(QIODevice::WriteOnly));
        tokenFile.write(token);
        tokenFile.close();
        QVERIFY(tokenFile.setPermissions(QFile::ReadOwner | QFile::WriteOwner));

        r = companion({QStringLiteral("status")});
        QCOMPARE(r.exitCode, 0);
        QVERIFY(!r.out.contains(token) && !r.err.contains(token));
        QCOMPARE(QString::fromUtf8(r.out), QStringLiteral("Paired: yes\n"
                                                          "Running: no\n"
                                                          "API: http://127.0.0.1:9\n"
                                                          "Ask before writing files: off\n"
                                                          "File access: confined by the kernel\n"
                                                          "Shared folders: 1\n"
                                                          "  Docs\t%1\tread-write\n")
                                               .arg(docs));

        r = companion({QStringLiteral("unpair")});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, QByteArray("Unpaired\n"));
        QVERIFY(!r.err.contains(token));
        QVERIFY(!QFile::exists(sandbox->tokenFile()));
        r = companion({QStringLiteral("status")});
        QVERIFY(r.out.startsWith("Paired: no\n"));
        QVERIFY(r.out.contains("Shared folders: 1\n"));
        r = companion({QStringLiteral("unpair")});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, QByteArray("Not paired\n"));

        r = companion(args({"approval", "on"}));
        QCOMPARE(r.out, QByteArray("Ask before writing files: on\n"));
        QVERIFY(
            companion({QStringLiteral("status")}).out.contains("Ask before writing files: on\n"));
    }

    void statusWithoutApiVariableShowsTheBuiltInService() {
        sandbox->setApiBase(QString());
        const CommandRun r = companion({QStringLiteral("status")});
        QCOMPARE(r.exitCode, 0);
        const QList<QByteArray> lines = r.out.split('\n');
        QCOMPARE(lines.size(), 7);
        QVERIFY2(lines[2].startsWith("API: https://") && !lines[2].endsWith('/'),
                 lines[2].constData());
    }

    void autostartWritesAndRemovesTheEntry() {
        const QString entry =
            sandbox->configHome() + QStringLiteral("/autostart/app.quillmar.companion.desktop");
        CommandRun r = companion(args({"autostart", "on"}));
        QCOMPARE(r.exitCode, 0);
        const QString executable = QFileInfo(companionBin).canonicalFilePath();
        QVERIFY(fileBytes(entry).contains("\nExec=" + executable.toUtf8() + '\n'));
        r = companion(args({"autostart", "off"}));
        QCOMPARE(r.exitCode, 0);
        QVERIFY(!QFile::exists(entry));
    }

    void callWritesWithYes() {
        const QString docs = tree.path(QStringLiteral("Docs"));
        const CommandRun r = companion(writeCall(
            QStringLiteral("yes.txt"),
            {QStringLiteral("--folder"), QStringLiteral("Docs=") + docs, QStringLiteral("--yes")}));
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, QByteArray(R"({"bytes":2,"path":"Docs/yes.txt","success":true})"
                                   "\n"));
        QCOMPARE(fileBytes(docs + QStringLiteral("/yes.txt")), QByteArray("hi"));
    }

    void callWritesToSavedFolderWhenApprovalIsOff() {
        const QString docs = tree.path(QStringLiteral("Docs"));
        QCOMPARE(companion({QStringLiteral("folders"), QStringLiteral("add"), docs}).exitCode, 0);
        QCOMPARE(companion(args({"approval", "off"})).exitCode, 0);
        const CommandRun r = companion(writeCall(QStringLiteral("off.txt")));
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, QByteArray(R"({"bytes":2,"path":"Docs/off.txt","success":true})"
                                   "\n"));
        QCOMPARE(fileBytes(docs + QStringLiteral("/off.txt")), QByteArray("hi"));
    }

    void callWithoutTerminalRefusesWhenApprovalIsOn() {
        const QString docs = tree.path(QStringLiteral("Docs"));
        tree.file(QStringLiteral("Docs/kept.txt"), "old");
        const CommandRun r =
            companion(writeCall(QStringLiteral("kept.txt"),
                                {QStringLiteral("--folder"), QStringLiteral("Docs=") + docs}));
        QCOMPARE(r.exitCode, 1);
        QCOMPARE(r.out, declined);
        QCOMPARE(fileBytes(docs + QStringLiteral("/kept.txt")), QByteArray("old"));

        // The setting stored as on is the same as the default.
        QCOMPARE(companion(args({"approval", "on"})).exitCode, 0);
        const CommandRun again =
            companion(writeCall(QStringLiteral("new.txt"),
                                {QStringLiteral("--folder"), QStringLiteral("Docs=") + docs}));
        QCOMPARE(again.out, declined);
        QVERIFY(!QFile::exists(docs + QStringLiteral("/new.txt")));
    }

    void callAsksOnTheTerminal_data() {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<bool>("written");
        QTest::newRow("y") << QByteArray("y\n") << true;
        QTest::newRow("yes") << QByteArray("yes\n") << true;
        QTest::newRow("n") << QByteArray("n\n") << false;
        QTest::newRow("empty line") << QByteArray("\n") << false;
        QTest::newRow("end of input") << QByteArray("\x04") << false;
    }
    void callAsksOnTheTerminal() {
        QFETCH(QByteArray, answer);
        QFETCH(bool, written);
        const QString docs = tree.path(QStringLiteral("Docs"));
        const QString name =
            QStringLiteral("tty-%1.txt")
                .arg(QString::fromLatin1(QTest::currentDataTag()).replace(u' ', u'-'));
        const QString target = docs + u'/' + name;
        QFile::remove(target);

        PtyProcess terminal;
        QVERIFY(terminal.start(
            companionBin,
            writeCall(name, {QStringLiteral("--folder"), QStringLiteral("Docs=") + docs}),
            sandbox->environment()));
        const QByteArray question = "Allow agent to write a file?\n"
                                    "An agent wants to write 2 bytes to:\n"
                                    "Docs/" +
                                    name.toUtf8() + "\n";
        QVERIFY2(terminal.waitForOutput(question), terminal.output().constData());
        // Nothing is written before the answer.
        QVERIFY(!QFile::exists(target));
        QVERIFY(terminal.type(answer));
        const int exitCode = terminal.waitForExit();
        const QByteArray shown = terminal.output();
        if (written) {
            QCOMPARE(exitCode, 0);
            QVERIFY2(shown.endsWith(R"({"bytes":2,"path":"Docs/)" + name.toUtf8() +
                                    R"(","success":true})"
                                    "\n"),
                     shown.constData());
            QCOMPARE(fileBytes(target), QByteArray("hi"));
        } else {
            QCOMPARE(exitCode, 1);
            QVERIFY2(shown.endsWith(declined), shown.constData());
            QVERIFY(!QFile::exists(target));
        }
    }

    void typeAheadDoesNotAnswer_data() {
        QTest::addColumn<QByteArray>("typedBefore");
        QTest::addColumn<QByteArray>("typedAfter");
        QTest::addColumn<bool>("written");
        QTest::newRow("y, then end of input") << QByteArray("y\n") << QByteArray("\x04") << false;
        QTest::newRow("y, then n") << QByteArray("y\n") << QByteArray("n\n") << false;
        QTest::newRow("y, then y") << QByteArray("y\n") << QByteArray("y\n") << true;
        QTest::newRow("lines of yes, then end of input")
            << QByteArray("yes\ny\nyes\n") << QByteArray("\x04") << false;
        QTest::newRow("half a line, then its end") << QByteArray("y") << QByteArray("\n") << false;
        QTest::newRow("half a line, then y") << QByteArray("n") << QByteArray("y\n") << true;
    }
    void typeAheadDoesNotAnswer() {
        QFETCH(QByteArray, typedBefore);
        QFETCH(QByteArray, typedAfter);
        QFETCH(bool, written);
        const QString docs = tree.path(QStringLiteral("Docs"));
        const QString name =
            QStringLiteral("ahead-%1.txt")
                .arg(QString::fromLatin1(QTest::currentDataTag()).replace(u' ', u'-').remove(u','));
        const QString target = docs + u'/' + name;
        QFile::remove(target);

        PtyProcess terminal;
        // In the terminal before the companion even starts, let alone asks.
        QVERIFY(terminal.start(
            companionBin,
            writeCall(name, {QStringLiteral("--folder"), QStringLiteral("Docs=") + docs}),
            sandbox->environment(), typedBefore));
        const QByteArray question =
            "An agent wants to write 2 bytes to:\nDocs/" + name.toUtf8() + "\nAllow? [y/N] ";
        QVERIFY2(terminal.waitForOutput(question), terminal.output().constData());
        QVERIFY(terminal.output().startsWith(typedBefore));
        QVERIFY(!QFile::exists(target));
        QVERIFY(terminal.type(typedAfter));
        const int exitCode = terminal.waitForExit();
        const QByteArray shown = terminal.output();
        if (written) {
            QCOMPARE(exitCode, 0);
            QCOMPARE(fileBytes(target), QByteArray("hi"));
        } else {
            QCOMPARE(exitCode, 1);
            QVERIFY2(shown.endsWith(declined), shown.constData());
            QVERIFY(!QFile::exists(target));
        }
    }

    void aPathCannotDrawOnTheTerminal_data() {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<bool>("written");
        QTest::newRow("refused") << QByteArray("n\n") << false;
        QTest::newRow("allowed") << QByteArray("y\n") << true;
    }
    void aPathCannotDrawOnTheTerminal() {
        QFETCH(QByteArray, answer);
        QFETCH(bool, written);
        const QString docs = tree.path(QStringLiteral("Docs"));
        // Clears the screen, goes back to the start of the line and turns what follows around.
        const QString tag = QString::fromLatin1(QTest::currentDataTag());
        const QString name = QStringLiteral("\x1b[2J\x1b[H\rok-%1\u202etxt.exe").arg(tag);
        const QString target = docs + u'/' + name;
        QFile::remove(target);

        PtyProcess terminal;
        QVERIFY(terminal.start(
            companionBin,
            {QStringLiteral("call"), QStringLiteral("local_write_file"),
             QString::fromUtf8(
                 QJsonDocument(QJsonObject{{QStringLiteral("path"), QStringLiteral("Docs/") + name},
                                           {QStringLiteral("content"), QStringLiteral("hi")}})
                     .toJson(QJsonDocument::Compact)),
             QStringLiteral("--folder"), QStringLiteral("Docs=") + docs},
            sandbox->environment()));
        const QByteArray question = "Allow agent to write a file?\n"
                                    "An agent wants to write 2 bytes to:\n"
                                    "Docs/\u241b[2J\u241b[H\u240dok-" +
                                    tag.toUtf8() +
                                    "\u27e8U+202E\u27e9txt.exe\n"
                                    "Allow? [y/N] ";
        QVERIFY2(terminal.waitForOutput(question), terminal.output().constData());
        QVERIFY(terminal.type(answer));
        QCOMPARE(terminal.waitForExit(), written ? 0 : 1);
        const QByteArray shown = terminal.output();
        // Not one raw escape or carriage return anywhere, and nothing shown before the question.
        QVERIFY2(!shown.contains('\x1b'), shown.constData());
        QVERIFY2(!shown.contains('\r'), shown.constData());
        QVERIFY2(shown.startsWith(question), shown.constData());
        QCOMPARE(QFile::exists(target), written);
    }

    void yesSkipsTheQuestionOnATerminal() {
        const QString docs = tree.path(QStringLiteral("Docs"));
        PtyProcess terminal;
        QVERIFY(terminal.start(companionBin,
                               writeCall(QStringLiteral("tty-yes-flag.txt"),
                                         {QStringLiteral("--folder"),
                                          QStringLiteral("Docs=") + docs, QStringLiteral("--yes")}),
                               sandbox->environment()));
        QCOMPARE(terminal.waitForExit(), 0);
        QVERIFY(!terminal.output().contains("Allow agent to write a file?"));
        QCOMPARE(fileBytes(docs + QStringLiteral("/tty-yes-flag.txt")), QByteArray("hi"));
    }
};

QTEST_GUILESS_MAIN(CommandLineTest)
#include "tst_commandline.moc"
