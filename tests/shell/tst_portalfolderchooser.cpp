// The desktop's folder chooser through the XDG desktop portal, against a stand-in portal on a
// connection of its own to a private session bus (see ../pairing/run_sandboxed.sh): what is
// asked, and every way the answer can come back.

#include "DesktopFolderChooser.h"
#include "OpenFolderDialog.h"
#include "PortalFolderChooser.h"

#include <QApplication>
#include <QCoroTask>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDir>
#include <QElapsedTimer>
#include <QFileDialog>
#include <QLineEdit>
#include <QTest>
#include <QTimer>
#include <QUrl>
#include <QWindow>

#include <functional>

namespace {

// The file chooser part of org.freedesktop.portal.Desktop, answering as told.
class FakePortal : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.FileChooser")
    Q_PROPERTY(uint version READ version)

public:
    enum class When { AfterReply, BeforeReply, Never };

    explicit FakePortal(QDBusConnection bus) : m_bus(std::move(bus)) {}

    uint version() const { return portalVersion; }

    uint portalVersion = 4;
    When when = When::AfterReply;
    uint response = 0;
    QVariantMap results;
    // Answers first on another request, which the chooser must ignore.
    bool strayAnswerFirst = false;
    // Picks the request's path itself, as portals before the handle token did.
    bool ownRequestPath = false;

    int opened = 0;
    QString parentWindow;
    QString title;
    QVariantMap options;
    QString request;

public slots:
    QDBusObjectPath OpenFile(const QString& parent, const QString& dialogTitle,
                             const QVariantMap& dialogOptions, const QDBusMessage& message) {
        ++opened;
        parentWindow = parent;
        title = dialogTitle;
        options = dialogOptions;
        QString sender = message.service().mid(1).replace(u'.', u'_');
        request =
            ownRequestPath
                ? QStringLiteral("/org/freedesktop/portal/desktop/request/%1/portal7").arg(sender)
                : QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2")
                      .arg(sender, dialogOptions.value(QStringLiteral("handle_token")).toString());
        if (when == When::BeforeReply) {
            answer();
        } else if (when == When::AfterReply) {
            QTimer::singleShot(20, this, &FakePortal::answer);
        }
        return QDBusObjectPath(request);
    }

public:
    void answer() {
        if (strayAnswerFirst) {
            send(request + QStringLiteral("x"), 1, {});
        }
        send(request, response, results);
    }

private:
    void send(const QString& path, uint code, const QVariantMap& values) {
        QDBusMessage signal = QDBusMessage::createSignal(
            path, QStringLiteral("org.freedesktop.portal.Request"), QStringLiteral("Response"));
        signal << code << values;
        m_bus.send(signal);
    }

    QDBusConnection m_bus;
};

QVariantMap chosenUris(const QStringList& uris) {
    return {{QStringLiteral("uris"), uris}};
}

// Whether a file dialog came up while `task` ran, and the task's answer; a dialog that comes
// up is answered with `path` (or cancelled when it is empty).
struct DialogRun {
    bool dialogShown = false;
    std::optional<QString> chosen;
};

DialogRun runWatchingForDialogs(QCoro::Task<std::optional<QString>> task, const QString& path) {
    DialogRun run;
    QTimer watch;
    watch.setInterval(10);
    QObject::connect(&watch, &QTimer::timeout, [&run, &path] {
        QFileDialog* dialog = OpenFolderDialog::find();
        if (!dialog) {
            return;
        }
        run.dialogShown = true;
        if (path.isEmpty()) {
            dialog->reject();
            return;
        }
        if (auto* name = dialog->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"))) {
            name->setText(path);
        }
        QMetaObject::invokeMethod(dialog, "accept");
    });
    watch.start();
    run.chosen = QCoro::waitFor(std::move(task));
    return run;
}

} // namespace

class PortalFolderChooserTest : public QObject {
    Q_OBJECT

private:
    QDBusConnection m_portalBus{QString()};
    std::unique_ptr<FakePortal> m_portal;

    void startPortal() {
        m_portalBus = QDBusConnection::connectToBus(QDBusConnection::SessionBus,
                                                    QStringLiteral("fake-portal"));
        QVERIFY(m_portalBus.isConnected());
        m_portal = std::make_unique<FakePortal>(m_portalBus);
        QVERIFY(m_portalBus.registerObject(PortalFolderChooser::objectPath(), m_portal.get(),
                                           QDBusConnection::ExportAllContents));
        QVERIFY(m_portalBus.registerService(PortalFolderChooser::serviceName()));
    }

    static PortalFolderChooser::Answer choose() {
        PortalFolderChooser chooser;
        return QCoro::waitFor(chooser.choose(
            QStringLiteral("Share"), QStringLiteral("Choose a folder to share"), QString()));
    }

private slots:
    void init() { startPortal(); }

    void cleanup() {
        m_portalBus.unregisterService(PortalFolderChooser::serviceName());
        m_portalBus.unregisterObject(PortalFolderChooser::objectPath());
        m_portal.reset();
        QDBusConnection::disconnectFromBus(QStringLiteral("fake-portal"));
    }

    void asksForOneFolderAndReturnsItsPath() {
        m_portal->results = chosenUris({QStringLiteral("file:///tmp/shared/My%20Folder/")});
        const PortalFolderChooser::Answer answer = choose();
        QCOMPARE(answer.outcome, PortalFolderChooser::Outcome::Chosen);
        QCOMPARE(answer.path, QStringLiteral("/tmp/shared/My Folder"));

        QCOMPARE(m_portal->opened, 1);
        QCOMPARE(m_portal->title, QStringLiteral("Choose a folder to share"));
        QCOMPARE(m_portal->parentWindow, QString());
        const QVariantMap& options = m_portal->options;
        QCOMPARE(options.value(QStringLiteral("accept_label")).toString(), QStringLiteral("Share"));
        QCOMPARE(options.value(QStringLiteral("directory")).toBool(), true);
        QCOMPARE(options.value(QStringLiteral("multiple")).toBool(), false);
        QCOMPARE(options.value(QStringLiteral("modal")).toBool(), true);
        QCOMPARE(options.value(QStringLiteral("current_folder")).toByteArray(),
                 QDir::homePath().toUtf8().append('\0'));
        QVERIFY(!options.value(QStringLiteral("handle_token")).toString().isEmpty());
    }

    void cancellingIsNotAFailure() {
        m_portal->response = 1;
        QCOMPARE(choose().outcome, PortalFolderChooser::Outcome::Cancelled);
    }

    void anAnswerBeforeTheReplyIsNotMissed() {
        m_portal->when = FakePortal::When::BeforeReply;
        m_portal->results = chosenUris({QStringLiteral("file:///srv/early")});
        const PortalFolderChooser::Answer answer = choose();
        QCOMPARE(answer.outcome, PortalFolderChooser::Outcome::Chosen);
        QCOMPARE(answer.path, QStringLiteral("/srv/early"));
    }

    void answersToOtherRequestsAreIgnored() {
        m_portal->strayAnswerFirst = true;
        m_portal->results = chosenUris({QStringLiteral("file:///srv/mine")});
        const PortalFolderChooser::Answer answer = choose();
        QCOMPARE(answer.outcome, PortalFolderChooser::Outcome::Chosen);
        QCOMPARE(answer.path, QStringLiteral("/srv/mine"));
    }

    void aPortalThatNamesTheRequestItselfIsFollowed() {
        m_portal->ownRequestPath = true;
        m_portal->results = chosenUris({QStringLiteral("file:///srv/older")});
        const PortalFolderChooser::Answer answer = choose();
        QCOMPARE(answer.outcome, PortalFolderChooser::Outcome::Chosen);
        QCOMPARE(answer.path, QStringLiteral("/srv/older"));
    }

    void aPortalThatCannotChooseFoldersIsNotAsked() {
        m_portal->portalVersion = 2;
        QCOMPARE(choose().outcome, PortalFolderChooser::Outcome::Unavailable);
        QCOMPARE(m_portal->opened, 0);
    }

    void withoutAPortalTheCallerIsToldAtOnce() {
        cleanup();
        QElapsedTimer elapsed;
        elapsed.start();
        QCOMPARE(choose().outcome, PortalFolderChooser::Outcome::Unavailable);
        // Asking a name nobody owns fails straight away, not after the bounded wait.
        QVERIFY2(elapsed.elapsed() < 4000, qPrintable(QString::number(elapsed.elapsed())));
        startPortal();
    }

    void somethingThatIsNotALocalFolderIsNotTaken() {
        for (const QStringList& uris : {QStringList{QStringLiteral("sftp://host/home/me")},
                                        QStringList{}, QStringList{QStringLiteral("file://")}}) {
            m_portal->results = chosenUris(uris);
            QCOMPARE(choose().outcome, PortalFolderChooser::Outcome::Unavailable);
        }
    }

    void aPortalThatFailsOtherwiseLetsTheCallerFallBack() {
        m_portal->response = 2;
        QCOMPARE(choose().outcome, PortalFolderChooser::Outcome::Unavailable);
    }

    void aPortalThatGoesAwayWhileTheUserChoosesEndsTheWait() {
        m_portal->when = FakePortal::When::Never;
        QTimer::singleShot(200, this, [this] {
            QVERIFY(m_portal->opened == 1);
            m_portalBus.unregisterService(PortalFolderChooser::serviceName());
        });
        QCOMPARE(choose().outcome, PortalFolderChooser::Outcome::Unavailable);
    }

    // The desktop app's chooser: the portal first, the dialog where the portal cannot answer.
    void theDesktopChooserTakesThePortalsAnswer() {
        m_portal->results = chosenUris({QStringLiteral("file:///srv/from-portal")});
        DesktopFolderChooser chooser;
        const DialogRun run = runWatchingForDialogs(
            chooser.chooseFolder(QStringLiteral("Share"), QStringLiteral("m")), QDir::homePath());
        QCOMPARE(run.chosen, std::optional<QString>(QStringLiteral("/srv/from-portal")));
        QVERIFY(!run.dialogShown);
        QCOMPARE(m_portal->opened, 1);
    }

    void cancellingInThePortalOpensNoSecondDialog() {
        m_portal->response = 1;
        DesktopFolderChooser chooser;
        const DialogRun run = runWatchingForDialogs(
            chooser.chooseFolder(QStringLiteral("Share"), QStringLiteral("m")), QDir::homePath());
        QCOMPARE(run.chosen, std::nullopt);
        QVERIFY(!run.dialogShown);
    }

    void withoutAPortalTheDialogAsks() {
        cleanup();
        const QString folder = QDir::tempPath();
        DesktopFolderChooser chooser;
        const DialogRun run = runWatchingForDialogs(
            chooser.chooseFolder(QStringLiteral("Share"), QStringLiteral("m")), folder);
        QVERIFY(run.dialogShown);
        QCOMPARE(run.chosen, std::optional<QString>(QDir::cleanPath(folder)));
        startPortal();
    }

    void aPortalThatFailsHandsOverToTheDialog() {
        m_portal->response = 2;
        DesktopFolderChooser chooser;
        const DialogRun run = runWatchingForDialogs(
            chooser.chooseFolder(QStringLiteral("Share"), QStringLiteral("m")), QString());
        QCOMPARE(m_portal->opened, 1);
        QVERIFY(run.dialogShown);
        QCOMPARE(run.chosen, std::nullopt);
    }

    void theParentIsAnX11WindowOnlyOnX11() {
        QWindow window;
        QCOMPARE(PortalFolderChooser::parentWindowHandle(nullptr), QString());
        window.show();
        // Offscreen here: the portal could not use the window, so it is not named.
        QCOMPARE(PortalFolderChooser::parentWindowHandle(&window), QString());
    }
};

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    PortalFolderChooserTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_portalfolderchooser.moc"
