#include "AppSettings.h"
#include "FolderChooser.h"
#include "FolderStore.h"
#include "TempTree.h"

#include <QCoroTask>
#include <QSettings>
#include <QStandardPaths>
#include <QTest>

namespace {

class ScriptedChooser : public FolderChooser {
public:
    std::optional<QString> answer;
    QString prompt;
    QString message;
    int shown = 0;

    QCoro::Task<std::optional<QString>> chooseFolder(QString p, QString m) override {
        ++shown;
        prompt = p;
        message = m;
        // A copy: GCC 12 moves from a member named in co_return.
        const std::optional<QString> given = answer;
        co_return given;
    }
};

SharedFolder named(const QString& name) {
    return SharedFolder{QUuid::createUuid(), name, QStringLiteral("/x/") + name, std::nullopt};
}

} // namespace

class FolderStoreTest : public QObject {
    Q_OBJECT

    std::unique_ptr<TempTree> home;
    std::shared_ptr<ScriptedChooser> chooser;

private slots:
    void init() {
        home = std::make_unique<TempTree>();
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(home->dir(QStringLiteral("config"))));
        QFile::remove(AppSettings::filePath());
        QVERIFY(AppSettings::filePath().startsWith(home->path()));
        chooser = std::make_shared<ScriptedChooser>();
    }

    void nothingStoredLoadsEmpty() { QVERIFY(FolderStore::load().isEmpty()); }

    void garbageLoadsEmptyAndIsLeftAlone() {
        AppSettings::setData(QStringLiteral("shared_folders"), "{not json");
        QVERIFY(FolderStore::load().isEmpty());
        QCOMPARE(AppSettings::data(QStringLiteral("shared_folders")),
                 std::optional<QByteArray>("{not json"));
        AppSettings::setData(
            QStringLiteral("shared_folders"),
            R"([{"id":"0F8FAD5B-D9CB-469F-A165-70867728950E","name":"A","path":"/a"},{"name":"B"}])");
        QVERIFY(FolderStore::load().isEmpty());
    }

    void valueOfAnotherTypeLoadsEmpty() {
        auto settings = AppSettings::open();
        settings->setValue(QStringLiteral("shared_folders"), QStringLiteral("[]"));
        settings->sync();
        QVERIFY(!AppSettings::data(QStringLiteral("shared_folders")));
        QVERIFY(FolderStore::load().isEmpty());
    }

    void emptyListStoresEmptyArray() {
        FolderStore::save({});
        QCOMPARE(AppSettings::data(QStringLiteral("shared_folders")),
                 std::optional<QByteArray>("[]"));
        QVERIFY(FolderStore::load().isEmpty());
    }

    void saveAndLoadKeepOrderAndBytes() {
        const QList<SharedFolder> folders{named(QStringLiteral("B")), named(QStringLiteral("A"))};
        FolderStore::save(folders);
        QCOMPARE(FolderStore::load(), folders);
        QCOMPARE(AppSettings::data(QStringLiteral("shared_folders")),
                 std::optional<QByteArray>(SharedFolder::encodeList(folders)));
        // Survives a fresh settings object (a restart).
        QSettings raw(AppSettings::filePath(), QSettings::IniFormat);
        QCOMPARE(raw.value(QStringLiteral("shared_folders")).toByteArray(),
                 SharedFolder::encodeList(folders));
    }

    void namesGetNumberedSuffixes() {
        QCOMPARE(FolderStore::uniqueName(
                     QStringLiteral("Documents"),
                     {named(QStringLiteral("Documents")), named(QStringLiteral("Documents 2"))}),
                 QStringLiteral("Documents 3"));
        QCOMPARE(FolderStore::uniqueName(QStringLiteral("Documents"),
                                         {named(QStringLiteral("Documents 2"))}),
                 QStringLiteral("Documents"));
        QCOMPARE(FolderStore::uniqueName(QStringLiteral("Documents"),
                                         {named(QStringLiteral("documents"))}),
                 QStringLiteral("Documents"));
        QCOMPARE(FolderStore::uniqueName(QStringLiteral("Documents"),
                                         {named(QStringLiteral("Documents"))}),
                 QStringLiteral("Documents 2"));
    }

    void choosingAsksTheChooser() {
        TempTree tree;
        chooser->answer = tree.dir(QStringLiteral("Documents"));
        const std::optional<QString> chosen = QCoro::waitFor(FolderStore::choosePath(*chooser));
        QCOMPARE(chosen, chooser->answer);
        QCOMPARE(chooser->prompt, QStringLiteral("Share with agents"));
        QCOMPARE(chooser->message,
                 QStringLiteral("Choose a folder Quillmar agents may read and write."));
    }

    void aChosenFolderMakesARecord() {
        TempTree tree;
        chooser->answer = tree.dir(QStringLiteral("Documents"));
        const auto existing = QList<SharedFolder>{named(QStringLiteral("Documents"))};
        const std::optional<QString> chosen = QCoro::waitFor(FolderStore::choosePath(*chooser));
        QVERIFY(chosen);
        const SharedFolder picked = FolderStore::makeRecord(*chosen, existing);
        QCOMPARE(picked.name, QStringLiteral("Documents 2"));
        QCOMPARE(picked.path, tree.path(QStringLiteral("Documents")));
        QVERIFY(picked.bookmark);
        QCOMPARE(FolderStore::resolveBookmark(*picked.bookmark),
                 std::optional<QString>(picked.path));
        QVERIFY(!picked.id.isNull());
        // neither saves
        QVERIFY(!AppSettings::data(QStringLiteral("shared_folders")));
    }

    void pickingTheSameFolderTwiceGivesTwoRecords() {
        TempTree tree;
        chooser->answer = tree.dir(QStringLiteral("Work"));
        const std::optional<QString> chosen = QCoro::waitFor(FolderStore::choosePath(*chooser));
        QVERIFY(chosen);
        const SharedFolder first = FolderStore::makeRecord(*chosen, {});
        const SharedFolder second = FolderStore::makeRecord(*chosen, {first});
        QVERIFY(first.id != second.id);
        QCOMPARE(first.name, QStringLiteral("Work"));
        QCOMPARE(second.name, QStringLiteral("Work 2"));
        QCOMPARE(first.path, second.path);
    }

    void cancelledChooserGivesNothing() {
        chooser->answer.reset();
        QVERIFY(!QCoro::waitFor(FolderStore::choosePath(*chooser)));
        QCOMPARE(chooser->shown, 1);
        chooser->answer = QString();
        QVERIFY(!QCoro::waitFor(FolderStore::choosePath(*chooser)));
    }

    void recordWithoutBookmarkPassesThroughUnactivated() {
        const SharedFolder plain = named(QStringLiteral("Plain"));
        QCOMPARE(FolderStore::activate({plain}), QList<SharedFolder>{plain});
    }

    void unresolvableBookmarkKeepsTheRecord() {
        SharedFolder gone = named(QStringLiteral("Gone"));
        gone.bookmark = FolderStore::makeBookmark(QStringLiteral("/definitely/not/here"));
        SharedFolder junk = named(QStringLiteral("Junk"));
        junk.bookmark = QByteArray("\x01\x02 not a url");
        QCOMPARE(FolderStore::activate({gone, junk}), (QList<SharedFolder>{gone, junk}));
    }

    void bookmarkPathReplacesStoredPath() {
        TempTree tree;
        SharedFolder stale = named(QStringLiteral("Moved"));
        stale.path = QStringLiteral("/old/place");
        stale.bookmark = FolderStore::makeBookmark(tree.dir(QStringLiteral("new place")));
        const QList<SharedFolder> activated = FolderStore::activate({stale});
        QCOMPARE(activated.size(), 1);
        QCOMPARE(activated[0].path, tree.path(QStringLiteral("new place")));
        QCOMPARE(activated[0].id, stale.id);
        QCOMPARE(activated[0].name, stale.name);
        QCOMPARE(activated[0].bookmark, stale.bookmark);
    }

    void makeRecordNamesFromLastComponent() {
        const SharedFolder record =
            FolderStore::makeRecord(QStringLiteral("/srv/data/Projects/"), {});
        QCOMPARE(record.name, QStringLiteral("Projects"));
        QCOMPARE(record.path, QStringLiteral("/srv/data/Projects"));
    }

    void booleanSettingsKeepTheirType() {
        QCOMPARE(AppSettings::boolean(QStringLiteral("require_write_approval")), std::nullopt);
        AppSettings::setBoolean(QStringLiteral("require_write_approval"), false);
        QCOMPARE(AppSettings::boolean(QStringLiteral("require_write_approval")),
                 std::optional<bool>(false));
        auto settings = AppSettings::open();
        settings->setValue(QStringLiteral("require_write_approval"), QStringLiteral("no"));
        settings->sync();
        QCOMPARE(AppSettings::boolean(QStringLiteral("require_write_approval")), std::nullopt);
    }
};

QTEST_GUILESS_MAIN(FolderStoreTest)
#include "tst_folderstore.moc"
