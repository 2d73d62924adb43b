#include "AppIdentity.h"
#include "Confinement.h"
#include "FileWorker.h"
#include "RenameRace.h"
#include "TempTree.h"
#include "TreeSnapshot.h"

#include <QCoroTask>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMap>
#include <QSet>
#include <QTest>
#include <QUuid>

#include <functional>
#include <memory>
#include <utility>

#include <stdio.h>
#include <sys/stat.h>

// Drives a real worker process through every way out of the shared folders we know of, and
// proves that nothing outside them, nor any of the companion's own files, is read, listed or
// written. Registered twice: with the kernel confining the worker, and with the companion's
// own checks alone (QUILLMAR_KERNEL_CONFINEMENT=off), which must hold by themselves.

namespace {

const QString outside = QStringLiteral("Path leads outside the shared folders.");
const QString ownFiles = QStringLiteral("The companion's own files cannot be reached.");
const QString escapes = QStringLiteral("Path escapes the shared folder.");

const QString listTool = QStringLiteral("local_list_files");
const QString readTool = QStringLiteral("local_read_file");
const QString searchTool = QStringLiteral("local_search_files");
const QString writeTool = QStringLiteral("local_write_file");

bool lexists(const QString& path) {
    struct stat info {};
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0;
}

QByteArray compact(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QByteArray marker(const char* what) {
    return QByteArray(what) + '-' + QUuid::createUuid().toByteArray(QUuid::WithoutBraces);
}

} // namespace

class EscapeTest : public QObject {
    Q_OBJECT

private:
    QJsonObject call(const QString& method, const QJsonObject& params);
    QJsonObject callPath(const QString& method, const QString& path);
    QCoro::Task<bool> approve(QString shownPath, qint64 bytes);
    QString at(const QString& relative) const { return m_tree->path(relative); }
    // Every path of `matches` lies in S or T; when nothing is being moved about, each also
    // names a regular file reached without a link.
    void checkMatchesInside(const QJsonObject& answer, bool settled);

    std::unique_ptr<TempTree> m_tree;
    std::unique_ptr<FileWorker> m_worker;
    QStringList m_own;
    QStringList m_asked;
    // Run once while the next write is being asked about, as a local program might meanwhile.
    std::function<void()> m_whileAsked;
    // Content that no answer may ever carry: outside files and the companion's own.
    QList<QByteArray> m_secrets;
    // Names that no listing or search may show.
    QSet<QString> m_hiddenNames;
    QStringList m_leaks;
    // Places outside the tree that only a write which got out could make; removed again if
    // one does, so that a failing run leaves nothing behind.
    QStringList m_probes;
    TreeSnapshot m_outsideBefore;
    TreeSnapshot m_ownBefore;

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void confinement();
    void refused_data();
    void refused();
    void linkIntoOtherFolder();
    void pathsThatStayInside();
    void ownFilesLeftOutOfListings();
    void searchStaysInside_data();
    void searchStaysInside();
    void folderMovedWhileAsked();
    void renamesDuringCalls_data();
    void renamesDuringCalls();
};

QCoro::Task<bool> EscapeTest::approve(QString shownPath, qint64 bytes) {
    Q_UNUSED(bytes);
    m_asked.append(shownPath);
    if (m_whileAsked) {
        std::exchange(m_whileAsked, nullptr)();
    }
    co_return true;
}

QJsonObject EscapeTest::call(const QString& method, const QJsonObject& params) {
    const QJsonObject answer = QCoro::waitFor(m_worker->run(method, params)).toObject();
    const QByteArray text = compact(answer);
    const QString what = method + u' ' + QString::fromUtf8(compact(params)) +
                         QStringLiteral(" answered ") + QString::fromUtf8(text);
    for (const QByteArray& secret : std::as_const(m_secrets)) {
        if (text.contains(secret)) {
            m_leaks.append(what);
        }
    }
    for (const QJsonValue& item : answer.value(QStringLiteral("items")).toArray()) {
        if (m_hiddenNames.contains(item.toObject().value(QStringLiteral("name")).toString())) {
            m_leaks.append(what);
        }
    }
    for (const QJsonValue& match : answer.value(QStringLiteral("matches")).toArray()) {
        if (m_hiddenNames.contains(match.toString().section(u'/', -1))) {
            m_leaks.append(what);
        }
    }
    return answer;
}

QJsonObject EscapeTest::callPath(const QString& method, const QString& path) {
    QJsonObject params{{QStringLiteral("path"), path}};
    if (method == writeTool) {
        params.insert(QStringLiteral("content"), QStringLiteral("written by an agent"));
    }
    return call(method, params);
}

void EscapeTest::checkMatchesInside(const QJsonObject& answer, bool settled) {
    for (const QJsonValue& value : answer.value(QStringLiteral("matches")).toArray()) {
        const QString match = value.toString();
        QVERIFY2(match.startsWith(u"S/") || match.startsWith(u"T/"), qPrintable(match));
        if (!settled) {
            continue;
        }
        // Searches never go through links: the lexical place is the real one.
        const QFileInfo info(at(match));
        QVERIFY2(info.isFile() && !info.isSymLink(), qPrintable(match));
        QCOMPARE(info.canonicalFilePath(), QDir(at(QString())).canonicalPath() + u'/' + match);
    }
}

void EscapeTest::initTestCase() {
    m_tree = std::make_unique<TempTree>();
    const QString root = at(QString());

    // The companion's home is inside shared folder S, so only the policy keeps its files out.
    const QString home = at(QStringLiteral("S/home"));
    qputenv("HOME", QFile::encodeName(home));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home + QStringLiteral("/.config")));
    qputenv("XDG_DATA_HOME", QFile::encodeName(home + QStringLiteral("/.local/share")));
    qputenv("XDG_CACHE_HOME", QFile::encodeName(home + QStringLiteral("/.cache")));
    m_own = AppIdentity::ownFiles();
    QVERIFY(m_own.contains(home + QStringLiteral("/.config/app.quillmar.companion")));
    QVERIFY(m_own.contains(home + QStringLiteral("/.local/share/app.quillmar.companion")));

    const QByteArray secret = marker("outside-secret");
    const QByteArray secretMore = marker("outside-more");
    const QByteArray settings = marker("own-settings");
    const QByteArray token = marker("own-token");
    const QByteArray autostart = marker("own-autostart");
    m_secrets = {secret, secretMore, settings, token, autostart};
    m_hiddenNames = {QStringLiteral("secret.txt"),
                     QStringLiteral("more-outside.txt"),
                     QStringLiteral("outside-sub"),
                     QStringLiteral("settings.conf"),
                     QStringLiteral("device_token"),
                     QStringLiteral("app.quillmar.companion"),
                     QStringLiteral("app.quillmar.companion.desktop")};

    m_tree->file(QStringLiteral("outside/secret.txt"), secret);
    m_tree->file(QStringLiteral("outside/outside-sub/more-outside.txt"), secretMore);
    m_tree->symlink(QStringLiteral("outside/loop-back"), QStringLiteral("../S/loop-out"));

    m_tree->file(QStringLiteral("S/inside.txt"), "inside text");
    m_tree->file(QStringLiteral("S/sub/note.txt"), "note text");
    m_tree->file(QStringLiteral("S/home/.config/app.quillmar.companion/settings.conf"),
                 "[General]\nlabel=" + settings + '\n');
    m_tree->file(QStringLiteral("S/home/.config/autostart/app.quillmar.companion.desktop"),
                 autostart);
    m_tree->file(QStringLiteral("S/home/.config/autostart/other.desktop"), "[Desktop Entry]\n");
    m_tree->file(QStringLiteral("S/home/.local/share/app.quillmar.companion/device_token"), token);
    // No cache folder yet: the companion's own cache folder is still to appear there.
    m_tree->dir(QStringLiteral("S/stage"));
    m_tree->file(QStringLiteral("S/race-out/innocuous.txt"), "innocuous text");
    m_tree->symlink(QStringLiteral("S/race-out.swap"), QStringLiteral("../outside"));
    m_tree->file(QStringLiteral("S/race-own/innocuous.txt"), "innocuous text");
    m_tree->symlink(QStringLiteral("S/race-own.swap"),
                    QStringLiteral("home/.local/share/app.quillmar.companion"));

    m_tree->file(QStringLiteral("T/tfile.txt"), "t text");
    m_tree->file(QStringLiteral("T/tsub/tnote.txt"), "tsub text");
    m_tree->symlink(QStringLiteral("T/tsub/up"), QStringLiteral("../../outside"));
    m_tree->symlink(QStringLiteral("T/chain-t2"), QStringLiteral("../outside/secret.txt"));
    m_tree->symlink(QStringLiteral("T/own-data"),
                    QStringLiteral("../S/home/.local/share/app.quillmar.companion"));

    const QList<std::pair<const char*, QString>> links{
        {"S/file-abs", root + QStringLiteral("/outside/secret.txt")},
        {"S/file-rel", QStringLiteral("../outside/secret.txt")},
        {"S/outdir", QStringLiteral("../outside")},
        {"S/dangle-abs", QStringLiteral("/nonexistent/file")},
        {"S/dangle-rel", QStringLiteral("../outside/new.txt")},
        {"S/chain1", QStringLiteral("chain2")},
        {"S/chain2", QStringLiteral("chain3")},
        {"S/chain3", QStringLiteral("../outside/secret.txt")},
        {"S/chain-t", QStringLiteral("../T/chain-t2")},
        {"S/loop-a", QStringLiteral("loop-b")},
        {"S/loop-b", QStringLiteral("loop-a")},
        {"S/self", QStringLiteral("self")},
        {"S/loop-out", QStringLiteral("../outside/loop-back")},
        {"S/climb", QStringLiteral("sub/../../outside")},
        {"S/root", QStringLiteral("/")},
        {"S/parent", QStringLiteral("..")},
        {"S/tlink", QStringLiteral("../T")},
        {"S/tsublink", QStringLiteral("../T/tsub")},
        {"S/tclimb", QStringLiteral("../T/tsub/../../outside")},
        {"S/own-token", QStringLiteral("home/.local/share/app.quillmar.companion/device_token")},
        {"S/own-config", root + QStringLiteral("/S/home/.config/app.quillmar.companion")},
        {"S/config-link", QStringLiteral("home/.config")},
        {"S/up-through-missing", QStringLiteral("not-there/../../outside/x")},
        {"S/own-climb", QStringLiteral("sub/../home/.config/app.quillmar.companion/settings.conf")},
    };
    for (const auto& [link, target] : links) {
        m_tree->symlink(QString::fromLatin1(link), target);
    }
    m_probes = {QStringLiteral("/nonexistent"),
                QDir::tempPath() + QStringLiteral("/quillmar-escape-probe-") +
                    QString::number(QCoreApplication::applicationPid())};
    for (const QString& probe : std::as_const(m_probes)) {
        QVERIFY2(!lexists(probe), qPrintable(probe));
    }

    m_worker = std::make_unique<FileWorker>(
        QStringLiteral(QUILLMAR_FILE_WORKER_BIN),
        [this](QString shownPath, qint64 bytes) { return approve(std::move(shownPath), bytes); });
    FileWorker::Limits limits;
    limits.call = std::chrono::seconds(20);
    limits.start = std::chrono::seconds(10);
    m_worker->setLimits(limits);
    m_worker->setFolders({SharedFolder{QUuid::createUuid(), QStringLiteral("S"),
                                       at(QStringLiteral("S")), std::nullopt},
                          SharedFolder{QUuid::createUuid(), QStringLiteral("T"),
                                       at(QStringLiteral("T")), std::nullopt}});
    m_worker->setOwnFiles(m_own);
    // As the companion does: the environment decides.
    m_worker->setKernelConfinement(Confinement::wanted());

    const QJsonObject first = callPath(listTool, QStringLiteral("S"));
    QVERIFY2(!first.contains(QStringLiteral("error")),
             qPrintable(first.value(QStringLiteral("error")).toString()));
    QVERIFY(m_worker->processId() > 0);
}

void EscapeTest::cleanupTestCase() {
    m_worker.reset();
    m_tree.reset();
}

void EscapeTest::init() {
    m_leaks.clear();
    m_outsideBefore =
        TreeSnapshot::take(at(QString()), {at(QStringLiteral("S")), at(QStringLiteral("T"))});
    m_ownBefore = TreeSnapshot::takeEach(m_own);
}

void EscapeTest::cleanup() {
    QStringList made;
    for (const QString& probe : std::as_const(m_probes)) {
        if (!lexists(probe)) {
            continue;
        }
        made.append(probe);
        if (QFileInfo(probe).isDir()) {
            QDir(probe).removeRecursively();
        } else {
            QFile::remove(probe);
        }
    }
    QVERIFY2(made.isEmpty(), qPrintable(made.join(u' ')));
    QVERIFY2(m_leaks.isEmpty(), qPrintable(m_leaks.join(u'\n')));
    const QStringList outsideChanges =
        TreeSnapshot::take(at(QString()), {at(QStringLiteral("S")), at(QStringLiteral("T"))})
            .changesSince(m_outsideBefore);
    QVERIFY2(outsideChanges.isEmpty(), qPrintable(outsideChanges.join(u'\n')));
    const QStringList ownChanges = TreeSnapshot::takeEach(m_own).changesSince(m_ownBefore);
    QVERIFY2(ownChanges.isEmpty(), qPrintable(ownChanges.join(u'\n')));
}

void EscapeTest::confinement() {
    const Confinement& confinement = m_worker->confinement();
    qInfo("%s", qPrintable(confinement.text()));
    if (Confinement::wanted()) {
        QCOMPARE(confinement.kind(), Confinement::Kind::Kernel);
        QVERIFY(confinement.abi() >= 1);
    } else {
        QCOMPARE(confinement.kind(), Confinement::Kind::TurnedOff);
    }
    QVERIFY(m_outsideBefore.size() >= 5);
    QVERIFY(m_ownBefore.size() >= m_own.size() + 2);
}

void EscapeTest::refused_data() {
    QTest::addColumn<QString>("method");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("error");
    // Where a write that went wrong would have created something.
    QTest::addColumn<QStringList>("absent");

    const QString root = at(QString());
    const QString rootTop = root.section(u'/', 1, 1);
    const QString probe = m_probes.at(1);
    const QString noFolder =
        QStringLiteral("No shared folder named '%1'. Prefix the path with a folder name. "
                       "Shared folders: S, T.");
    const QString tooManyLinks = QStringLiteral("Too many levels of symbolic links");
    auto row = [](const char* name, const QString& method, const QString& path,
                  const QString& error, const QString& absent = QString(),
                  const QString& alsoAbsent = QString()) {
        QStringList places{absent, alsoAbsent};
        places.removeAll(QString());
        QTest::newRow(name) << method << path << error << places;
    };

    // Links to a file outside.
    for (const QString& link : {QStringLiteral("S/file-abs"), QStringLiteral("S/file-rel")}) {
        const QByteArray name = link.toLatin1();
        row(name + " read", readTool, link, outside);
        row(name + " list", listTool, link, outside);
        row(name + " write", writeTool, link, outside);
    }
    // A link to a folder outside, and below it.
    row("outdir list", listTool, QStringLiteral("S/outdir"), outside);
    row("outdir list below", listTool, QStringLiteral("S/outdir/outside-sub"), outside);
    row("outdir read", readTool, QStringLiteral("S/outdir/secret.txt"), outside);
    row("outdir read below", readTool, QStringLiteral("S/outdir/outside-sub/more-outside.txt"),
        outside);
    row("outdir write existing", writeTool, QStringLiteral("S/outdir/secret.txt"), outside);
    row("outdir write new", writeTool, QStringLiteral("S/outdir/new.txt"), outside,
        at(QStringLiteral("outside/new.txt")));
    row("outdir write new folders", writeTool, QStringLiteral("S/outdir/deep/er/x.txt"), outside,
        at(QStringLiteral("outside/deep")));
    // Dangling links to outside: a write must not create their targets.
    row("dangling absolute write", writeTool, QStringLiteral("S/dangle-abs"), outside,
        QStringLiteral("/nonexistent"));
    row("dangling absolute read", readTool, QStringLiteral("S/dangle-abs"), outside);
    row("dangling absolute list", listTool, QStringLiteral("S/dangle-abs"), outside);
    row("dangling absolute write below", writeTool, QStringLiteral("S/dangle-abs/below.txt"),
        outside, QStringLiteral("/nonexistent"));
    row("dangling relative write", writeTool, QStringLiteral("S/dangle-rel"), outside,
        at(QStringLiteral("outside/new.txt")));
    row("dangling relative read", readTool, QStringLiteral("S/dangle-rel"), outside);
    // Chains of links.
    row("chain read", readTool, QStringLiteral("S/chain1"), outside);
    row("chain list", listTool, QStringLiteral("S/chain1"), outside);
    row("chain write", writeTool, QStringLiteral("S/chain1"), outside);
    row("chain through T read", readTool, QStringLiteral("S/chain-t"), outside);
    row("chain through T write", writeTool, QStringLiteral("S/chain-t"), outside);
    // Loops end the walk where it stands, inside the folder: nothing is there to reach.
    row("loop read", readTool, QStringLiteral("S/loop-a"),
        QStringLiteral("File not found: S/loop-a"));
    row("loop list", listTool, QStringLiteral("S/loop-a"),
        QStringLiteral("Path not found: S/loop-a"));
    row("loop write", writeTool, QStringLiteral("S/loop-a"),
        QStringLiteral("Could not write 'S/loop-a': %1.").arg(tooManyLinks));
    row("loop write below", writeTool, QStringLiteral("S/loop-a/x.txt"),
        QStringLiteral("Could not write 'S/loop-a/x.txt': %1.").arg(tooManyLinks));
    row("self read", readTool, QStringLiteral("S/self"), QStringLiteral("File not found: S/self"));
    row("self list", listTool, QStringLiteral("S/self"), QStringLiteral("Path not found: S/self"));
    row("self write", writeTool, QStringLiteral("S/self"),
        QStringLiteral("Could not write 'S/self': %1.").arg(tooManyLinks));
    row("loop through outside read", readTool, QStringLiteral("S/loop-out"),
        QStringLiteral("File not found: S/loop-out"));
    row("loop through outside write", writeTool, QStringLiteral("S/loop-out"),
        QStringLiteral("Could not write 'S/loop-out': %1.").arg(tooManyLinks));
    // ".." inside a link's target climbs from where the link leads.
    row("climbing link list", listTool, QStringLiteral("S/climb"), outside);
    row("climbing link read", readTool, QStringLiteral("S/climb/secret.txt"), outside);
    row("climbing link write", writeTool, QStringLiteral("S/climb/new.txt"), outside,
        at(QStringLiteral("outside/new.txt")));
    // A link to the root and to the shared folder's parent.
    row("root list", listTool, QStringLiteral("S/root"), outside);
    row("root read", readTool, QStringLiteral("S/root/etc/passwd"), outside);
    row("root read secret", readTool,
        QStringLiteral("S/root") + root + QStringLiteral("/outside/secret.txt"), outside);
    row("root write", writeTool, QStringLiteral("S/root") + probe, outside, probe);
    row("parent list", listTool, QStringLiteral("S/parent"), outside);
    row("parent list outside", listTool, QStringLiteral("S/parent/outside"), outside);
    row("parent read", readTool, QStringLiteral("S/parent/outside/secret.txt"), outside);
    row("parent write", writeTool, QStringLiteral("S/parent/new.txt"), outside,
        at(QStringLiteral("new.txt")));
    // Into T, then out of it again.
    row("into T climbing list", listTool, QStringLiteral("S/tclimb"), outside);
    row("into T climbing read", readTool, QStringLiteral("S/tclimb/secret.txt"), outside);
    row("into T climbing write", writeTool, QStringLiteral("S/tclimb/new.txt"), outside,
        at(QStringLiteral("outside/new.txt")));
    row("into T then its link list", listTool, QStringLiteral("S/tsublink/up"), outside);
    row("into T then its link read", readTool, QStringLiteral("S/tsublink/up/secret.txt"), outside);
    row("into T then its link write", writeTool, QStringLiteral("S/tsublink/up/new.txt"), outside,
        at(QStringLiteral("outside/new.txt")));
    row("T's own link read", readTool, QStringLiteral("T/tsub/up/secret.txt"), outside);
    // ".." after a folder that does not exist cannot be followed, so nothing is made.
    row("up through a missing folder write", writeTool, QStringLiteral("S/up-through-missing"),
        QStringLiteral("Could not write 'S/up-through-missing': No such file or directory."),
        at(QStringLiteral("outside/x")), at(QStringLiteral("S/not-there")));

    // The companion's own files, inside S.
    const QString config = QStringLiteral("S/home/.config/app.quillmar.companion");
    const QString data = QStringLiteral("S/home/.local/share/app.quillmar.companion");
    const QString desktop =
        QStringLiteral("S/home/.config/autostart/app.quillmar.companion.desktop");
    row("settings read", readTool, config + QStringLiteral("/settings.conf"), ownFiles);
    row("settings write", writeTool, config + QStringLiteral("/settings.conf"), ownFiles);
    row("settings folder list", listTool, config, ownFiles);
    row("settings folder write new", writeTool, config + QStringLiteral("/new.txt"), ownFiles,
        at(config + QStringLiteral("/new.txt")));
    row("token read", readTool, data + QStringLiteral("/device_token"), ownFiles);
    row("token write", writeTool, data + QStringLiteral("/device_token"), ownFiles);
    row("data folder list", listTool, data, ownFiles);
    row("data folder write new", writeTool, data + QStringLiteral("/new/x.txt"), ownFiles,
        at(data + QStringLiteral("/new")));
    row("autostart entry read", readTool, desktop, ownFiles);
    row("autostart entry write", writeTool, desktop, ownFiles);
    row("cache folder not made yet", writeTool,
        QStringLiteral("S/home/.cache/app.quillmar.companion/x"), ownFiles,
        at(QStringLiteral("S/home/.cache")));
    row("token through link read", readTool, QStringLiteral("S/own-token"), ownFiles);
    row("token through link write", writeTool, QStringLiteral("S/own-token"), ownFiles);
    row("settings folder through link list", listTool, QStringLiteral("S/own-config"), ownFiles);
    row("settings through link read", readTool, QStringLiteral("S/own-config/settings.conf"),
        ownFiles);
    row("settings through link write", writeTool, QStringLiteral("S/own-config/settings.conf"),
        ownFiles);
    row("settings through climbing link read", readTool, QStringLiteral("S/own-climb"), ownFiles);
    row("settings through climbing link write", writeTool, QStringLiteral("S/own-climb"), ownFiles);
    row("settings through dot-dot read", readTool,
        QStringLiteral("S/home/.config/autostart/../app.quillmar.companion/settings.conf"),
        ownFiles);
    row("token through dot-dot write", writeTool,
        QStringLiteral("S/sub/../home/.local/share/app.quillmar.companion/device_token"), ownFiles);
    row("settings out and back in read", readTool,
        QStringLiteral("S/parent/S/home/.config/app.quillmar.companion/settings.conf"), ownFiles);
    row("token through root link read", readTool,
        QStringLiteral("S/root") + root +
            QStringLiteral("/S/home/.local/share/app.quillmar.companion/device_token"),
        ownFiles);
    row("data folder from T list", listTool, QStringLiteral("T/own-data"), ownFiles);
    row("token from T read", readTool, QStringLiteral("T/own-data/device_token"), ownFiles);
    row("data folder from T write", writeTool, QStringLiteral("T/own-data/new.txt"), ownFiles,
        at(data + QStringLiteral("/new.txt")));

    // Lexical escapes are refused before anything is looked at.
    row("dot-dot read", readTool, QStringLiteral("S/../outside/secret.txt"), escapes);
    row("dot-dot list", listTool, QStringLiteral("S/.."), escapes);
    row("dot-dot write", writeTool, QStringLiteral("S/../outside/new.txt"), escapes,
        at(QStringLiteral("outside/new.txt")));
    row("dot-dot deeper read", readTool, QStringLiteral("S/sub/../../outside/secret.txt"), escapes);
    row("dot-dot after link read", readTool, QStringLiteral("S/tlink/../../outside/secret.txt"),
        escapes);
    row("dot-dot into other folder list", listTool, QStringLiteral("T/../S"), escapes);
    row("dot-dot leading slash read", readTool, QStringLiteral("/S/../outside/secret.txt"),
        escapes);
    row("dot-dot write above", writeTool, QStringLiteral("S/sub/../../new.txt"), escapes,
        at(QStringLiteral("new.txt")));
    row("unshared folder read", readTool, QStringLiteral("outside/secret.txt"),
        noFolder.arg(QStringLiteral("outside")));
    row("absolute path read", readTool, root + QStringLiteral("/outside/secret.txt"),
        noFolder.arg(rootTop));
    row("absolute path write", writeTool, root + QStringLiteral("/outside/new.txt"),
        noFolder.arg(rootTop), at(QStringLiteral("outside/new.txt")));
    row("parent name list", listTool, QStringLiteral("../outside"),
        noFolder.arg(QStringLiteral("..")));
}

void EscapeTest::refused() {
    QFETCH(QString, method);
    QFETCH(QString, path);
    QFETCH(QString, error);
    QFETCH(QStringList, absent);

    const qsizetype asked = m_asked.size();
    QCOMPARE(compact(callPath(method, path)), compact({{QStringLiteral("error"), error}}));
    // Where the rule refuses a write, the user is not even asked about it. (A walk that failed
    // for another reason, a loop, is reported only when the write is made.)
    if (!error.startsWith(QStringLiteral("Could not "))) {
        QCOMPARE(m_asked.size(), asked);
    }
    for (const QString& place : absent) {
        QVERIFY2(!lexists(place), qPrintable(place));
    }
}

void EscapeTest::linkIntoOtherFolder() {
    QCOMPARE(compact(callPath(readTool, QStringLiteral("S/tlink/tfile.txt"))),
             compact({{QStringLiteral("path"), QStringLiteral("S/tlink/tfile.txt")},
                      {QStringLiteral("content"), QStringLiteral("t text")},
                      {QStringLiteral("truncated"), false}}));
    QCOMPARE(callPath(readTool, QStringLiteral("S/tsublink/tnote.txt"))
                 .value(QStringLiteral("content"))
                 .toString(),
             QStringLiteral("tsub text"));

    const QJsonObject listing = callPath(listTool, QStringLiteral("S/tlink"));
    QStringList names;
    for (const QJsonValue& item : listing.value(QStringLiteral("items")).toArray()) {
        names.append(item.toObject().value(QStringLiteral("name")).toString());
    }
    QVERIFY2(names.contains(QStringLiteral("tfile.txt")) && names.contains(QStringLiteral("tsub")),
             qPrintable(names.join(u' ')));

    const QString target = at(QStringLiteral("T/from-s.txt"));
    QFile::remove(target);
    QCOMPARE(compact(callPath(writeTool, QStringLiteral("S/tlink/from-s.txt"))),
             compact({{QStringLiteral("success"), true},
                      {QStringLiteral("path"), QStringLiteral("S/tlink/from-s.txt")},
                      {QStringLiteral("bytes"), 19}}));
    QCOMPARE(m_asked.last(), QStringLiteral("S/tlink/from-s.txt (a link to T/from-s.txt)"));
    QFile written(target);
    QVERIFY(written.open(QIODevice::ReadOnly));
    QCOMPARE(written.readAll(), QByteArray("written by an agent"));
    QVERIFY(!lexists(at(QStringLiteral("S/from-s.txt"))));

    QCOMPARE(callPath(writeTool, QStringLiteral("S/tsublink/made/inner.txt"))
                 .value(QStringLiteral("success")),
             QJsonValue(true));
    QVERIFY(QFileInfo(at(QStringLiteral("T/tsub/made/inner.txt"))).isFile());
}

void EscapeTest::pathsThatStayInside() {
    // ".." in the agent's path is applied to the path as written, not to a link's target.
    QCOMPARE(callPath(readTool, QStringLiteral("S/outdir/../inside.txt"))
                 .value(QStringLiteral("content"))
                 .toString(),
             QStringLiteral("inside text"));
    // Out through a link and back in again ends inside S, which is where the rule looks.
    QCOMPARE(callPath(readTool, QStringLiteral("S/parent/S/inside.txt"))
                 .value(QStringLiteral("content"))
                 .toString(),
             QStringLiteral("inside text"));
    QCOMPARE(callPath(readTool, QStringLiteral("S/root") + at(QStringLiteral("S/sub/note.txt")))
                 .value(QStringLiteral("content"))
                 .toString(),
             QStringLiteral("note text"));
}

void EscapeTest::ownFilesLeftOutOfListings() {
    const QMap<QString, QStringList> expected{
        {QStringLiteral("S/home"), {QStringLiteral(".config"), QStringLiteral(".local")}},
        {QStringLiteral("S/home/.config"), {QStringLiteral("autostart")}},
        {QStringLiteral("S/config-link"), {QStringLiteral("autostart")}},
        {QStringLiteral("S/home/.config/autostart"), {QStringLiteral("other.desktop")}},
        {QStringLiteral("S/home/.local/share"), {}},
    };
    for (auto it = expected.cbegin(); it != expected.cend(); ++it) {
        const QJsonObject listing = callPath(listTool, it.key());
        QStringList names;
        for (const QJsonValue& item : listing.value(QStringLiteral("items")).toArray()) {
            names.append(item.toObject().value(QStringLiteral("name")).toString());
        }
        QCOMPARE(names, it.value());
    }
}

void EscapeTest::searchStaysInside_data() {
    QTest::addColumn<QString>("query");
    QTest::addColumn<QStringList>("matches");
    QTest::newRow("secret") << QStringLiteral("secret*") << QStringList();
    QTest::newRow("outside") << QStringLiteral("*outside*") << QStringList();
    QTest::newRow("settings") << QStringLiteral("settings*") << QStringList();
    QTest::newRow("token") << QStringLiteral("device_token") << QStringList();
    QTest::newRow("own name") << QStringLiteral("*companion*") << QStringList();
    QTest::newRow("desktop") << QStringLiteral("*.desktop")
                             << QStringList{
                                    QStringLiteral("S/home/.config/autostart/other.desktop")};
    QTest::newRow("t files") << QStringLiteral("t*.txt")
                             << QStringList{QStringLiteral("T/tfile.txt"),
                                            QStringLiteral("T/tsub/tnote.txt")};
}

void EscapeTest::searchStaysInside() {
    QFETCH(QString, query);
    QFETCH(QStringList, matches);

    const QJsonObject answer =
        call(searchTool, {{QStringLiteral("query"), query}, {QStringLiteral("max_results"), 100}});
    QStringList found;
    for (const QJsonValue& match : answer.value(QStringLiteral("matches")).toArray()) {
        found.append(match.toString());
    }
    found.sort();
    QCOMPARE(found, matches);

    const QJsonObject everything = call(searchTool, {{QStringLiteral("query"), QStringLiteral("*")},
                                                     {QStringLiteral("max_results"), 100}});
    QVERIFY(everything.value(QStringLiteral("count")).toInt() >= 5);
    QVERIFY(everything.value(QStringLiteral("count")).toInt() < 100);
    checkMatchesInside(everything, true);
}

void EscapeTest::folderMovedWhileAsked() {
    // The write is checked in S/stage; while the user is asked, a local program moves that
    // folder to where the companion keeps its cache, so the file would become its cache folder.
    const QString stage = at(QStringLiteral("S/stage"));
    const QString cache = at(QStringLiteral("S/home/.cache"));
    const QString own = cache + QStringLiteral("/app.quillmar.companion");
    QVERIFY(m_own.contains(own));
    QVERIFY(!lexists(cache));
    bool moved = false;
    m_whileAsked = [&] {
        moved = ::rename(QFile::encodeName(stage).constData(),
                         QFile::encodeName(cache).constData()) == 0;
    };
    const QJsonObject answer =
        callPath(writeTool, QStringLiteral("S/stage/app.quillmar.companion"));
    m_whileAsked = nullptr;
    QVERIFY(moved);
    const bool leftBehind = lexists(own);
    const QStringList ownChanges = TreeSnapshot::takeEach(m_own).changesSince(m_ownBefore);
    // Put back before anything can fail, so that later cases see the tree they expect.
    QVERIFY(::rename(QFile::encodeName(cache).constData(), QFile::encodeName(stage).constData()) ==
            0);
    if (leftBehind) {
        QVERIFY(QFile::remove(stage + QStringLiteral("/app.quillmar.companion")));
    }

    QCOMPARE(compact(answer), compact({{QStringLiteral("error"), ownFiles}}));
    QVERIFY2(ownChanges.isEmpty(), qPrintable(ownChanges.join(u'\n')));
}

void EscapeTest::renamesDuringCalls_data() {
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QString>("refusal");
    QTest::newRow("link to outside") << QStringLiteral("S/race-out") << outside;
    QTest::newRow("link to own files") << QStringLiteral("S/race-own") << ownFiles;
}

void EscapeTest::renamesDuringCalls() {
    // `folder` holds one innocuous file; `folder`.swap is a link to outside/ or to the
    // companion's data folder. The two names are exchanged over and over while calls go
    // through `folder`, so that each step of a call may meet either.
    QFETCH(QString, folder);
    QFETCH(QString, refusal);

    const QStringList innocuousNames{QStringLiteral("innocuous.txt"), QStringLiteral("w.txt"),
                                     QStringLiteral("deep")};
    // A name swapped between the check and the open is refused by the open, which follows
    // no link, or by the look at what was opened.
    const QStringList openFailures{QStringLiteral("Not a directory"),
                                   QStringLiteral("Too many levels of symbolic links"),
                                   QStringLiteral("No such file or directory"),
                                   QStringLiteral("it changed while it was being opened")};
    auto allowedError = [&](const QString& error, const QString& path, const QString& verb) {
        if (error == refusal || error == QStringLiteral("File not found: ") + path ||
            error == QStringLiteral("Path not found: ") + path) {
            return true;
        }
        const QStringList verbs{verb, QStringLiteral("create the folders for")};
        for (const QString& reason : openFailures) {
            for (const QString& action : verbs) {
                if (error == QStringLiteral("Could not %1 '%2': %3.").arg(action, path, reason)) {
                    return true;
                }
            }
        }
        return false;
    };
    QMap<QString, int> outcomes;
    RenameRace race(at(folder), at(folder + QStringLiteral(".swap")));
    race.start(50'000'000);
    for (int i = 0; i < 600 && !QTest::currentTestFailed(); ++i) {
        QString path;
        QJsonObject answer;
        QString kind;
        switch (i % 6) {
        case 0:
            path = folder + QStringLiteral("/innocuous.txt");
            answer = callPath(readTool, path);
            kind = QStringLiteral("read");
            if (!answer.contains(QStringLiteral("error"))) {
                QCOMPARE(answer.value(QStringLiteral("content")).toString(),
                         QStringLiteral("innocuous text"));
            }
            break;
        case 1:
            path = folder + QStringLiteral("/secret.txt");
            if (refusal == ownFiles) {
                path = folder + QStringLiteral("/device_token");
            }
            answer = callPath(readTool, path);
            kind = QStringLiteral("read");
            QVERIFY2(answer.contains(QStringLiteral("error")), compact(answer).constData());
            break;
        case 2:
            path = folder;
            answer = callPath(listTool, path);
            kind = QStringLiteral("list");
            for (const QJsonValue& item : answer.value(QStringLiteral("items")).toArray()) {
                const QString name = item.toObject().value(QStringLiteral("name")).toString();
                QVERIFY2(innocuousNames.contains(name), qPrintable(name));
            }
            break;
        case 3:
            path = folder + QStringLiteral("/w.txt");
            answer = callPath(writeTool, path);
            kind = QStringLiteral("write");
            break;
        case 4:
            path = folder + QStringLiteral("/deep/er/x.txt");
            answer = callPath(writeTool, path);
            kind = QStringLiteral("write");
            break;
        default:
            answer = call(searchTool, {{QStringLiteral("query"), QStringLiteral("*")},
                                       {QStringLiteral("max_results"), 100}});
            kind = QStringLiteral("search");
            checkMatchesInside(answer, false);
            break;
        }
        const QString error = answer.value(QStringLiteral("error")).toString();
        if (answer.contains(QStringLiteral("error"))) {
            QVERIFY2(allowedError(error, path, kind), qPrintable(error));
        }
        ++outcomes[kind + QStringLiteral(": ") + (error.isEmpty() ? QStringLiteral("ok") : error)];
    }
    const quint64 exchanges = race.stop();
    QCOMPARE(race.error(), 0);
    qInfo("%llu exchanges during the calls", static_cast<unsigned long long>(exchanges));
    for (auto it = outcomes.cbegin(); it != outcomes.cend(); ++it) {
        qInfo("%4d x %s", it.value(), qPrintable(it.key()));
    }
    QVERIFY(exchanges > 0);
    QVERIFY(!QFileInfo(at(folder)).isSymLink());
    QVERIFY(QFileInfo(at(folder)).isDir());
}

QTEST_GUILESS_MAIN(EscapeTest)
#include "tst_escape.moc"
