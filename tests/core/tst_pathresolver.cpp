#include "PathResolver.h"
#include "ToolError.h"

#include <QDir>
#include <QJsonArray>
#include <QTest>

namespace {

SharedFolder folder(const QString& name, const QString& path) {
    return SharedFolder{QUuid::createUuid(), name, path, std::nullopt};
}

const QList<SharedFolder> twoFolders{
    folder(QStringLiteral("Reports"), QStringLiteral("/Users/u/Reports")),
    folder(QStringLiteral("Photos"), QStringLiteral("/Users/u/Photos"))};

QString errorOf(const QString& path, const QList<SharedFolder>& folders) {
    try {
        PathResolver::resolve(path, folders);
    } catch (const ToolError& error) {
        return error.message();
    }
    return QStringLiteral("(no error)");
}

const QString escapes = QStringLiteral("Path escapes the shared folder.");

} // namespace

class PathResolverTest : public QObject {
    Q_OBJECT

private slots:
    void folderRootForms_data() {
        QTest::addColumn<QString>("path");
        QTest::newRow("bare") << QStringLiteral("Reports");
        QTest::newRow("slashes both sides") << QStringLiteral("/Reports/");
        QTest::newRow("trailing slash") << QStringLiteral("Reports/");
        QTest::newRow("many slashes") << QStringLiteral("///Reports///");
    }
    void folderRootForms() {
        QFETCH(QString, path);
        const auto resolved = PathResolver::resolve(path, twoFolders);
        QCOMPARE(resolved.root, QStringLiteral("/Users/u/Reports"));
        QCOMPARE(resolved.item, QStringLiteral("/Users/u/Reports"));
    }

    void siblingSharedFolderIsStillAnEscape() {
        QCOMPARE(errorOf(QStringLiteral("Reports/../Photos/x.jpg"), twoFolders), escapes);
    }

    void dotDotInsideStaysInside() {
        const auto resolved =
            PathResolver::resolve(QStringLiteral("Reports/sub/../a.txt"), twoFolders);
        QCOMPARE(resolved.item, QStringLiteral("/Users/u/Reports/a.txt"));
    }

    void siblingPrefixIsRefused() {
        const QList<SharedFolder> folders{
            folder(QStringLiteral("Reports"), QStringLiteral("/Users/u/Rep")),
            folder(QStringLiteral("Other"), QStringLiteral("/o"))};
        QCOMPARE(errorOf(QStringLiteral("Reports/../Rep2/x"), folders), escapes);
        QCOMPARE(errorOf(QStringLiteral("Reports/.."), folders), escapes);
        QCOMPARE(errorOf(QStringLiteral("Reports/a/../../b"), folders), escapes);
        QCOMPARE(errorOf(QStringLiteral("Reports/../../../../etc/passwd"), folders), escapes);
    }

    void folderNameIsCaseSensitive() {
        QCOMPARE(
            errorOf(QStringLiteral("reports/a.txt"), twoFolders),
            QStringLiteral("No shared folder named 'reports'. Prefix the path with a folder name. "
                           "Shared folders: Reports, Photos."));
    }

    void unknownFolderMessage() {
        QCOMPARE(
            errorOf(QStringLiteral("Docs/x"), twoFolders),
            QStringLiteral("No shared folder named 'Docs'. Prefix the path with a folder name. "
                           "Shared folders: Reports, Photos."));
    }

    void noFoldersNamesNone_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("named");
        QTest::newRow("name") << QStringLiteral("Reports/a.txt") << QStringLiteral("Reports");
        QTest::newRow("empty") << QString() << QString();
        QTest::newRow("all slashes") << QStringLiteral("///") << QString();
    }
    void noFoldersNamesNone() {
        QFETCH(QString, path);
        QFETCH(QString, named);
        QCOMPARE(
            errorOf(path, {}),
            QStringLiteral("No shared folder named '") + named +
                QStringLiteral("'. Prefix the path with a folder name. Shared folders: (none)."));
    }

    void emptyPathWithTwoFoldersNamesNothing() {
        QCOMPARE(errorOf(QStringLiteral("/"), twoFolders),
                 QStringLiteral("No shared folder named ''. Prefix the path with a folder name. "
                                "Shared folders: Reports, Photos."));
    }

    void singleFolderFallback() {
        const QList<SharedFolder> one{folder(QStringLiteral("Work"), QStringLiteral("/w"))};
        QCOMPARE(PathResolver::resolve(QStringLiteral("a.txt"), one).item,
                 QStringLiteral("/w/a.txt"));
        QCOMPARE(PathResolver::resolve(QString(), one).item, QStringLiteral("/w"));
        QCOMPARE(PathResolver::resolve(QStringLiteral("/"), one).item, QStringLiteral("/w"));
        QCOMPARE(PathResolver::resolve(QStringLiteral("Other/a.txt"), one).item,
                 QStringLiteral("/w/Other/a.txt"));
        QCOMPARE(PathResolver::resolve(QStringLiteral("Work/a.txt"), one).item,
                 QStringLiteral("/w/a.txt"));
        QCOMPARE(PathResolver::resolve(QStringLiteral("Work"), one).item, QStringLiteral("/w"));
        QCOMPARE(errorOf(QStringLiteral("../w2"), one), escapes);
    }

    void firstOfTwoSameNamedFoldersWins() {
        const QList<SharedFolder> folders{
            folder(QStringLiteral("Docs"), QStringLiteral("/first")),
            folder(QStringLiteral("Docs"), QStringLiteral("/second"))};
        QCOMPARE(PathResolver::resolve(QStringLiteral("Docs/x"), folders).root,
                 QStringLiteral("/first"));
    }

    void filesystemRootAcceptsOnlyItself() {
        const QList<SharedFolder> folders{folder(QStringLiteral("Disk"), QStringLiteral("/")),
                                          folder(QStringLiteral("Other"), QStringLiteral("/o"))};
        QCOMPARE(PathResolver::resolve(QStringLiteral("Disk"), folders).item, QStringLiteral("/"));
        QCOMPARE(errorOf(QStringLiteral("Disk/etc"), folders), escapes);
    }

    void blankPathIsPresentAndNamesABlankFolder() {
        QCOMPARE(
            PathResolver::requirePath(QJsonObject{{QStringLiteral("path"), QStringLiteral(" ")}}),
            QStringLiteral(" "));
        QCOMPARE(errorOf(QStringLiteral(" "), twoFolders),
                 QStringLiteral("No shared folder named ' '. Prefix the path with a folder name. "
                                "Shared folders: Reports, Photos."));
        const QList<SharedFolder> blank{folder(QStringLiteral(" "), QStringLiteral("/b")),
                                        folder(QStringLiteral("x"), QStringLiteral("/x"))};
        QCOMPARE(PathResolver::resolve(QStringLiteral(" "), blank).item, QStringLiteral("/b"));
    }

    void requirePathRejectsMissingEmptyAndMistyped_data() {
        QTest::addColumn<QJsonObject>("params");
        QTest::newRow("missing") << QJsonObject{};
        QTest::newRow("empty") << QJsonObject{{QStringLiteral("path"), QString()}};
        QTest::newRow("number") << QJsonObject{{QStringLiteral("path"), 5}};
        QTest::newRow("null") << QJsonObject{{QStringLiteral("path"), QJsonValue::Null}};
        QTest::newRow("array") << QJsonObject{
            {QStringLiteral("path"), QJsonArray{QStringLiteral("a")}}};
    }
    void requirePathRejectsMissingEmptyAndMistyped() {
        QFETCH(QJsonObject, params);
        try {
            PathResolver::requirePath(params);
            QFAIL("no error");
        } catch (const ToolError& error) {
            QCOMPARE(error.message(), QStringLiteral("A 'path' is required."));
        }
    }

    void requirePathKeepsThePathUntrimmed() {
        QCOMPARE(PathResolver::requirePath(
                     QJsonObject{{QStringLiteral("path"), QStringLiteral("/R/a.txt/")}}),
                 QStringLiteral("/R/a.txt/"));
    }

    void innerPathKeepsDoubleSlashesLexically() {
        QCOMPARE(PathResolver::resolve(QStringLiteral("Reports//a//b/./c"), twoFolders).item,
                 QStringLiteral("/Users/u/Reports/a/b/c"));
    }

    void storedPathIsStandardisedForTheRoot() {
        const QList<SharedFolder> folders{
            folder(QStringLiteral("R"), QStringLiteral("/a/./b//c/../R/")),
            folder(QStringLiteral("S"), QStringLiteral("/s"))};
        const auto resolved = PathResolver::resolve(QStringLiteral("R/x"), folders);
        QCOMPARE(resolved.root, QStringLiteral("/a/b/R"));
        QCOMPARE(resolved.item, QStringLiteral("/a/b/R/x"));
    }

    void canonicallyEquivalentNamesMatch() {
        const QList<SharedFolder> folders{folder(QStringLiteral("Caf\u00e9"), QStringLiteral("/c")),
                                          folder(QStringLiteral("x"), QStringLiteral("/x"))};
        QCOMPARE(PathResolver::resolve(QStringLiteral("Cafe\u0301/a"), folders).item,
                 QStringLiteral("/c/a"));
    }

    void standardizeIsLexical() {
        QCOMPARE(PathResolver::standardize(QStringLiteral("/")), QStringLiteral("/"));
        QCOMPARE(PathResolver::standardize(QStringLiteral("/..")), QStringLiteral("/"));
        QCOMPARE(PathResolver::standardize(QStringLiteral("/a/../../b")), QStringLiteral("/b"));
        QCOMPARE(PathResolver::standardize(QStringLiteral("//a//b/")), QStringLiteral("/a/b"));
        QCOMPARE(PathResolver::standardize(QStringLiteral("/a/.../b")), QStringLiteral("/a/.../b"));
        QCOMPARE(PathResolver::standardize(QStringLiteral("rel")),
                 QDir::currentPath() + QStringLiteral("/rel"));
    }

    void nulBytesNeverReachTheSystem() {
        QVERIFY(!PathResolver::nativePath(QStringLiteral("/a/..") + QChar(u'\0') +
                                          QStringLiteral("/b")));
        QCOMPARE(PathResolver::nativePath(QStringLiteral("/a/\u00e9")),
                 std::optional<QByteArray>("/a/\xc3\xa9"));
        // A NUL after ".." must not turn into a real ".." once the string is cut at the NUL.
        const QString sneaky = QStringLiteral("Reports/..") + QChar(u'\0');
        const auto resolved = PathResolver::resolve(sneaky, twoFolders);
        QVERIFY(resolved.item.startsWith(QStringLiteral("/Users/u/Reports/")));
        QVERIFY(!PathResolver::nativePath(resolved.item));
    }
};

QTEST_GUILESS_MAIN(PathResolverTest)
#include "tst_pathresolver.moc"
