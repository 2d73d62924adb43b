// What a StatusNotifierItem host (GNOME's AppIndicator extension, KDE's tray) reads from the
// running desktop app: the item's title and tool tip. The test is the host: it serves the
// watcher on a private session bus, starts the desktop app on a private X server and reads the
// item the app registers.

#include "XvfbSession.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusReply>
#include <QDBusVariant>
#include <QDeadlineTimer>
#include <QProcess>
#include <QTest>

namespace {

// The part of org.kde.StatusNotifierWatcher a Qt tray icon talks to.
class FakeWatcher : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ items)

public:
    bool hostRegistered() const { return true; }
    int protocolVersion() const { return 0; }
    QStringList items() const { return m_items; }
    // Where the item lives: the registering connection and the name it gave.
    QString owner;
    QString service;

public slots:
    void RegisterStatusNotifierItem(const QString& item, const QDBusMessage& message) {
        owner = message.service();
        service = item;
        m_items.append(item);
    }
    void RegisterStatusNotifierHost(const QString&) {}

private:
    QStringList m_items;
};

struct ToolTip {
    QString title;
    QString subTitle;
};

ToolTip readToolTip(const QDBusArgument& argument) {
    ToolTip tip;
    QString iconName;
    argument.beginStructure();
    argument >> iconName;
    argument.beginArray();
    while (!argument.atEnd()) {
        int width = 0;
        int height = 0;
        QByteArray pixels;
        argument.beginStructure();
        argument >> width >> height >> pixels;
        argument.endStructure();
    }
    argument.endArray();
    argument >> tip.title >> tip.subTitle;
    argument.endStructure();
    return tip;
}

// The app may itself call the watcher while it answers, so the test keeps serving it meanwhile.
QDBusMessage callServingTheWatcher(QDBusConnection& bus, const QDBusMessage& call) {
    QDBusPendingCall pending = bus.asyncCall(call, 5000);
    QDeadlineTimer deadline(10000);
    while (!pending.isFinished() && !deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    pending.waitForFinished();
    return pending.reply();
}

} // namespace

class TrayTitleTest : public QObject {
    Q_OBJECT

public:
    explicit TrayTitleTest(XvfbSession* session, QString skipWhy)
        : m_session(session), m_skipWhy(std::move(skipWhy)) {}

private slots:
    void hostSeesTheAppsNameAndAPlainToolTip() {
        if (!m_skipWhy.isEmpty()) {
            QSKIP(qPrintable(m_skipWhy));
        }
        QDBusConnection bus = QDBusConnection::sessionBus();
        QVERIFY2(bus.isConnected(), "no private session bus");
        FakeWatcher watcher;
        QVERIFY(bus.registerObject(QStringLiteral("/StatusNotifierWatcher"), &watcher,
                                   QDBusConnection::ExportAllContents));
        QVERIFY(bus.registerService(QStringLiteral("org.kde.StatusNotifierWatcher")));

        QProcess app;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        environment.insert(QStringLiteral("DISPLAY"), QString::fromLatin1(m_session->display()));
        app.setProcessEnvironment(environment);
        app.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        app.start(QStringLiteral(QUILLMAR_DESKTOP_PROBE), {});
        QVERIFY(app.waitForStarted());

        QTRY_VERIFY_WITH_TIMEOUT(!watcher.service.isEmpty(), 20000);

        QDBusMessage get = QDBusMessage::createMethodCall(
            watcher.owner,
            watcher.service.startsWith(u'/') ? watcher.service
                                             : QStringLiteral("/StatusNotifierItem"),
            QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
        get.setArguments({QStringLiteral("org.kde.StatusNotifierItem"), QStringLiteral("Title")});
        const QDBusReply<QDBusVariant> title = callServingTheWatcher(bus, get);
        QVERIFY2(title.isValid(), qPrintable(title.error().message()));
        QCOMPARE(title.value().variant().toString(), QStringLiteral("Quillmar OS"));

        get.setArguments({QStringLiteral("org.kde.StatusNotifierItem"), QStringLiteral("ToolTip")});
        const QDBusReply<QDBusVariant> tip = callServingTheWatcher(bus, get);
        QVERIFY2(tip.isValid(), qPrintable(tip.error().message()));
        const ToolTip toolTip = readToolTip(tip.value().variant().value<QDBusArgument>());
        // The status alone: the title already says whose it is.
        QCOMPARE(toolTip.title, QStringLiteral("Quillmar OS — Not connected"));

        app.terminate();
        QVERIFY(app.waitForFinished(10000));
    }

private:
    XvfbSession* m_session;
    QString m_skipWhy;
};

int main(int argc, char** argv) {
    XvfbSession session;
    QString why;
    if (!session.startServer(&why)) {
        why = QStringLiteral("no X server: ") + why;
    }
    QCoreApplication app(argc, argv);
    TrayTitleTest test(&session, why);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_traytitle.moc"
