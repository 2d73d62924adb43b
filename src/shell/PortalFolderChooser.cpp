#include "PortalFolderChooser.h"

#include <QCoroDBusPendingCall>
#include <QCoroSignal>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QDir>
#include <QGuiApplication>
#include <QLoggingCategory>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QUrl>
#include <QWindow>

#include <optional>
#include <utility>

namespace {

Q_LOGGING_CATEGORY(lcPortal, "quillmar.desktop.portal", QtWarningMsg)

const QString fileChooserInterface = QStringLiteral("org.freedesktop.portal.FileChooser");
const QString requestInterface = QStringLiteral("org.freedesktop.portal.Request");

// Choosing folders ("directory") came with version 3 of the interface.
constexpr uint firstVersionWithFolders = 3;
// Only the question whether the portal is there is bounded; the user takes the time they need.
constexpr int portalAnswerTimeoutMs = 5000;

constexpr uint responseChosen = 0;
constexpr uint responseCancelled = 1;

} // namespace

PortalFolderChooser::PortalFolderChooser(QDBusConnection bus, QObject* parent)
    : QObject(parent), m_bus(std::move(bus)) {}

QString PortalFolderChooser::serviceName() {
    return QStringLiteral("org.freedesktop.portal.Desktop");
}

QString PortalFolderChooser::objectPath() {
    return QStringLiteral("/org/freedesktop/portal/desktop");
}

QString PortalFolderChooser::parentWindowHandle(const QWindow* window) {
    if (!window || !window->isVisible() || QGuiApplication::platformName() != u"xcb") {
        return {};
    }
    return QStringLiteral("x11:") + QString::number(window->winId(), 16);
}

QString PortalFolderChooser::requestPath(const QString& token) const {
    // The portal names the request after the caller's unique name and the token, so the answer
    // can be listened for before the question is asked.
    QString sender = m_bus.baseService();
    sender.remove(0, sender.startsWith(u':') ? 1 : 0).replace(u'.', u'_');
    return objectPath() + QStringLiteral("/request/") + sender + u'/' + token;
}

bool PortalFolderChooser::listenTo(const QString& request) {
    return m_bus.connect(serviceName(), request, requestInterface, QStringLiteral("Response"), this,
                         SLOT(takeResponse(uint, QVariantMap, QDBusMessage)));
}

void PortalFolderChooser::stopListening(const QString& request) {
    m_bus.disconnect(serviceName(), request, requestInterface, QStringLiteral("Response"), this,
                     SLOT(takeResponse(uint, QVariantMap, QDBusMessage)));
}

void PortalFolderChooser::takeResponse(uint response, const QVariantMap& results,
                                       const QDBusMessage& message) {
    emit requestEnded(message.path(), response, results);
}

QCoro::Task<PortalFolderChooser::Answer>
PortalFolderChooser::choose(QString acceptLabel, QString title, QString parentWindow) {
    if (!m_bus.isConnected()) {
        qCInfo(lcPortal) << "no session bus: the portal cannot be asked";
        co_return Answer{};
    }

    QDBusMessage versionCall = QDBusMessage::createMethodCall(
        serviceName(), objectPath(), QStringLiteral("org.freedesktop.DBus.Properties"),
        QStringLiteral("Get"));
    versionCall.setArguments({fileChooserInterface, QStringLiteral("version")});
    QDBusPendingCall versionPending = m_bus.asyncCall(versionCall, portalAnswerTimeoutMs);
    const QDBusMessage versionReply = co_await versionPending;
    if (versionReply.type() != QDBusMessage::ReplyMessage || versionReply.arguments().isEmpty()) {
        qCInfo(lcPortal) << "no file chooser portal:" << versionReply.errorMessage();
        co_return Answer{};
    }
    const uint version =
        versionReply.arguments().constFirst().value<QDBusVariant>().variant().toUInt();
    if (version < firstVersionWithFolders) {
        qCInfo(lcPortal) << "the file chooser portal cannot choose folders (version" << version
                         << ")";
        co_return Answer{};
    }

    const QString token =
        QStringLiteral("quillmar%1")
            .arg(QRandomGenerator::global()->generate64(), 16, 16, QLatin1Char('0'));
    QString request = requestPath(token);
    // Every answer of this request is kept from here on, so none is missed while waiting.
    std::optional<std::pair<uint, QVariantMap>> ended;
    bool portalGone = false;
    const QMetaObject::Connection keep =
        connect(this, &PortalFolderChooser::requestEnded, this,
                [&ended, &request](const QString& path, uint response, const QVariantMap& results) {
                    if (path == request) {
                        ended.emplace(response, results);
                    }
                });
    QDBusServiceWatcher vanishing(serviceName(), m_bus,
                                  QDBusServiceWatcher::WatchForUnregistration);
    connect(&vanishing, &QDBusServiceWatcher::serviceUnregistered, this, [this, &portalGone] {
        portalGone = true;
        emit requestEnded(QString(), 2, {});
    });
    listenTo(request);
    // Also when the task is dropped while waiting: nothing may point into it afterwards.
    const auto stop = qScopeGuard([this, &request, keep] {
        stopListening(request);
        disconnect(keep);
    });

    QVariantMap options{
        {QStringLiteral("handle_token"), token},
        {QStringLiteral("accept_label"), acceptLabel},
        {QStringLiteral("modal"), true},
        {QStringLiteral("multiple"), false},
        {QStringLiteral("directory"), true},
        // A null-terminated byte string, as the portal wants file names.
        {QStringLiteral("current_folder"), QByteArray(QDir::homePath().toUtf8()).append('\0')},
    };
    QDBusMessage open = QDBusMessage::createMethodCall(
        serviceName(), objectPath(), fileChooserInterface, QStringLiteral("OpenFile"));
    open.setArguments({parentWindow, title, options});
    QDBusPendingCall openPending = m_bus.asyncCall(open, portalAnswerTimeoutMs);
    const QDBusMessage opened = co_await openPending;
    if (opened.type() != QDBusMessage::ReplyMessage || opened.arguments().isEmpty()) {
        qCInfo(lcPortal) << "the file chooser portal did not open:" << opened.errorMessage();
        co_return Answer{};
    }
    // Older portals chose the request's name themselves.
    const QString handle = opened.arguments().constFirst().value<QDBusObjectPath>().path();
    if (!handle.isEmpty() && handle != request) {
        stopListening(request);
        request = handle;
        listenTo(request);
    }

    while (!ended && !portalGone) {
        co_await qCoro(this, &PortalFolderChooser::requestEnded);
    }
    if (!ended) {
        qCInfo(lcPortal) << "the portal went away while the user was choosing";
        co_return Answer{};
    }

    const auto& [response, results] = *ended;
    if (response == responseCancelled) {
        co_return Answer{Outcome::Cancelled, {}};
    }
    if (response != responseChosen) {
        qCInfo(lcPortal) << "the file chooser portal ended with" << response;
        co_return Answer{};
    }
    const QStringList uris = results.value(QStringLiteral("uris")).toStringList();
    const QUrl chosen = uris.isEmpty() ? QUrl() : QUrl(uris.constFirst());
    if (!chosen.isLocalFile() || chosen.toLocalFile().isEmpty()) {
        // Nothing else can be shared; the user is shown the companion's own dialog instead.
        qCInfo(lcPortal) << "the portal chose something that is not a local folder:" << chosen;
        co_return Answer{};
    }
    co_return Answer{Outcome::Chosen, QDir::cleanPath(QDir(chosen.toLocalFile()).absolutePath())};
}
