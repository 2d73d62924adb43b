// The tray icon and its menu in a real X session: a private Xvfb with trayer as the tray host.
// Skips when either is missing. Screenshots go to the build's tests/shell/screenshots folder.

#include "ActivityLog.h"
#include "AppDelegate.h"
#include "AppState.h"
#include "ApprovalPrompt.h"
#include "BridgeClient.h"
#include "FakeWindow.h"
#include "MessageBoxApprovalPrompt.h"
#include "PrivateRuntime.h"
#include "StateSandbox.h"
#include "XvfbSession.h"

#include <QAbstractButton>
#include <QAction>
#include <QApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>
#include <QProcess>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QTest>

namespace {

QStringList trayArguments(const QString& tint) {
    return {QStringLiteral("--edge"),        QStringLiteral("top"),
            QStringLiteral("--align"),       QStringLiteral("right"),
            QStringLiteral("--SetDockType"), QStringLiteral("true"),
            QStringLiteral("--widthtype"),   QStringLiteral("request"),
            QStringLiteral("--height"),      QStringLiteral("28"),
            QStringLiteral("--transparent"), QStringLiteral("true"),
            QStringLiteral("--alpha"),       QStringLiteral("0"),
            QStringLiteral("--tint"),        tint};
}

bool xdotool(const QStringList& arguments) {
    return QProcess::execute(QStringLiteral("xdotool"), arguments) == 0;
}

bool clickAt(const QPoint& point, int button) {
    return xdotool({QStringLiteral("mousemove"), QString::number(point.x()),
                    QString::number(point.y()), QStringLiteral("click"), QString::number(button)});
}

bool moveTo(const QPoint& point) {
    return xdotool(
        {QStringLiteral("mousemove"), QString::number(point.x()), QString::number(point.y())});
}

QImage grabScreen() {
    return QGuiApplication::primaryScreen()->grabWindow(0).toImage();
}

bool save(const QImage& image, const QString& name) {
    QDir().mkpath(QStringLiteral(QUILLMAR_SHELL_SCREENSHOTS));
    return image.save(QStringLiteral(QUILLMAR_SHELL_SCREENSHOTS "/") + name);
}

// How many distinct colours a part of the screen holds: a drawn icon or menu has several, an
// empty panel one.
int colours(const QImage& image, const QRect& area) {
    QSet<QRgb> seen;
    const QRect clipped = area & image.rect();
    for (int y = clipped.top(); y <= clipped.bottom(); ++y) {
        for (int x = clipped.left(); x <= clipped.right(); ++x) {
            seen.insert(image.pixel(x, y));
        }
    }
    return int(seen.size());
}

// The panel around the icon, magnified without smoothing, to judge the icon's pixels.
QImage magnified(const QImage& screen, const QRect& icon) {
    const QRect around = icon.adjusted(-12, -4, 12, 4) & screen.rect();
    return screen.copy(around).scaled(around.size() * 8, Qt::IgnoreAspectRatio,
                                      Qt::FastTransformation);
}

QAction* actionTitled(const QMenu* menu, const QString& title) {
    for (QAction* action : menu->actions()) {
        if (action->text() == title) {
            return action;
        }
    }
    return nullptr;
}

QPoint centreOf(const QMenu* menu, QAction* action) {
    return menu->mapToGlobal(menu->actionGeometry(action).center());
}

} // namespace

class TraySessionTest : public QObject {
    Q_OBJECT

public:
    TraySessionTest(XvfbSession* session, QString skipReason)
        : m_session(session), m_skipReason(std::move(skipReason)) {}

private:
    XvfbSession* m_session;
    QString m_skipReason;
    std::unique_ptr<StateSandbox> m_sandbox;
    std::shared_ptr<int> m_shows = std::make_shared<int>(0);
    std::unique_ptr<AppDelegate> m_delegate;

    QRect iconGeometry() const { return m_delegate->statusItem()->geometry(); }

    // A few of an agent's calls, for the "Recent Activity" submenu.
    void addActivity() {
        const QDateTime start = QDateTime::currentDateTime().addSecs(-120);
        const auto add = [&, this](int seconds, const QString& tool, const QString& subject,
                                   ActivityEntry::Outcome outcome, qint64 bytes) {
            ActivityEntry entry;
            entry.time = start.addSecs(seconds);
            entry.tool = tool;
            entry.subject = subject;
            entry.outcome = outcome;
            entry.bytes = bytes;
            if (outcome == ActivityEntry::Outcome::Failed) {
                entry.error = QStringLiteral("No such file or directory.");
            }
            m_sandbox->state().activity().append(entry);
        };
        const QString read = QStringLiteral("local_read_file");
        const QString write = QStringLiteral("local_write_file");
        add(0, read, QStringLiteral("Documents/plan.md"), ActivityEntry::Outcome::Done, 5120);
        add(14, read,
            QStringLiteral("Documents/Clients/Northwind Traders/2024/Quarterly Reports/Q3 board "
                           "pack (final).pdf"),
            ActivityEntry::Outcome::Done, 48213);
        add(31, read, QStringLiteral("Documents/old-terms.docx"), ActivityEntry::Outcome::Failed,
            -1);
        add(52, write, QStringLiteral("Documents 2/notes.txt"), ActivityEntry::Outcome::Declined,
            -1);
        add(70, write, QStringLiteral("Documents/summary.md"), ActivityEntry::Outcome::Done, 2210);
        add(75, read, QStringLiteral("Documents/summary.md"), ActivityEntry::Outcome::Done, 2210);
    }

private slots:
    void initTestCase() {
        if (!m_skipReason.isEmpty()) {
            QSKIP(qPrintable(m_skipReason));
        }
        QCOMPARE(QGuiApplication::platformName(), QStringLiteral("xcb"));
        QTRY_VERIFY_WITH_TIMEOUT(QSystemTrayIcon::isSystemTrayAvailable(), 15000);
        m_sandbox = std::make_unique<StateSandbox>();
        m_sandbox->storeToken();
        m_delegate = std::make_unique<AppDelegate>(m_sandbox->state(),
                                                   std::make_unique<FakeWindow>(m_shows));
        m_delegate->setTerminate([] {});
    }

    void cleanupTestCase() {
        m_delegate.reset();
        m_sandbox.reset();
    }

    void theIconDocksAndNoWindowOpens() {
        m_delegate->applicationDidFinishLaunching();
        // Paired, with a tray: the window stays closed.
        QCOMPARE(*m_shows, 0);
        m_sandbox->state().addFolderAt(m_sandbox->folder(QStringLiteral("Documents")));
        m_sandbox->state().addFolderAt(m_sandbox->folder(QStringLiteral("Documents")), true);
        addActivity();
        emit m_sandbox->state().bridge().statusChanged(true,
                                                       QStringLiteral("Connected to Quillmar"));
        QVERIFY(m_delegate->statusItem()->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(iconGeometry().width() >= 16, 10000);
        QTest::qWait(300);
        const QImage screen = grabScreen();
        QVERIFY(save(screen, QStringLiteral("tray-online.png")));
        QVERIFY(save(magnified(screen, iconGeometry()), QStringLiteral("tray-online-zoom.png")));
        QVERIFY2(colours(screen, iconGeometry()) > 3, "the icon is not drawn");
    }

    void aRightClickOpensTheMenu() {
        QVERIFY(clickAt(iconGeometry().center(), 3));
        // The menu is rebuilt (and the old one deleted) on every change: hold it weakly.
        QPointer<QMenu> menu = m_delegate->statusMenu();
        QVERIFY(menu);
        QTRY_VERIFY_WITH_TIMEOUT(menu->isVisible(), 5000);
        QTest::qWait(300);
        const QImage screen = grabScreen();
        QVERIFY(save(screen, QStringLiteral("tray-menu.png")));
        QVERIFY(colours(screen, menu->geometry()) > 10);

        // Hovering a folder opens its submenu.
        QAction* second = actionTitled(menu, QStringLiteral("  \U0001F4C1 Documents 2"));
        QVERIFY(second && second->menu());
        QVERIFY(moveTo(centreOf(menu, second)));
        QTRY_VERIFY_WITH_TIMEOUT(second->menu()->isVisible(), 5000);
        QTest::qWait(300);
        QVERIFY(save(grabScreen(), QStringLiteral("tray-submenu.png")));
        QAction* readOnly = actionTitled(second->menu(), QStringLiteral("Read Only"));
        QVERIFY(readOnly && readOnly->isChecked());

        // So does "Recent Activity", with the agents' latest calls.
        QAction* recent = actionTitled(menu, QStringLiteral("Recent Activity"));
        QVERIFY(recent && recent->menu());
        QVERIFY(moveTo(centreOf(menu, recent)));
        QTRY_VERIFY_WITH_TIMEOUT(recent->menu()->isVisible(), 5000);
        QTest::qWait(300);
        const QImage activity = grabScreen();
        QVERIFY(save(activity, QStringLiteral("tray-activity.png")));
        QCOMPARE(recent->menu()->actions().size(), 5);
        // The lines fit on the screen.
        QVERIFY(activity.rect().contains(recent->menu()->geometry()));
        // On this narrow screen the submenu opens over the menu: close it before clicking there.
        QVERIFY(moveTo(centreOf(menu, actionTitled(menu, QStringLiteral("Add Folder…")))));
        QTRY_VERIFY_WITH_TIMEOUT(!recent->menu()->isVisible(), 5000);

        // A real click on "Ask before writing files" flips the setting and closes the menu.
        QAction* approval = actionTitled(menu, QStringLiteral("Ask before writing files"));
        QVERIFY(approval);
        QVERIFY(m_sandbox->state().requireWriteApproval());
        QVERIFY(moveTo(centreOf(menu, approval)));
        QTest::qWait(200);
        QVERIFY(clickAt(centreOf(menu, approval), 1));
        QTRY_VERIFY_WITH_TIMEOUT(!m_sandbox->state().requireWriteApproval(), 5000);
        QTRY_VERIFY(!menu || !menu->isVisible() || menu != m_delegate->statusMenu());
        QVERIFY(!actionTitled(m_delegate->statusMenu(), QStringLiteral("Ask before writing files"))
                     ->isChecked());
    }

    void aLeftClickOpensTheMenuToo() {
        QTest::qWait(300);
        QVERIFY(clickAt(iconGeometry().center(), 1));
        QMenu* menu = m_delegate->statusMenu();
        QTRY_VERIFY_WITH_TIMEOUT(menu->isVisible(), 5000);
        QVERIFY(xdotool({QStringLiteral("key"), QStringLiteral("Escape")}));
        QTRY_VERIFY_WITH_TIMEOUT(!menu->isVisible(), 5000);
    }

    void theIconComesBackWhenTheTrayRestarts() {
        // Offline, on a light panel this time.
        emit m_sandbox->state().bridge().statusChanged(false,
                                                       QStringLiteral("Reconnecting in 2s\u2026"));
        m_session->stopTray();
        QTRY_VERIFY_WITH_TIMEOUT(!QSystemTrayIcon::isSystemTrayAvailable(), 10000);
        QString why;
        QVERIFY2(m_session->startTray(trayArguments(QStringLiteral("0xeeeeee")), &why),
                 qPrintable(why));
        QTRY_VERIFY_WITH_TIMEOUT(QSystemTrayIcon::isSystemTrayAvailable(), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(iconGeometry().width() >= 16, 10000);
        QTest::qWait(500);
        QVERIFY(save(magnified(grabScreen(), iconGeometry()),
                     QStringLiteral("tray-offline-light-zoom.png")));
        QVERIFY(clickAt(iconGeometry().center(), 3));
        QMenu* menu = m_delegate->statusMenu();
        QTRY_VERIFY_WITH_TIMEOUT(menu->isVisible(), 5000);
        QCOMPARE(menu->actions().front()->text(),
                 QStringLiteral("Quillmar OS — Reconnecting in 2s…"));
        QTest::qWait(300);
        const QImage screen = grabScreen();
        QVERIFY(save(screen, QStringLiteral("tray-offline-light.png")));
        QVERIFY2(colours(screen, iconGeometry()) > 3, "the icon is not drawn");
        QVERIFY(xdotool({QStringLiteral("key"), QStringLiteral("Escape")}));
        QTRY_VERIFY_WITH_TIMEOUT(!menu->isVisible(), 5000);
    }

    void theApprovalAlertOnScreen() {
        MessageBoxApprovalPrompt prompt;
        QCoro::Task<bool> task = prompt.ask(QStringLiteral("Documents/quarterly report.txt"), 1536);
        QMessageBox* box = nullptr;
        QTRY_VERIFY_WITH_TIMEOUT(
            (box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) != nullptr &&
                box->isVisible(),
            5000);
        QTest::qWait(500);
        QVERIFY(save(grabScreen(), QStringLiteral("approval-alert.png")));
        QAbstractButton* deny = box->escapeButton();
        QVERIFY(deny);
        QVERIFY(clickAt(deny->mapToGlobal(deny->rect().center()), 1));
        QCOMPARE(QCoro::waitFor(task), false);
    }
};

int main(int argc, char** argv) {
    PrivateRuntime runtime;
    // The X11 tray protocol, not a desktop's D-Bus one.
    qunsetenv("DBUS_SESSION_BUS_ADDRESS");
    qunsetenv("WAYLAND_DISPLAY");

    XvfbSession session;
    QString why;
    const bool live = XvfbSession::haveExecutable(QStringLiteral("xdotool"))
                          ? session.startServer(&why) &&
                                session.startTray(trayArguments(QStringLiteral("0x2b2b2b")), &why)
                          : (why = QStringLiteral("xdotool is not installed"), false);
    qputenv("QT_QPA_PLATFORM", live ? "xcb" : "offscreen");
    if (live) {
        qputenv("DISPLAY", session.display());
    }

    QApplication app(argc, argv);
    TraySessionTest test(&session, live ? QString() : why);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_traysession.moc"
