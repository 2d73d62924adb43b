#include "DescriptorLimit.h"
#include "FileSystemError.h"
#include "FolderLister.h"
#include "TempTree.h"
#include "ToolCall.h"
#include "ToolError.h"
#include "Unprivileged.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>
#include <QTest>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QJsonObject listCall(const QJsonObject& params, const QList<SharedFolder>& folders) {
    return ToolCall::run(QStringLiteral("local_list_files"), params, folders);
}

QJsonObject listCall(const QString& path, const QList<SharedFolder>& folders) {
    return listCall(QJsonObject{{QStringLiteral("path"), path}}, folders);
}

QJsonObject item(const QString& name, const QString& type, const QJsonValue& size,
                 qint64 modified) {
    return QJsonObject{{QStringLiteral("name"), name},
                       {QStringLiteral("type"), type},
                       {QStringLiteral("size_bytes"), size},
                       {QStringLiteral("modified"), modified}};
}

QJsonObject listing(const QString& path, const QJsonArray& items) {
    return QJsonObject{{QStringLiteral("path"), path},
                       {QStringLiteral("items"), items},
                       {QStringLiteral("count"), items.size()}};
}

QStringList namesOf(const QJsonObject& result) {
    QStringList names;
    for (const QJsonValue& entry : result.value(QStringLiteral("items")).toArray()) {
        names.append(entry.toObject().value(QStringLiteral("name")).toString());
    }
    return names;
}

QJsonObject entryNamed(const QJsonObject& result, const QString& name) {
    for (const QJsonValue& entry : result.value(QStringLiteral("items")).toArray()) {
        if (entry.toObject().value(QStringLiteral("name")).toString() == name) {
            return entry.toObject();
        }
    }
    return QJsonObject();
}

} // namespace

class FolderListerTest : public QObject {
    Q_OBJECT

private:
    static QList<SharedFolder> docs(const TempTree& tree) {
        return {ToolCall::folder(QStringLiteral("Docs"), tree.path(QStringLiteral("docs")))};
    }

private slots:
    void withoutPathListsTheSharedFolders_data() {
        QTest::addColumn<QJsonObject>("params");
        QTest::newRow("no path") << QJsonObject();
        QTest::newRow("empty") << QJsonObject{{QStringLiteral("path"), QString()}};
        QTest::newRow("lone slash") << QJsonObject{{QStringLiteral("path"), QStringLiteral("/")}};
        QTest::newRow("slashes and blanks")
            << QJsonObject{{QStringLiteral("path"), QStringLiteral(" / // ")}};
        QTest::newRow("number") << QJsonObject{{QStringLiteral("path"), 42}};
        QTest::newRow("null") << QJsonObject{{QStringLiteral("path"), QJsonValue::Null}};
        QTest::newRow("array") << QJsonObject{
            {QStringLiteral("path"), QJsonArray{QStringLiteral("Docs")}}};
    }
    void withoutPathListsTheSharedFolders() {
        QFETCH(QJsonObject, params);
        TempTree tree;
        tree.file(QStringLiteral("docs/a.txt"), "content");
        // The second folder's directory does not exist: the list does not look at the disk.
        const QList<SharedFolder> folders = {
            ToolCall::folder(QStringLiteral("Docs"), tree.path(QStringLiteral("docs"))),
            ToolCall::folder(QStringLiteral("Gone"), tree.path(QStringLiteral("gone"))),
            ToolCall::folder(QStringLiteral("Archive"), tree.path(QStringLiteral("docs")))};
        const QJsonValue null = QJsonValue::Null;
        QCOMPARE(listCall(params, folders),
                 listing(QString(),
                         {item(QStringLiteral("Docs"), QStringLiteral("folder"), null, 0),
                          item(QStringLiteral("Gone"), QStringLiteral("folder"), null, 0),
                          item(QStringLiteral("Archive"), QStringLiteral("folder"), null, 0)}));
    }

    void noFoldersAndNoPathIsAnEmptyList() {
        QCOMPARE(listCall(QJsonObject(), {}), listing(QString(), {}));
        QCOMPARE(listCall(QStringLiteral("/"), {}), listing(QString(), {}));
    }

    void resultPathIsTheListedFolderInAgentForm_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("expected");
        QTest::newRow("folder name") << QStringLiteral("Docs") << QStringLiteral("Docs");
        QTest::newRow("slashes around") << QStringLiteral("/Docs/") << QStringLiteral("Docs");
        QTest::newRow("subfolder with slash")
            << QStringLiteral("Docs/sub/") << QStringLiteral("Docs/sub");
        QTest::newRow("dot segments")
            << QStringLiteral("Docs/sub/./deeper/..") << QStringLiteral("Docs/sub");
        QTest::newRow("double slashes")
            << QStringLiteral("Docs//sub//deeper") << QStringLiteral("Docs/sub/deeper");
        QTest::newRow("without folder name, one folder")
            << QStringLiteral("sub") << QStringLiteral("Docs/sub");
    }
    void resultPathIsTheListedFolderInAgentForm() {
        QFETCH(QString, path);
        QFETCH(QString, expected);
        TempTree tree;
        tree.dir(QStringLiteral("docs/sub/deeper"));
        QCOMPARE(listCall(path, docs(tree)).value(QStringLiteral("path")).toString(), expected);
    }

    void listsTheNamedOfTwoFolders() {
        TempTree tree;
        tree.file(QStringLiteral("docs/report.txt"));
        tree.file(QStringLiteral("photos/cat.jpg"));
        const QList<SharedFolder> folders = {
            ToolCall::folder(QStringLiteral("Docs"), tree.path(QStringLiteral("docs"))),
            ToolCall::folder(QStringLiteral("Photos"), tree.path(QStringLiteral("photos")))};
        const QJsonObject result = listCall(QStringLiteral("Photos"), folders);
        QCOMPARE(result.value(QStringLiteral("path")).toString(), QStringLiteral("Photos"));
        QCOMPARE(namesOf(result), QStringList{QStringLiteral("cat.jpg")});
        QCOMPARE(listCall(QStringLiteral("Albums/cat.jpg"), folders),
                 ToolCall::error(QStringLiteral("No shared folder named 'Albums'. Prefix the path "
                                                "with a folder name. Shared folders: Docs, "
                                                "Photos.")));
    }

    void entriesCarryTypeSizeAndTime() {
        TempTree tree;
        tree.file(QStringLiteral("docs/notes.txt"), "12345");
        tree.file(QStringLiteral("docs/empty.txt"));
        tree.file(QStringLiteral("docs/sub/inner.txt"), "not counted");
        tree.setModified(QStringLiteral("docs/notes.txt"), 1700000000, 999999999);
        tree.setModified(QStringLiteral("docs/empty.txt"), 1);
        tree.setModified(QStringLiteral("docs/sub"), 1600000000, 1);
        QCOMPARE(listCall(QStringLiteral("Docs"), docs(tree)),
                 listing(QStringLiteral("Docs"),
                         {item(QStringLiteral("empty.txt"), QStringLiteral("file"), 0, 1),
                          item(QStringLiteral("notes.txt"), QStringLiteral("file"), 5, 1700000000),
                          item(QStringLiteral("sub"), QStringLiteral("folder"), QJsonValue::Null,
                               1600000000)}));
    }

    void emptyDirectoryHasNoItems() {
        TempTree tree;
        tree.dir(QStringLiteral("docs/empty"));
        QCOMPARE(listCall(QStringLiteral("Docs/empty"), docs(tree)),
                 listing(QStringLiteral("Docs/empty"), {}));
    }

    void hiddenEntriesAreListed() {
        TempTree tree;
        tree.file(QStringLiteral("docs/.env"), "KEY=1");
        tree.file(QStringLiteral("docs/.git/HEAD"));
        tree.file(QStringLiteral("docs/visible.txt"));
        const QJsonObject result = listCall(QStringLiteral("Docs"), docs(tree));
        QCOMPARE(namesOf(result), (QStringList{QStringLiteral(".env"), QStringLiteral(".git"),
                                               QStringLiteral("visible.txt")}));
        QCOMPARE(entryNamed(result, QStringLiteral(".env")).value(QStringLiteral("size_bytes")), 5);
        QCOMPARE(entryNamed(result, QStringLiteral(".git")).value(QStringLiteral("type")),
                 QStringLiteral("folder"));
        QCOMPARE(result.value(QStringLiteral("count")), 3);
    }

    void namesOpenedByByteOrderMarkKeepIt() {
        // Listed under their real names, so that the names listed can be read back.
        const QString mark(QChar(0xfeff));
        TempTree tree;
        tree.file(QStringLiteral("docs/") + mark + QStringLiteral("one.txt"), "1");
        tree.file(QStringLiteral("docs/one.txt"), "22");
        tree.dir(QStringLiteral("docs/") + mark + mark + QStringLiteral("two"));
        const QJsonObject result = listCall(QStringLiteral("Docs"), docs(tree));
        QCOMPARE(namesOf(result),
                 (QStringList{QStringLiteral("one.txt"), mark + QStringLiteral("one.txt"),
                              mark + mark + QStringLiteral("two")}));
        QCOMPARE(entryNamed(result, mark + QStringLiteral("one.txt"))
                     .value(QStringLiteral("size_bytes")),
                 1);
        const QJsonObject read =
            ToolCall::run(QStringLiteral("local_read_file"),
                          QJsonObject{{QStringLiteral("path"),
                                       QStringLiteral("Docs/") + mark + QStringLiteral("one.txt")}},
                          docs(tree));
        QCOMPARE(read.value(QStringLiteral("content")).toString(), QStringLiteral("1"));
        QCOMPARE(listCall(QStringLiteral("Docs/") + mark + mark + QStringLiteral("two"), docs(tree))
                     .value(QStringLiteral("count")),
                 0);
    }

    void jsonTextIsWhatQJsonDocumentWrites() {
        // listJson() writes the answer without QJsonObject; it must be byte for byte what
        // QJsonDocument writes for list(): escapes, UTF-8, invalid names, numbers, order.
        TempTree tree;
        tree.dir(QStringLiteral("docs"));
        const QByteArray dir = QFile::encodeName(tree.path(QStringLiteral("docs"))) + '/';
        QList<QByteArray> names = {"plain.txt",
                                   "a\"quote",
                                   "back\\slash",
                                   "del\x7f",
                                   "caf\xC3\xA9",
                                   "cafe\xCC\x81",
                                   "\xE4\xB8\xAD\xE6\x96\x87",
                                   "\xF0\x9F\x98\x80 smile",
                                   "\xEF\xBB\xBF"
                                   "mark",
                                   "\xEF\xBB\xBF\xEF\xBB\xBF",
                                   "sep\xE2\x80\xA8line",
                                   "non\xEF\xBF\xBE"
                                   "char",
                                   "bad\xFF",
                                   "\xED\xA0\x80"
                                   "surrogate",
                                   "\xC0\xAF"
                                   "overlong",
                                   "cut\xE2\x82",
                                   "\x80lead",
                                   "\xF4\x90\x80\x80high",
                                   "~tilde",
                                   "_under",
                                   "Upper"};
        for (char c = 1; c < 0x20; ++c) {
            names.append(QByteArray("ctl") + c);
        }
        qint64 when = -631152000; // 1950
        for (const QByteArray& name : std::as_const(names)) {
            const QByteArray path = dir + name;
            const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
            QVERIFY2(fd >= 0, path.constData());
            ::close(fd);
            const timespec times[2] = {{when, 0}, {when, (when % 3) * 300000000L}};
            QCOMPARE(::utimensat(AT_FDCWD, path.constData(), times, 0), 0);
            when += 123456789;
        }
        QCOMPARE(::truncate((dir + "plain.txt").constData(), qint64(1) << 40), 0);
        QCOMPARE(::truncate((dir + "Upper").constData(), 4097), 0);
        tree.dir(QStringLiteral("docs/folder \u00e9"));
        tree.dir(QStringLiteral("docs/folder \u00e9/inner\\\"dir"));
        tree.setModified(QStringLiteral("docs/folder \u00e9"), -1, 500000000L);
        tree.symlink(QStringLiteral("docs/link"), QStringLiteral("plain.txt"));
        QCOMPARE(::mkfifo((dir + "fifo").constData(), 0600), 0);

        const QList<SharedFolder> folders = {
            ToolCall::folder(QStringLiteral("Docs \"\u00e9\""), tree.path(QStringLiteral("docs"))),
            ToolCall::folder(QStringLiteral("Other"),
                             tree.path(QStringLiteral("docs/folder \u00e9")))};
        for (const QString& path :
             {QStringLiteral("Docs \"\u00e9\""), QStringLiteral("Docs \"\u00e9\"/folder \u00e9"),
              QStringLiteral("Other"), QStringLiteral("Docs \"\u00e9\"/folder \u00e9/inner\\\"dir"),
              QString(), QStringLiteral("/")}) {
            const QJsonObject object = FolderLister::list(path, AccessPolicy(folders, {}));
            QVERIFY(object.value(QStringLiteral("count")).toInteger() > 0 ||
                    path.contains(u"inner"));
            QCOMPARE(FolderLister::listJson(path, AccessPolicy(folders, {})),
                     QJsonDocument(object).toJson(QJsonDocument::Compact));
        }
        QCOMPARE(FolderLister::list(QStringLiteral("Docs \"\u00e9\""), AccessPolicy(folders, {}))
                     .value(QStringLiteral("count"))
                     .toInteger(),
                 names.size() + 3);
    }

    void sortsCaseSensitivelyWithFoldersMixedIn() {
        TempTree tree;
        tree.dir(QStringLiteral("docs/b"));
        tree.file(QStringLiteral("docs/A"));
        tree.file(QStringLiteral("docs/a"));
        tree.file(QStringLiteral("docs/a.txt"));
        tree.dir(QStringLiteral("docs/B.txt"));
        tree.file(QStringLiteral("docs/_"));
        QCOMPARE(namesOf(listCall(QStringLiteral("Docs"), docs(tree))),
                 (QStringList{QStringLiteral("A"), QStringLiteral("B.txt"), QStringLiteral("_"),
                              QStringLiteral("a"), QStringLiteral("a.txt"), QStringLiteral("b")}));
    }

    void sortsByScalarValueNotUtf16() {
        TempTree tree;
        const QString emoji = QStringLiteral("\U0001F600.txt");   // above U+FFFF
        const QString tilde = QStringLiteral("\uFF5E.txt");       // fullwidth tilde
        const QString replacement = QStringLiteral("\uFFFD.txt"); // highest in this set below
        const QString hangul = QStringLiteral("\uAC00.txt");
        for (const QString& name : {emoji, replacement, hangul, tilde}) {
            tree.file(QStringLiteral("docs/") + name);
        }
        QCOMPARE(namesOf(listCall(QStringLiteral("Docs"), docs(tree))),
                 (QStringList{hangul, tilde, replacement, emoji}));
    }

    void decomposedNameSortsAsPrecomposed() {
        TempTree tree;
        const QString decomposed = QStringLiteral("e\u0301.txt");
        const QString precomposed = QStringLiteral("\u00E9.txt");
        tree.file(QStringLiteral("docs/") + decomposed);
        tree.file(QStringLiteral("docs/f.txt"));
        tree.file(QStringLiteral("docs/e.txt"));
        tree.file(QStringLiteral("docs/\u00EA.txt")); // e circumflex follows e acute
        // By code units the decomposed name would sort before "f.txt"; canonically it is
        // U+00E9 and comes after it. Its name comes back as stored.
        QCOMPARE(namesOf(listCall(QStringLiteral("Docs"), docs(tree))),
                 (QStringList{QStringLiteral("e.txt"), QStringLiteral("f.txt"), decomposed,
                              QStringLiteral("\u00EA.txt")}));

        // The two spellings are equal for the sort; both come after "f.txt", side by side.
        tree.file(QStringLiteral("docs/") + precomposed);
        const QStringList names = namesOf(listCall(QStringLiteral("Docs"), docs(tree)));
        QCOMPARE(names.size(), 5);
        QCOMPARE(names.mid(0, 2), (QStringList{QStringLiteral("e.txt"), QStringLiteral("f.txt")}));
        QCOMPARE(QSet<QString>(names.begin() + 2, names.begin() + 4),
                 (QSet<QString>{decomposed, precomposed}));
        QCOMPARE(names.last(), QStringLiteral("\u00EA.txt"));
    }

    void modifiedDropsTheFractionTowardZero_data() {
        QTest::addColumn<qint64>("seconds");
        QTest::addColumn<long>("nanoseconds");
        QTest::addColumn<qint64>("expected");
        // A time is seconds + nanoseconds, so -1.5 s is (-2 s, +0.5 s).
        QTest::newRow("-1.5 s") << qint64(-2) << 500000000L << qint64(-1);
        QTest::newRow("-0.5 s") << qint64(-1) << 500000000L << qint64(0);
        QTest::newRow("-1 s") << qint64(-1) << 0L << qint64(-1);
        QTest::newRow("1950") << qint64(-631152000) << 250000000L << qint64(-631151999);
        QTest::newRow("epoch") << qint64(0) << 0L << qint64(0);
        QTest::newRow("1.9 s") << qint64(1) << 900000000L << qint64(1);
        QTest::newRow("2038 and later") << qint64(4102444800) << 1L << qint64(4102444800);
    }
    void modifiedDropsTheFractionTowardZero() {
        QFETCH(qint64, seconds);
        QFETCH(long, nanoseconds);
        QFETCH(qint64, expected);
        TempTree tree;
        tree.file(QStringLiteral("docs/old.txt"), "x");
        tree.dir(QStringLiteral("docs/old"));
        tree.setModified(QStringLiteral("docs/old.txt"), seconds, nanoseconds);
        tree.setModified(QStringLiteral("docs/old"), seconds, nanoseconds);
        QCOMPARE(listCall(QStringLiteral("Docs"), docs(tree)),
                 listing(QStringLiteral("Docs"),
                         {item(QStringLiteral("old"), QStringLiteral("folder"), QJsonValue::Null,
                               expected),
                          item(QStringLiteral("old.txt"), QStringLiteral("file"), 1, expected)}));
    }

    void symbolicLinksAreFilesDescribedByThemselves() {
        TempTree tree;
        tree.dir(QStringLiteral("docs/target-dir"));
        tree.file(QStringLiteral("docs/target.txt"), "0123456789");
        tree.symlink(QStringLiteral("docs/to-dir"), QStringLiteral("target-dir"));
        tree.symlink(QStringLiteral("docs/to-file"), QStringLiteral("target.txt"));
        tree.symlink(QStringLiteral("docs/dangling"), QStringLiteral("nowhere/at/all"));
        tree.symlink(QStringLiteral("docs/outside"), QStringLiteral("/"));
        const QJsonObject result = listCall(QStringLiteral("Docs"), docs(tree));
        QCOMPARE(namesOf(result),
                 (QStringList{QStringLiteral("dangling"), QStringLiteral("outside"),
                              QStringLiteral("target-dir"), QStringLiteral("target.txt"),
                              QStringLiteral("to-dir"), QStringLiteral("to-file")}));
        // The size is the link's own: the length of the path it holds.
        const struct {
            const char16_t* name;
            qint64 size;
        } links[] = {{u"to-dir", 10}, {u"to-file", 10}, {u"dangling", 14}, {u"outside", 1}};
        for (const auto& link : links) {
            const QJsonObject entry = entryNamed(result, QString::fromUtf16(link.name));
            QCOMPARE(entry.value(QStringLiteral("type")), QStringLiteral("file"));
            QCOMPARE(entry.value(QStringLiteral("size_bytes")), link.size);
        }
        QCOMPARE(entryNamed(result, QStringLiteral("target-dir")).value(QStringLiteral("type")),
                 QStringLiteral("folder"));
    }

    void linkToDirectoryAsThePathListsItsTarget() {
        TempTree tree;
        tree.file(QStringLiteral("docs/real/inside.txt"));
        tree.symlink(QStringLiteral("docs/alias"), QStringLiteral("real"));
        const QJsonObject result = listCall(QStringLiteral("Docs/alias"), docs(tree));
        QCOMPARE(result.value(QStringLiteral("path")).toString(), QStringLiteral("Docs/alias"));
        QCOMPARE(namesOf(result), QStringList{QStringLiteral("inside.txt")});
    }

    void fifoIsAFileOfSizeZero() {
        TempTree tree;
        tree.dir(QStringLiteral("docs"));
        QCOMPARE(
            ::mkfifo(QFile::encodeName(tree.path(QStringLiteral("docs/pipe"))).constData(), 0600),
            0);
        const QJsonObject entry =
            entryNamed(listCall(QStringLiteral("Docs"), docs(tree)), QStringLiteral("pipe"));
        QCOMPARE(entry.value(QStringLiteral("type")), QStringLiteral("file"));
        QCOMPARE(entry.value(QStringLiteral("size_bytes")), 0);
    }

    void fileIsNotAFolder() {
        TempTree tree;
        tree.file(QStringLiteral("docs/a.txt"), "x");
        tree.symlink(QStringLiteral("docs/link.txt"), QStringLiteral("a.txt"));
        for (const QString& path : {QStringLiteral("Docs/a.txt"), QStringLiteral("Docs/a.txt/"),
                                    QStringLiteral("Docs/link.txt")}) {
            QCOMPARE(listCall(path, docs(tree)),
                     ToolCall::error(QStringLiteral("Path is a file, not a folder. Use "
                                                    "local_read_file.")));
        }
    }

    void missingPathIsQuotedAsSent() {
        TempTree tree;
        tree.dir(QStringLiteral("docs"));
        tree.symlink(QStringLiteral("docs/dangling"), QStringLiteral("gone"));
        QCOMPARE(listCall(QStringLiteral("/Docs/nope/ "), docs(tree)),
                 ToolCall::error(QStringLiteral("Path not found: /Docs/nope/ ")));
        QCOMPARE(listCall(QStringLiteral("Docs/dangling"), docs(tree)),
                 ToolCall::error(QStringLiteral("Path not found: Docs/dangling")));
    }

    void pathOutsideTheFolderIsRefused() {
        TempTree tree;
        tree.dir(QStringLiteral("docs"));
        tree.dir(QStringLiteral("docs2"));
        QCOMPARE(listCall(QStringLiteral("Docs/../docs2"), docs(tree)),
                 ToolCall::error(QStringLiteral("Path escapes the shared folder.")));
    }

    void storedPathNotInStandardFormLosesTheFolderName() {
        TempTree tree;
        tree.file(QStringLiteral("docs/sub/a.txt"));
        const QList<SharedFolder> folders = {
            ToolCall::folder(QStringLiteral("Docs"), tree.path(QStringLiteral("docs/")))};
        const QJsonObject sub = listCall(QStringLiteral("Docs/sub"), folders);
        QCOMPARE(sub.value(QStringLiteral("path")).toString(), QStringLiteral("/sub"));
        QCOMPARE(namesOf(sub), QStringList{QStringLiteral("a.txt")});
        QCOMPARE(listCall(QStringLiteral("Docs"), folders).value(QStringLiteral("path")).toString(),
                 QString());
    }

    void everyEntryIsReturned() {
        TempTree tree;
        tree.dir(QStringLiteral("docs"));
        QStringList expected;
        for (int i = 0; i < 3000; ++i) {
            const QString name = QStringLiteral("f%1").arg(i, 5, 10, QLatin1Char('0'));
            QFile file(tree.path(QStringLiteral("docs/") + name));
            QVERIFY(file.open(QIODevice::WriteOnly));
            expected.append(name);
        }
        const QJsonObject result = listCall(QStringLiteral("Docs"), docs(tree));
        QCOMPARE(result.value(QStringLiteral("count")), 3000);
        QCOMPARE(namesOf(result), expected);
    }

    void unreadableDirectoryIsAnErrorObject() {
        TempTree tree;
        tree.file(QStringLiteral("docs/locked/secret.txt"));
        tree.chmod(QStringLiteral("docs/locked"), 0);
        tree.chmod(QString(), 0755);
        const QList<SharedFolder> folders = docs(tree);
        const auto result = Unprivileged::run(
            tree.path(), [&] { return listCall(QStringLiteral("Docs/locked"), folders); });
        if (!result) {
            QSKIP("running as root and cannot drop privileges; permissions do not apply");
        }
        QCOMPARE(*result, ToolCall::error(QStringLiteral("Could not list 'Docs/locked': ") +
                                          FileSystemError::reasonFor(EACCES) + u'.'));
    }

    void entriesThatCannotBeExaminedAreUnknownFiles() {
        // Readable but not searchable: the names are there, their details are not.
        TempTree tree;
        tree.file(QStringLiteral("docs/half/data.txt"), "12345");
        tree.dir(QStringLiteral("docs/half/inner"));
        tree.chmod(QStringLiteral("docs/half"), 0444);
        tree.chmod(QString(), 0755);
        const QList<SharedFolder> folders = docs(tree);
        const auto result = Unprivileged::run(
            tree.path(), [&] { return listCall(QStringLiteral("Docs/half"), folders); });
        if (!result) {
            QSKIP("running as root and cannot drop privileges; permissions do not apply");
        }
        QCOMPARE(*result, listing(QStringLiteral("Docs/half"),
                                  {item(QStringLiteral("data.txt"), QStringLiteral("file"), 0, 0),
                                   item(QStringLiteral("inner"), QStringLiteral("file"), 0, 0)}));
    }

    void directoryThatCannotBeOpenedIsAnErrorObject() {
        // Works as root too: with no descriptor left the directory cannot be opened.
        if (DescriptorLimit::sanitized()) {
            QSKIP("the sanitizers' checks need descriptors of their own");
        }
        TempTree tree;
        tree.file(QStringLiteral("docs/a.txt"));
        QJsonObject result;
        {
            DescriptorLimit noDescriptors;
            QVERIFY(noDescriptors.active());
            result = listCall(QStringLiteral("Docs"), docs(tree));
        }
        QCOMPARE(result, ToolCall::error(QStringLiteral("Could not list 'Docs': ") +
                                         FileSystemError::reasonFor(EMFILE) + u'.'));
        QCOMPARE(namesOf(listCall(QStringLiteral("Docs"), docs(tree))),
                 QStringList{QStringLiteral("a.txt")});
    }

    void listerThrowsWhatTheServiceReports() {
        TempTree tree;
        tree.file(QStringLiteral("docs/a.txt"));
        QVERIFY_THROWS_EXCEPTION(ToolError, FolderLister::list(QStringLiteral("Docs/a.txt"),
                                                               AccessPolicy(docs(tree), {})));
        const QJsonObject direct =
            FolderLister::list(QStringLiteral("Docs"), AccessPolicy(docs(tree), {}));
        QCOMPARE(direct, listCall(QStringLiteral("Docs"), docs(tree)));
        QVERIFY(!direct.contains(QStringLiteral("error")));
    }
};

QTEST_GUILESS_MAIN(FolderListerTest)
#include "tst_folderlister.moc"
