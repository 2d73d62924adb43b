// Keeping what agents' writes replace, and putting it back: real files in a temporary tree,
// written through the writing tool with a recorder that keeps versions as the companion does.

#include "AccessPolicy.h"
#include "FileService.h"
#include "FileState.h"
#include "TempTree.h"
#include "VersionStore.h"
#include "WriteRecorder.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>
#include <QUuid>

namespace {

QByteArray contents(const QString& path) {
    return TempTree::contents(path);
}

void overwrite(const QString& path, const QByteArray& bytes) {
    QVERIFY(TempTree::overwrite(path, bytes));
}

// Keeps versions in `store`, as the companion does with what its worker reports.
class StoreRecorder : public WriteRecorder {
public:
    explicit StoreRecorder(VersionStore& store) : m_store(store) {}

    void replacing(const PendingWrite& write, int previous, const struct stat& before) override {
        kept = m_store.keep(write.path, write.target.realPath, previous, FileState::of(before));
    }
    void written(const PendingWrite& write, bool created, const struct stat* after) override {
        if (!after) {
            return;
        }
        if (created) {
            kept = m_store.recordCreated(write.path, write.target.realPath, FileState::of(*after));
        } else if (!kept.id.isEmpty() && !skipFinish) {
            m_store.finish(kept.id, FileState::of(*after));
        }
    }

    VersionStore::Kept kept;
    // Behaves as if the worker stopped before it could report how the write ended.
    bool skipFinish = false;

private:
    VersionStore& m_store;
};

} // namespace

class VersionStoreTest : public QObject {
    Q_OBJECT

    std::unique_ptr<TempTree> m_tree;
    QList<SharedFolder> m_folders;

    VersionStore store(qint64 bytes = qint64(1) << 30) const {
        VersionStore::Budget budget;
        budget.bytes = bytes;
        return VersionStore(m_tree->path(QStringLiteral("own/versions")), budget);
    }

    AccessPolicy policy() const {
        return AccessPolicy(m_folders, {m_tree->path(QStringLiteral("own"))});
    }

    // One agent write through the tool; the error text, empty when it worked.
    QString write(StoreRecorder& recorder, const QString& path, const QJsonObject& content) {
        QJsonObject params = content;
        params.insert(QStringLiteral("path"), path);
        const QJsonObject result = FileService::execute(
                                       QStringLiteral("local_write_file"), params, policy(),
                                       [](const QString&, qint64) { return true; }, &recorder)
                                       .toObject();
        return result.value(QStringLiteral("error")).toString();
    }

    QString write(StoreRecorder& recorder, const QString& path, const QString& text) {
        return write(recorder, path, QJsonObject{{QStringLiteral("content"), text}});
    }

private slots:
    void init() {
        m_tree = std::make_unique<TempTree>();
        m_tree->file(QStringLiteral("Docs/notes.txt"), QByteArray("original\0bytes\xff", 15));
        m_tree->dir(QStringLiteral("own"));
        m_folders = {SharedFolder{QUuid::createUuid(), QStringLiteral("Docs"),
                                  m_tree->path(QStringLiteral("Docs")), std::nullopt}};
    }

    void emptiedFileIsRestoredByteForByte() {
        VersionStore versions = store();
        StoreRecorder recorder(versions);
        // Invalid base64 and no content: the file is emptied and the write reports success.
        QCOMPARE(write(recorder, QStringLiteral("Docs/notes.txt"),
                       QJsonObject{{QStringLiteral("content_base64"), QStringLiteral("@@@")}}),
                 QString());
        QCOMPARE(contents(m_tree->path(QStringLiteral("Docs/notes.txt"))), QByteArray());
        QVERIFY2(!recorder.kept.id.isEmpty(), qPrintable(recorder.kept.problem));

        const QList<VersionRecord> records = versions.list();
        QCOMPARE(records.size(), 1);
        QCOMPARE(records[0].agentPath, QStringLiteral("Docs/notes.txt"));
        QCOMPARE(records[0].size, 15);
        QVERIFY(records[0].after.has_value());
        QVERIFY(!records[0].created);

        const VersionStore::Restored restored = versions.restore(recorder.kept.id, policy());
        QVERIFY2(restored.ok, qPrintable(restored.message));
        QCOMPARE(restored.message,
                 QStringLiteral("Restored Docs/notes.txt as it was before the agent's write."));
        QCOMPARE(contents(m_tree->path(QStringLiteral("Docs/notes.txt"))),
                 QByteArray("original\0bytes\xff", 15));
        QVERIFY(versions.list().isEmpty());
        // The kept copy is private to the user.
        QCOMPARE(QFile::permissions(versions.directory()) & 0x0077, QFileDevice::Permissions());
    }

    void fileChangedSinceIsLeftAlone() {
        VersionStore versions = store();
        StoreRecorder recorder(versions);
        QCOMPARE(write(recorder, QStringLiteral("Docs/notes.txt"), QStringLiteral("agent")),
                 QString());
        overwrite(m_tree->path(QStringLiteral("Docs/notes.txt")), "the user's own edit");
        const VersionStore::Restored restored = versions.restore(recorder.kept.id, policy());
        QVERIFY(!restored.ok);
        QCOMPARE(restored.message, QStringLiteral("Docs/notes.txt has changed since the agent "
                                                  "wrote it, so it was not restored."));
        QCOMPARE(contents(m_tree->path(QStringLiteral("Docs/notes.txt"))),
                 QByteArray("the user's own edit"));
        QCOMPARE(versions.list().size(), 1);

        QFile::remove(m_tree->path(QStringLiteral("Docs/notes.txt")));
        QVERIFY(!versions.restore(recorder.kept.id, policy()).ok);
        QVERIFY(!QFile::exists(m_tree->path(QStringLiteral("Docs/notes.txt"))));
    }

    void writeThatNeverReportedBackCanBeRepaired() {
        VersionStore versions = store();
        StoreRecorder recorder(versions);
        recorder.skipFinish = true;
        QCOMPARE(write(recorder, QStringLiteral("Docs/notes.txt"), QStringLiteral("half")),
                 QString());
        QVERIFY(!versions.list().at(0).after.has_value());
        const VersionStore::Restored restored = versions.restore(recorder.kept.id, policy());
        QVERIFY2(restored.ok, qPrintable(restored.message));
        QCOMPARE(contents(m_tree->path(QStringLiteral("Docs/notes.txt"))),
                 QByteArray("original\0bytes\xff", 15));
    }

    void createdFileIsRemoved() {
        VersionStore versions = store();
        StoreRecorder recorder(versions);
        QCOMPARE(write(recorder, QStringLiteral("Docs/new/made.txt"), QStringLiteral("new")),
                 QString());
        const QList<VersionRecord> records = versions.list();
        QCOMPARE(records.size(), 1);
        QVERIFY(records[0].created);
        QCOMPARE(records[0].size, 0);
        const VersionStore::Restored restored = versions.restore(records[0].id, policy());
        QVERIFY2(restored.ok, qPrintable(restored.message));
        QCOMPARE(restored.message,
                 QStringLiteral("Removed Docs/new/made.txt, which the agent had created."));
        QVERIFY(!QFile::exists(m_tree->path(QStringLiteral("Docs/new/made.txt"))));
    }

    void writesAreUndoneOneAfterAnother() {
        VersionStore versions = store();
        StoreRecorder recorder(versions);
        QCOMPARE(write(recorder, QStringLiteral("Docs/notes.txt"), QStringLiteral("first")),
                 QString());
        const QString first = recorder.kept.id;
        QCOMPARE(write(recorder, QStringLiteral("Docs/notes.txt"), QStringLiteral("second")),
                 QString());
        const QString second = recorder.kept.id;
        QVERIFY(second.toLongLong() > first.toLongLong());
        // The older one first would skip the newer write: refused.
        QVERIFY(!versions.restore(first, policy()).ok);
        QVERIFY(versions.restore(second, policy()).ok);
        QCOMPARE(contents(m_tree->path(QStringLiteral("Docs/notes.txt"))), QByteArray("first"));
        const VersionStore::Restored back = versions.restore(first, policy());
        QVERIFY2(back.ok, qPrintable(back.message));
        QCOMPARE(contents(m_tree->path(QStringLiteral("Docs/notes.txt"))),
                 QByteArray("original\0bytes\xff", 15));
    }

    void budgetDropsTheOldestFirst() {
        VersionStore versions = store(100);
        StoreRecorder recorder(versions);
        QStringList ids;
        for (int i = 0; i < 4; ++i) {
            overwrite(m_tree->path(QStringLiteral("Docs/f%1.txt").arg(i)), QByteArray(40, 'a' + i));
            QCOMPARE(write(recorder, QStringLiteral("Docs/f%1.txt").arg(i), QStringLiteral("x")),
                     QString());
            QVERIFY2(!recorder.kept.id.isEmpty(), qPrintable(recorder.kept.problem));
            ids << recorder.kept.id;
        }
        // 4 x 40 bytes against 100: only the two newest fit.
        QStringList left;
        for (const VersionRecord& record : versions.list()) {
            left << record.id;
        }
        QCOMPARE(left, (QStringList{ids[3], ids[2]}));
        QVERIFY(!QFile::exists(versions.directory() + u'/' + ids[0] + QStringLiteral(".bytes")));
        QVERIFY(!QFile::exists(versions.directory() + u'/' + ids[1] + QStringLiteral(".json")));
        QCOMPARE(versions.restore(ids[0], policy()).message,
                 QStringLiteral("There is no kept version with the id %1.").arg(ids[0]));
    }

    void fileLargerThanTheBudgetIsNotKept() {
        VersionStore versions = store(10);
        StoreRecorder recorder(versions);
        QCOMPARE(write(recorder, QStringLiteral("Docs/notes.txt"), QStringLiteral("x")), QString());
        QVERIFY(recorder.kept.id.isEmpty());
        QCOMPARE(recorder.kept.problem, QStringLiteral("it is larger than the 10 bytes kept for "
                                                       "restoring"));
        QVERIFY(versions.list().isEmpty());
        // The write itself went ahead: the user allowed it.
        QCOMPARE(contents(m_tree->path(QStringLiteral("Docs/notes.txt"))), QByteArray("x"));
    }

    void oldVersionsExpire() {
        VersionStore versions = store();
        StoreRecorder recorder(versions);
        QCOMPARE(write(recorder, QStringLiteral("Docs/notes.txt"), QStringLiteral("x")), QString());
        const QString id = recorder.kept.id;
        // Make the record 31 days old.
        const QString recordFile = versions.directory() + u'/' + id + QStringLiteral(".json");
        QJsonObject record = QJsonDocument::fromJson(contents(recordFile)).object();
        record.insert(QStringLiteral("time"),
                      QDateTime::currentDateTimeUtc().addDays(-31).toString(Qt::ISODateWithMs));
        overwrite(recordFile, QJsonDocument(record).toJson());
        QCOMPARE(versions.list().size(), 1);
        versions.prune();
        QVERIFY(versions.list().isEmpty());
    }

    void placeNoLongerSharedIsRefused() {
        VersionStore versions = store();
        StoreRecorder recorder(versions);
        QCOMPARE(write(recorder, QStringLiteral("Docs/notes.txt"), QStringLiteral("x")), QString());
        const AccessPolicy nothingShared({}, {});
        const VersionStore::Restored restored = versions.restore(recorder.kept.id, nothingShared);
        QVERIFY(!restored.ok);
        QCOMPARE(restored.message, QStringLiteral("Docs/notes.txt is no longer in a shared folder, "
                                                  "so it was not restored."));
        QCOMPARE(contents(m_tree->path(QStringLiteral("Docs/notes.txt"))), QByteArray("x"));
    }

    void keepingTurnedOffKeepsNothing() {
        VersionStore versions = store(0);
        QVERIFY(!versions.keepsVersions());
        StoreRecorder recorder(versions);
        QCOMPARE(write(recorder, QStringLiteral("Docs/notes.txt"), QStringLiteral("x")), QString());
        QVERIFY(recorder.kept.id.isEmpty());
        QVERIFY(!QDir(versions.directory()).exists());
    }

    void damagedRecordsAreSkipped() {
        VersionStore versions = store();
        QDir().mkpath(versions.directory());
        overwrite(versions.directory() + QStringLiteral("/7.json"), "{not json");
        overwrite(versions.directory() + QStringLiteral("/../8.json"), "{}");
        QVERIFY(versions.list().isEmpty());
        QVERIFY(!versions.find(QStringLiteral("../8")).has_value());
        QCOMPARE(versions.restore(QStringLiteral("7"), policy()).message,
                 QStringLiteral("There is no kept version with the id 7."));
        // A new version takes the next id after the damaged one.
        StoreRecorder recorder(versions);
        QCOMPARE(write(recorder, QStringLiteral("Docs/notes.txt"), QStringLiteral("x")), QString());
        QCOMPARE(recorder.kept.id, QStringLiteral("8"));
    }
};

QTEST_GUILESS_MAIN(VersionStoreTest)
#include "tst_versionstore.moc"
