#include "DescriptorLimit.h"
#include "FileSearcher.h"
#include "TempTree.h"
#include "ToolCall.h"
#include "ToolError.h"
#include "Unprivileged.h"

#include <QFile>
#include <QJsonArray>
#include <QSet>
#include <QTest>

#include <dirent.h>
#include <sys/stat.h>

namespace {

QJsonObject searchCall(const QJsonObject& params, const QList<SharedFolder>& folders) {
    return ToolCall::run(QStringLiteral("local_search_files"), params, folders);
}

QJsonObject searchCall(const QString& query, const QList<SharedFolder>& folders,
                       const QJsonValue& maxResults = QJsonValue::Undefined) {
    QJsonObject params{{QStringLiteral("query"), query}};
    if (!maxResults.isUndefined()) {
        params.insert(QStringLiteral("max_results"), maxResults);
    }
    return searchCall(params, folders);
}

QJsonObject found(const QString& query, const QStringList& matches) {
    return QJsonObject{{QStringLiteral("query"), query},
                       {QStringLiteral("matches"), QJsonArray::fromStringList(matches)},
                       {QStringLiteral("count"), matches.size()}};
}

QStringList matchesOf(const QJsonObject& result) {
    QStringList matches;
    for (const QJsonValue& match : result.value(QStringLiteral("matches")).toArray()) {
        matches.append(match.toString());
    }
    return matches;
}

QSet<QString> setOf(const QStringList& list) {
    return QSet<QString>(list.begin(), list.end());
}

// The regular files below `directory`, depth first, each directory's entries in the order
// the directory itself delivers them; directories are entered where they occur.
void walk(const QString& directory, const QString& prefix, QStringList& out) {
    DIR* dir = ::opendir(QFile::encodeName(directory).constData());
    if (!dir) {
        return;
    }
    QStringList names;
    while (const dirent* entry = ::readdir(dir)) {
        const QString name = QFile::decodeName(entry->d_name);
        if (name != u"." && name != u"..") {
            names.append(name);
        }
    }
    ::closedir(dir);
    for (const QString& name : names) {
        struct stat info {};
        if (::lstat(QFile::encodeName(directory + u'/' + name).constData(), &info) != 0) {
            continue;
        }
        if (S_ISDIR(info.st_mode)) {
            walk(directory + u'/' + name, prefix + name + u'/', out);
        } else if (S_ISREG(info.st_mode)) {
            out.append(prefix + name);
        }
    }
}

// Depth first means that whatever lies below one directory is found in one stretch.
bool eachDirectoryIsOneStretch(const QStringList& matches) {
    QSet<QString> finished;
    QStringList open; // the directories of the previous match, outermost first
    for (const QString& match : matches) {
        QStringList directories;
        const QStringList parts = match.split(u'/');
        for (qsizetype i = 1; i < parts.size(); ++i) {
            directories.append(parts.mid(0, i).join(u'/'));
        }
        for (const QString& left : open) {
            if (!directories.contains(left)) {
                finished.insert(left);
            }
        }
        for (const QString& directory : directories) {
            if (finished.contains(directory)) {
                return false;
            }
        }
        open = directories;
    }
    return true;
}

} // namespace

class FileSearcherTest : public QObject {
    Q_OBJECT

private:
    static QList<SharedFolder> docs(const TempTree& tree) {
        return {ToolCall::folder(QStringLiteral("Docs"), tree.path(QStringLiteral("docs")))};
    }

private slots:
    void fragmentIgnoresCase() {
        TempTree tree;
        tree.file(QStringLiteral("docs/2024/annual-report.pdf"));
        tree.file(QStringLiteral("docs/unrelated.txt"));
        QCOMPARE(searchCall(QStringLiteral("REPORT"), docs(tree)),
                 found(QStringLiteral("REPORT"), {QStringLiteral("Docs/2024/annual-report.pdf")}));
    }

    void fragmentLowerCasesBeyondAscii() {
        TempTree tree;
        tree.file(QStringLiteral("docs/\u00E9t\u00E9.txt"));              // été, precomposed
        tree.file(QStringLiteral("docs/notes e\u0301te\u0301.md"));       // été, decomposed
        tree.file(QStringLiteral("docs/\u03A3\u039F\u03A6\u0399\u0391")); // ΣΟΦΙΑ
        tree.file(QStringLiteral("docs/ete.txt"));
        const QJsonObject summer = searchCall(QStringLiteral("\u00C9T\u00C9"), docs(tree));
        QCOMPARE(setOf(matchesOf(summer)),
                 (QSet<QString>{QStringLiteral("Docs/\u00E9t\u00E9.txt"),
                                QStringLiteral("Docs/notes e\u0301te\u0301.md")}));
        QCOMPARE(searchCall(QStringLiteral("\u03C3\u03BF\u03C6"), docs(tree)),
                 found(QStringLiteral("\u03C3\u03BF\u03C6"),
                       {QStringLiteral("Docs/\u03A3\u039F\u03A6\u0399\u0391")}));
    }

    void namesOpenedByByteOrderMarkAreFoundUnderTheirRealPath() {
        const QString mark(QChar(0xfeff));
        TempTree tree;
        tree.file(QStringLiteral("docs/") + mark + QStringLiteral("top/plan.txt"));
        tree.file(QStringLiteral("docs/sub/") + mark + QStringLiteral("plan.md"));
        tree.file(QStringLiteral("docs/sub/other.md"));
        QCOMPARE(setOf(matchesOf(searchCall(QStringLiteral("plan"), docs(tree)))),
                 (QSet<QString>{QStringLiteral("Docs/") + mark + QStringLiteral("top/plan.txt"),
                                QStringLiteral("Docs/sub/") + mark + QStringLiteral("plan.md")}));
        QCOMPARE(searchCall(mark + QStringLiteral("plan*"), docs(tree)),
                 found(mark + QStringLiteral("plan*"),
                       {QStringLiteral("Docs/sub/") + mark + QStringLiteral("plan.md")}));
        QCOMPARE(searchCall(mark + QStringLiteral("PLAN"), docs(tree)),
                 found(mark + QStringLiteral("PLAN"),
                       {QStringLiteral("Docs/sub/") + mark + QStringLiteral("plan.md")}));
    }

    void wildcardIsCaseSensitiveAndMatchesTheWholeName() {
        TempTree tree;
        tree.file(QStringLiteral("docs/a.pdf"));
        tree.file(QStringLiteral("docs/a.pdf.bak"));
        QCOMPARE(searchCall(QStringLiteral("*.PDF"), docs(tree)),
                 found(QStringLiteral("*.PDF"), {}));
        QCOMPARE(searchCall(QStringLiteral("*.pdf"), docs(tree)),
                 found(QStringLiteral("*.pdf"), {QStringLiteral("Docs/a.pdf")}));
        QCOMPARE(searchCall(QStringLiteral("a.pd?"), docs(tree)),
                 found(QStringLiteral("a.pd?"), {QStringLiteral("Docs/a.pdf")}));
    }

    void characterClassSelectsNames() {
        TempTree tree;
        tree.file(QStringLiteral("docs/a.txt"));
        tree.file(QStringLiteral("docs/b.txt"));
        tree.file(QStringLiteral("docs/c.txt"));
        QCOMPARE(setOf(matchesOf(searchCall(QStringLiteral("[ab].txt"), docs(tree)))),
                 (QSet<QString>{QStringLiteral("Docs/a.txt"), QStringLiteral("Docs/b.txt")}));
        QCOMPARE(matchesOf(searchCall(QStringLiteral("[!ab].txt"), docs(tree))),
                 QStringList{QStringLiteral("Docs/c.txt")});
        // Only the three trigger characters switch to wildcards: "]" alone is a fragment.
        tree.file(QStringLiteral("docs/x].txt"));
        QCOMPARE(matchesOf(searchCall(QStringLiteral("X]"), docs(tree))),
                 QStringList{QStringLiteral("Docs/x].txt")});
    }

    void wildcardFindsHiddenFilesInHiddenDirectories() {
        TempTree tree;
        tree.file(QStringLiteral("docs/.hidden/.hidden.md"));
        tree.file(QStringLiteral("docs/.env"));
        QCOMPARE(searchCall(QStringLiteral("*.md"), docs(tree)),
                 found(QStringLiteral("*.md"), {QStringLiteral("Docs/.hidden/.hidden.md")}));
        QCOMPARE(searchCall(QStringLiteral("?env"), docs(tree)),
                 found(QStringLiteral("?env"), {QStringLiteral("Docs/.env")}));
        QCOMPARE(setOf(matchesOf(searchCall(QStringLiteral("*"), docs(tree)))),
                 (QSet<QString>{QStringLiteral("Docs/.env"),
                                QStringLiteral("Docs/.hidden/.hidden.md")}));
        QCOMPARE(searchCall(QStringLiteral("hidden"), docs(tree)),
                 found(QStringLiteral("hidden"), {QStringLiteral("Docs/.hidden/.hidden.md")}));
    }

    void questionMarkIsOneCharacterNotOneByte() {
        TempTree tree;
        tree.file(QStringLiteral("docs/\u00E9.txt"));
        tree.file(QStringLiteral("docs/\u4E2D.txt"));
        tree.file(QStringLiteral("docs/a.txt"));
        tree.file(QStringLiteral("docs/ab.txt"));
        QCOMPARE(setOf(matchesOf(searchCall(QStringLiteral("?.txt"), docs(tree)))),
                 (QSet<QString>{QStringLiteral("Docs/\u00E9.txt"),
                                QStringLiteral("Docs/\u4E2D.txt"), QStringLiteral("Docs/a.txt")}));
        QCOMPARE(matchesOf(searchCall(QStringLiteral("[\u00E9].txt"), docs(tree))),
                 QStringList{QStringLiteral("Docs/\u00E9.txt")});
    }

    void directoriesNeverMatch() {
        TempTree tree;
        tree.file(QStringLiteral("docs/reports/q1.txt"));
        tree.file(QStringLiteral("docs/reports/reports-2024.txt"));
        tree.dir(QStringLiteral("docs/more/reports.d"));
        QCOMPARE(
            searchCall(QStringLiteral("reports"), docs(tree)),
            found(QStringLiteral("reports"), {QStringLiteral("Docs/reports/reports-2024.txt")}));
        QCOMPARE(
            searchCall(QStringLiteral("reports*"), docs(tree)),
            found(QStringLiteral("reports*"), {QStringLiteral("Docs/reports/reports-2024.txt")}));
        QCOMPARE(searchCall(QStringLiteral("q1"), docs(tree)),
                 found(QStringLiteral("q1"), {QStringLiteral("Docs/reports/q1.txt")}));
    }

    void queryOfBlanksIsSearchedFor() {
        TempTree tree;
        tree.file(QStringLiteral("docs/a  b.txt"));
        tree.file(QStringLiteral("docs/a b.txt"));
        tree.file(QStringLiteral("docs/ab.txt"));
        QCOMPARE(searchCall(QStringLiteral("  "), docs(tree)),
                 found(QStringLiteral("  "), {QStringLiteral("Docs/a  b.txt")}));
        QCOMPARE(setOf(matchesOf(searchCall(QStringLiteral(" "), docs(tree)))),
                 (QSet<QString>{QStringLiteral("Docs/a  b.txt"), QStringLiteral("Docs/a b.txt")}));
    }

    void queryIsRequired_data() {
        QTest::addColumn<QJsonObject>("params");
        QTest::newRow("absent") << QJsonObject();
        QTest::newRow("empty") << QJsonObject{{QStringLiteral("query"), QString()}};
        QTest::newRow("number") << QJsonObject{{QStringLiteral("query"), 7}};
        QTest::newRow("null") << QJsonObject{{QStringLiteral("query"), QJsonValue::Null}};
        QTest::newRow("array") << QJsonObject{
            {QStringLiteral("query"), QJsonArray{QStringLiteral("a")}}};
        QTest::newRow("other key") << QJsonObject{{QStringLiteral("path"), QStringLiteral("a")}};
    }
    void queryIsRequired() {
        QFETCH(QJsonObject, params);
        TempTree tree;
        tree.file(QStringLiteral("docs/a.txt"));
        QCOMPARE(searchCall(params, docs(tree)),
                 ToolCall::error(QStringLiteral("A 'query' is required.")));
        QCOMPARE(searchCall(params, {}), ToolCall::error(QStringLiteral("A 'query' is required.")));
    }

    void noFoldersFindsNothing() {
        QCOMPARE(searchCall(QStringLiteral("a"), {}), found(QStringLiteral("a"), {}));
        QCOMPARE(searchCall(QStringLiteral("*"), {}), found(QStringLiteral("*"), {}));
    }

    void limit_data() {
        QTest::addColumn<QJsonValue>("maxResults");
        QTest::addColumn<int>("expected");
        QTest::newRow("absent") << QJsonValue(QJsonValue::Undefined) << 25;
        QTest::newRow("7") << QJsonValue(7) << 7;
        QTest::newRow("1") << QJsonValue(1) << 1;
        QTest::newRow("100") << QJsonValue(100) << 100;
        QTest::newRow("101") << QJsonValue(101) << 100;
        QTest::newRow("500") << QJsonValue(500) << 100;
        QTest::newRow("huge") << QJsonValue(qint64(1) << 62) << 100;
        QTest::newRow("0") << QJsonValue(0) << 1;
        QTest::newRow("negative") << QJsonValue(-5) << 1;
        QTest::newRow("most negative") << QJsonValue(std::numeric_limits<qint64>::min()) << 1;
        QTest::newRow("text") << QJsonValue(QStringLiteral("3")) << 25;
        QTest::newRow("fraction") << QJsonValue(2.5) << 25;
        QTest::newRow("boolean") << QJsonValue(true) << 25;
        QTest::newRow("null") << QJsonValue(QJsonValue::Null) << 25;
        QTest::newRow("array") << QJsonValue(QJsonArray{3}) << 25;
    }
    void limit() {
        QFETCH(QJsonValue, maxResults);
        QFETCH(int, expected);
        TempTree tree;
        for (int i = 0; i < 150; ++i) {
            tree.file(QStringLiteral("docs/d%1/match%2.txt").arg(i % 7).arg(i));
        }
        const QStringList all = matchesOf(searchCall(QStringLiteral("match"), docs(tree), 100));
        QCOMPARE(all.size(), 100);
        const QJsonObject result = searchCall(QStringLiteral("match"), docs(tree), maxResults);
        // The walk stops right after the match that reaches the limit.
        QCOMPARE(result, found(QStringLiteral("match"), all.mid(0, expected)));
    }

    void limitCountsAcrossFoldersInListOrder() {
        TempTree tree;
        for (int i = 0; i < 3; ++i) {
            tree.file(QStringLiteral("first/hit%1.txt").arg(i));
        }
        for (int i = 0; i < 5; ++i) {
            tree.file(QStringLiteral("second/sub/hit%1.txt").arg(i));
        }
        const QList<SharedFolder> folders = {
            ToolCall::folder(QStringLiteral("Second"), tree.path(QStringLiteral("second"))),
            ToolCall::folder(QStringLiteral("First"), tree.path(QStringLiteral("first")))};

        const QStringList one = matchesOf(searchCall(QStringLiteral("hit"), folders, 1));
        QCOMPARE(one.size(), 1);
        QVERIFY(one.front().startsWith(u"Second/sub/hit"));

        const QStringList all = matchesOf(searchCall(QStringLiteral("hit"), folders));
        QCOMPARE(all.size(), 8);
        for (qsizetype i = 0; i < all.size(); ++i) {
            QVERIFY(all[i].startsWith(i < 5 ? u"Second/sub/hit" : u"First/hit"));
        }
        QCOMPARE(matchesOf(searchCall(QStringLiteral("hit"), folders, 6)), all.mid(0, 6));
    }

    void sameDirectoryUnderTwoNamesIsSearchedTwice() {
        TempTree tree;
        tree.file(QStringLiteral("docs/one.txt"));
        const QList<SharedFolder> folders = {
            ToolCall::folder(QStringLiteral("A"), tree.path(QStringLiteral("docs"))),
            ToolCall::folder(QStringLiteral("B"), tree.path(QStringLiteral("docs")))};
        QCOMPARE(searchCall(QStringLiteral("one"), folders),
                 found(QStringLiteral("one"),
                       {QStringLiteral("A/one.txt"), QStringLiteral("B/one.txt")}));
    }

    void walksDepthFirstInDirectoryOrder() {
        TempTree tree;
        const QStringList files = {
            QStringLiteral("top1.txt"),        QStringLiteral("a/a1.txt"),
            QStringLiteral("a/a2.txt"),        QStringLiteral("a/deep/x/y/z.txt"),
            QStringLiteral("a/deep/x/y2.txt"), QStringLiteral("a/deep/d.txt"),
            QStringLiteral("b/b1.txt"),        QStringLiteral("b/c/c1.txt"),
            QStringLiteral("b/c/c2.txt"),      QStringLiteral("top2.txt"),
            QStringLiteral(".h/hidden.txt"),   QStringLiteral("e/f/g/h/i/j/k/l.txt"),
            QStringLiteral("m/n.txt"),         QStringLiteral("m/o/p.txt"),
            QStringLiteral("top3.txt"),        QStringLiteral("z/last.txt")};
        for (const QString& file : files) {
            tree.file(QStringLiteral("docs/") + file);
        }
        tree.dir(QStringLiteral("docs/empty/nested/empty"));
        QStringList expected;
        walk(tree.path(QStringLiteral("docs")), QStringLiteral("Docs/"), expected);
        QCOMPARE(expected.size(), files.size());

        const QStringList matches = matchesOf(searchCall(QStringLiteral("*"), docs(tree), 100));
        QCOMPARE(matches, expected);
        QVERIFY(eachDirectoryIsOneStretch(matches));
        QStringList withPrefix;
        for (const QString& file : files) {
            withPrefix.append(QStringLiteral("Docs/") + file);
        }
        QCOMPARE(setOf(matches), setOf(withPrefix));
    }

    void flatDirectoryKeepsItsOwnOrder() {
        TempTree tree;
        for (int i = 0; i < 60; ++i) {
            tree.file(QStringLiteral("docs/file-%1.txt").arg((i * 37) % 60));
        }
        QStringList expected;
        walk(tree.path(QStringLiteral("docs")), QStringLiteral("Docs/"), expected);
        QCOMPARE(matchesOf(searchCall(QStringLiteral("file-"), docs(tree), 100)), expected);
    }

    void matchesTheNameNotThePath() {
        TempTree tree;
        tree.file(QStringLiteral("docs/invoices/2024.txt"));
        tree.file(QStringLiteral("docs/x/invoice.txt"));
        QCOMPARE(searchCall(QStringLiteral("invoices"), docs(tree)),
                 found(QStringLiteral("invoices"), {}));
        QCOMPARE(searchCall(QStringLiteral("x/"), docs(tree)), found(QStringLiteral("x/"), {}));
        QCOMPARE(searchCall(QStringLiteral("*/invoice.txt"), docs(tree)),
                 found(QStringLiteral("*/invoice.txt"), {}));
    }

    void symbolicLinksAreNeverFollowed() {
        TempTree tree;
        tree.file(QStringLiteral("elsewhere/match-outside.txt"));
        tree.file(QStringLiteral("docs/real/match-inside.txt"));
        tree.symlink(QStringLiteral("docs/into-real"), QStringLiteral("real"));
        tree.symlink(QStringLiteral("docs/into-elsewhere"), tree.path(QStringLiteral("elsewhere")));
        tree.symlink(QStringLiteral("docs/loop"), QStringLiteral("."));
        tree.symlink(QStringLiteral("docs/match-link.txt"),
                     QStringLiteral("real/match-inside.txt"));
        tree.symlink(QStringLiteral("docs/match-dangling.txt"), QStringLiteral("nowhere"));
        QCOMPARE(searchCall(QStringLiteral("match"), docs(tree)),
                 found(QStringLiteral("match"), {QStringLiteral("Docs/real/match-inside.txt")}));
        QCOMPARE(searchCall(QStringLiteral("*"), docs(tree)),
                 found(QStringLiteral("*"), {QStringLiteral("Docs/real/match-inside.txt")}));
    }

    void pipesAndDevicesAreNotMatched() {
        TempTree tree;
        tree.file(QStringLiteral("docs/match.txt"));
        QCOMPARE(
            ::mkfifo(QFile::encodeName(tree.path(QStringLiteral("docs/match.fifo"))).constData(),
                     0600),
            0);
        tree.symlink(QStringLiteral("docs/match-null"), QStringLiteral("/dev/null"));
        QCOMPARE(searchCall(QStringLiteral("match"), docs(tree)),
                 found(QStringLiteral("match"), {QStringLiteral("Docs/match.txt")}));
    }

    void agentPathsFollowTheStoredFolderPath() {
        TempTree tree;
        tree.file(QStringLiteral("docs/sub/a.txt"));
        const QList<SharedFolder> folders = {
            ToolCall::folder(QStringLiteral("Docs"), tree.path(QStringLiteral("docs/"))),
            ToolCall::folder(QStringLiteral("Sub"), tree.path(QStringLiteral("docs/sub/")))};
        QCOMPARE(searchCall(QStringLiteral("a.txt"), folders),
                 found(QStringLiteral("a.txt"),
                       {QStringLiteral("Docs/sub/a.txt"), QStringLiteral("Sub/a.txt")}));
    }

    void foldersThatCannotBeWalkedAreSkipped() {
        TempTree tree;
        tree.file(QStringLiteral("plain.txt"), "I am a file");
        tree.symlink(QStringLiteral("dangling"), QStringLiteral("does-not-exist"));
        tree.file(QStringLiteral("docs/hit.txt"));
        const QList<SharedFolder> folders = {
            ToolCall::folder(QStringLiteral("Missing"), tree.path(QStringLiteral("missing"))),
            ToolCall::folder(QStringLiteral("Dangling"), tree.path(QStringLiteral("dangling"))),
            ToolCall::folder(QStringLiteral("File"), tree.path(QStringLiteral("plain.txt"))),
            ToolCall::folder(QStringLiteral("Nul"), tree.path(QStringLiteral("docs")) + QChar(0)),
            ToolCall::folder(QStringLiteral("Docs"), tree.path(QStringLiteral("docs")))};
        QCOMPARE(searchCall(QStringLiteral("hit"), folders),
                 found(QStringLiteral("hit"), {QStringLiteral("Docs/hit.txt")}));
    }

    void unreadableDirectoryIsSkippedSilently() {
        TempTree tree;
        tree.file(QStringLiteral("docs/a-locked/hit-secret.txt"));
        tree.file(QStringLiteral("docs/a-locked/sub/hit-deeper.txt"));
        tree.file(QStringLiteral("docs/open/hit-open.txt"));
        tree.file(QStringLiteral("docs/hit-top.txt"));
        tree.chmod(QStringLiteral("docs/a-locked"), 0);
        tree.chmod(QString(), 0755);
        const QList<SharedFolder> folders = docs(tree);
        const auto result = Unprivileged::run(
            tree.path(), [&] { return searchCall(QStringLiteral("hit"), folders); });
        if (!result) {
            QSKIP("running as root and cannot drop privileges; permissions do not apply");
        }
        QCOMPARE(result->keys(), (QStringList{QStringLiteral("count"), QStringLiteral("matches"),
                                              QStringLiteral("query")}));
        QCOMPARE(setOf(matchesOf(*result)), (QSet<QString>{QStringLiteral("Docs/open/hit-open.txt"),
                                                           QStringLiteral("Docs/hit-top.txt")}));
    }

    void nothingCanBeOpenedFindsNothingQuietly() {
        // Works as root too: with no descriptor left no directory can be opened.
        TempTree tree;
        tree.file(QStringLiteral("docs/hit.txt"));
        tree.file(QStringLiteral("more/hit.txt"));
        const QList<SharedFolder> folders = {
            ToolCall::folder(QStringLiteral("Docs"), tree.path(QStringLiteral("docs"))),
            ToolCall::folder(QStringLiteral("More"), tree.path(QStringLiteral("more")))};
        QJsonObject result;
        {
            DescriptorLimit noDescriptors;
            QVERIFY(noDescriptors.active());
            result = searchCall(QStringLiteral("hit"), folders);
        }
        QCOMPARE(result, found(QStringLiteral("hit"), {}));
        QCOMPARE(searchCall(QStringLiteral("hit"), folders),
                 found(QStringLiteral("hit"),
                       {QStringLiteral("Docs/hit.txt"), QStringLiteral("More/hit.txt")}));
    }

    void deepTreeNeedsOneDescriptorOnly() {
        TempTree tree;
        QString relative = QStringLiteral("docs");
        QStringList expected;
        for (int depth = 0; depth < 40; ++depth) {
            relative += QStringLiteral("/level%1").arg(depth);
            tree.file(relative + QStringLiteral("/hit%1.txt").arg(depth));
            expected.append(QStringLiteral("Docs") + relative.mid(4) +
                            QStringLiteral("/hit%1.txt").arg(depth));
        }
        QJsonObject result;
        {
            DescriptorLimit oneDescriptor(1);
            QVERIFY(oneDescriptor.active());
            result = searchCall(QStringLiteral("hit"), docs(tree), 100);
        }
        QCOMPARE(setOf(matchesOf(result)), setOf(expected));
        QCOMPARE(result.value(QStringLiteral("count")), 40);
    }

    void searcherThrowsOnlyForTheQuery() {
        QVERIFY_THROWS_EXCEPTION(ToolError,
                                 FileSearcher::search(QJsonObject(), AccessPolicy({}, {})));
        TempTree tree;
        tree.file(QStringLiteral("docs/a.txt"));
        const QJsonObject direct = FileSearcher::search(
            {{QStringLiteral("query"), QStringLiteral("A")}}, AccessPolicy(docs(tree), {}));
        QCOMPARE(direct, found(QStringLiteral("A"), {QStringLiteral("Docs/a.txt")}));
    }
};

QTEST_GUILESS_MAIN(FileSearcherTest)
#include "tst_filesearcher.moc"
