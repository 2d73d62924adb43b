// The README's command table and the manual page against the companion's own help: every
// command form and option the help lists is documented in both, and neither documents one the
// help does not know.

#include "CommandRun.h"
#include "CompanionSandbox.h"

#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

namespace {

const QString companionBin = QStringLiteral(QUILLMAR_COMPANION_BIN);
const QString sourceDir = QStringLiteral(QUILLMAR_SOURCE_DIR);

QString fileText(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

// The lines of the section that starts with `title` and ends at the first empty line.
QStringList helpSection(const QString& help, const QString& title) {
    QStringList lines;
    bool inside = false;
    for (const QString& line : help.split(u'\n')) {
        if (inside && line.isEmpty()) {
            break;
        }
        if (inside) {
            lines.append(line);
        }
        inside = inside || line == title;
    }
    return lines;
}

// An entry's term starts at column 2 and may go on at column 6; its description sits beside it
// (after two blanks at least) or below, at column 24.
QStringList helpTerms(const QStringList& section) {
    QStringList terms;
    for (const QString& line : section) {
        qsizetype indent = 0;
        while (indent < line.size() && line[indent] == u' ') {
            ++indent;
        }
        const QString term = line.trimmed().section(QStringLiteral("  "), 0, 0);
        if (indent == 2) {
            terms.append(term);
        } else if (indent == 6 && !terms.isEmpty()) {
            terms.last() += u' ' + term;
        }
    }
    return terms;
}

// "-h, --help" and "--folder NAME=PATH" as option names alone.
QSet<QString> optionNames(const QStringList& terms) {
    QSet<QString> names;
    for (const QString& term : terms) {
        for (const QString& name : term.split(QStringLiteral(", "))) {
            names.insert(name.section(u' ', 0, 0));
        }
    }
    return names;
}

QSet<QString> longOptionsIn(const QString& text) {
    QSet<QString> options;
    static const QRegularExpression option(QStringLiteral("(?<![\\w-])--[a-z][a-z-]*"));
    for (const QRegularExpressionMatch& match : option.globalMatch(text)) {
        options.insert(match.captured());
    }
    return options;
}

// The words that name a command in its synopsis: "folders add" of "folders add PATH".
QString commandPath(const QString& synopsis) {
    QStringList words;
    for (const QString& word : synopsis.split(u' ')) {
        if (word.contains(QRegularExpression(QStringLiteral("[^a-z]")))) {
            break;
        }
        words.append(word);
    }
    return words.join(u' ');
}

// The text a man page's macro line shows: ".BR \-h ", " \-\-help" is "-h, --help".
QString troffText(const QString& line) {
    static const QRegularExpression token(QStringLiteral("\"([^\"]*)\"|(\\S+)"));
    const QString macro = line.section(u' ', 0, 0);
    QStringList parts;
    for (const QRegularExpressionMatch& match : token.globalMatch(line.section(u' ', 1))) {
        parts.append(match.captured(1).isNull() ? match.captured(2) : match.captured(1));
    }
    // .B and .I set their words apart; the alternating fonts (.BI, .BR, ...) join them.
    QString text = parts.join(macro == u".B" || macro == u".I" ? QStringLiteral(" ") : QString());
    text.remove(QRegularExpression(QStringLiteral("\\\\f[BIRP]")));
    text.replace(QStringLiteral("\\-"), QStringLiteral("-"));
    return text.trimmed();
}

// The lines of a man page section, from its .SH to the next.
QStringList manSection(const QString& page, const QString& name) {
    QStringList lines;
    bool inside = false;
    for (const QString& line : page.split(u'\n')) {
        if (line.startsWith(QStringLiteral(".SH "))) {
            if (inside) {
                break;
            }
            inside = line == QStringLiteral(".SH ") + name;
            continue;
        }
        if (inside) {
            lines.append(line);
        }
    }
    return lines;
}

// What each .TP names: the line after it.
QStringList manTerms(const QStringList& section) {
    QStringList terms;
    for (qsizetype i = 0; i + 1 < section.size(); ++i) {
        if (section[i] == u".TP") {
            terms.append(troffText(section[i + 1]));
        }
    }
    return terms;
}

QSet<QString> longOnly(const QSet<QString>& names) {
    QSet<QString> result;
    for (const QString& name : names) {
        if (name.startsWith(QStringLiteral("--"))) {
            result.insert(name);
        }
    }
    return result;
}

QString describe(const QSet<QString>& set) {
    QStringList list(set.begin(), set.end());
    list.sort();
    return list.join(QStringLiteral(" / "));
}

} // namespace

class CommandDocsTest : public QObject {
    Q_OBJECT

    CompanionSandbox sandbox;
    QSet<QString> synopses;
    QSet<QString> topOptions;
    // Every option of every command, and of the program itself.
    QSet<QString> allOptions;
    QString readmeTable;
    QString manPage;

    void compare(const QSet<QString>& documented, const QSet<QString>& known,
                 const char* where) const {
        const QSet<QString> missing = known - documented;
        const QSet<QString> unknown = documented - known;
        QVERIFY2(
            missing.isEmpty(),
            qPrintable(
                QStringLiteral("%1 lacks: %2").arg(QString::fromUtf8(where), describe(missing))));
        QVERIFY2(unknown.isEmpty(),
                 qPrintable(QStringLiteral("%1 has what the help does not know: %2")
                                .arg(QString::fromUtf8(where), describe(unknown))));
    }

private slots:
    void initTestCase() {
        QVERIFY(sandbox.isValid());
        const CommandRun help =
            CommandRun::run(companionBin, {QStringLiteral("--help")}, sandbox.environment());
        QCOMPARE(help.exitCode, 0);
        const QString text = QString::fromUtf8(help.out);
        const QStringList commands = helpTerms(helpSection(text, QStringLiteral("Commands:")));
        synopses = QSet<QString>(commands.begin(), commands.end());
        topOptions = optionNames(helpTerms(helpSection(text, QStringLiteral("Options:"))));
        QVERIFY2(synopses.size() >= 10, qPrintable(text));
        QVERIFY(topOptions.contains(QStringLiteral("--headless")));

        allOptions = topOptions;
        for (const QString& synopsis : std::as_const(synopses)) {
            const QString path = commandPath(synopsis);
            QVERIFY2(!path.isEmpty(), qPrintable(synopsis));
            const CommandRun own = CommandRun::run(
                companionBin, path.split(u' ') + QStringList{QStringLiteral("--help")},
                sandbox.environment());
            QCOMPARE(own.exitCode, 0);
            const QString ownHelp = QString::fromUtf8(own.out);
            QVERIFY2(ownHelp.startsWith(QStringLiteral("Usage: quillmar-companion ") + path),
                     qPrintable(ownHelp));
            allOptions += optionNames(helpTerms(helpSection(ownHelp, QStringLiteral("Options:"))));
        }
        QVERIFY(allOptions.contains(QStringLiteral("--read-only-folder")));

        const QString readme = fileText(sourceDir + QStringLiteral("/README.md"));
        const qsizetype section =
            readme.indexOf(QStringLiteral("\n## Pairing and sharing from the command line\n"));
        QVERIFY(section >= 0);
        QStringList rows;
        for (const QString& line : readme.mid(section).split(u'\n')) {
            if (line.startsWith(u'|')) {
                rows.append(line);
            } else if (!rows.isEmpty()) {
                break;
            }
        }
        readmeTable = rows.join(u'\n');
        QVERIFY(rows.size() > 2);

        manPage = fileText(sourceDir + QStringLiteral("/packaging/quillmar-companion.1"));
        QVERIFY(!manPage.isEmpty());
    }

    void readmeTableHasEveryCommandAndOption() {
        QSet<QString> documented;
        static const QRegularExpression quoted(QStringLiteral("`([^`]+)`"));
        for (const QString& row : readmeTable.split(u'\n').mid(2)) {
            // The first cell, with its escaped bars ("on\|off") read as bars.
            QString cell = row.mid(1);
            cell.replace(QStringLiteral("\\|"), QStringLiteral("\x01"));
            cell = cell.section(u'|', 0, 0).replace(u'\x01', u'|');
            for (const QRegularExpressionMatch& match : quoted.globalMatch(cell)) {
                documented.insert(match.captured(1));
            }
        }
        compare(documented, synopses + topOptions, "README's command table");
    }

    void readmeTableMentionsOnlyKnownOptions() {
        const QSet<QString> mentioned = longOptionsIn(readmeTable);
        compare(mentioned, longOnly(allOptions), "README's command table");
    }

    void manPageHasEveryCommand() {
        const QStringList terms = manTerms(manSection(manPage, QStringLiteral("COMMANDS")));
        compare(QSet<QString>(terms.begin(), terms.end()), synopses, "man page's COMMANDS");
    }

    void manPageHasEveryOption() {
        compare(optionNames(manTerms(manSection(manPage, QStringLiteral("OPTIONS")))), topOptions,
                "man page's OPTIONS");
    }

    void manPageMentionsOnlyKnownOptions() {
        QString text = manSection(manPage, QStringLiteral("COMMANDS")).join(u'\n') + u'\n' +
                       manSection(manPage, QStringLiteral("OPTIONS")).join(u'\n');
        text.remove(QRegularExpression(QStringLiteral("\\\\f[BIRP]")));
        text.replace(QStringLiteral("\\-"), QStringLiteral("-"));
        const QSet<QString> mentioned = longOptionsIn(text);
        compare(mentioned, longOnly(allOptions), "man page's COMMANDS and OPTIONS");
    }
};

QTEST_GUILESS_MAIN(CommandDocsTest)
#include "tst_commanddocs.moc"
