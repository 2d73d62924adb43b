#include "PairingClient.h"

#include "ConnectionProblem.h"
#include "Platform.h"
#include "ProxyChoice.h"
#include "TrustStore.h"

#include <QAuthenticator>
#include <QCoroFuture>
#include <QCoroNetworkReply>
#include <QHostInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPromise>
#include <QScopeGuard>
#include <QUrl>

#include <memory>

namespace {

// Errors that mean the exchange itself broke (connection, TLS, time-out, redirects), as
// opposed to the ones Qt derives from the HTTP status the server did send.
bool isTransportError(QNetworkReply::NetworkError error) {
    return error > QNetworkReply::NoError && error <= QNetworkReply::UnknownNetworkError;
}

// Whether `host` has an address, found without blocking the event loop.
QCoro::Task<bool> resolves(QString host, QObject* context) {
    auto promise = std::make_shared<QPromise<bool>>();
    QFuture<bool> found = promise->future();
    promise->start();
    QHostInfo::lookupHost(host, context, [promise](const QHostInfo& info) {
        promise->addResult(info.error() == QHostInfo::NoError && !info.addresses().isEmpty());
        promise->finish();
    });
    const bool result = co_await found;
    co_return result;
}

// The failures the bridge would meet too (the service's name, its certificate, the proxy), in
// the bridge's words; nothing for the others, which keep Qt's. Qt reports a proxy it cannot
// find as if it were the service, and one it cannot reach as an unknown error.
std::optional<ConnectionProblem> sharedProblem(QNetworkReply::NetworkError error,
                                               const QList<QSslError>& sslErrors,
                                               const QNetworkProxy& proxy, bool proxyFound) {
    using Kind = ConnectionProblem::Kind;
    const bool proxied = proxy.type() != QNetworkProxy::NoProxy;
    switch (error) {
    case QNetworkReply::HostNotFoundError:
        return ConnectionProblem(proxyFound ? Kind::HostNotFound : Kind::ProxyNotFound);
    case QNetworkReply::UnknownNetworkError:
        return proxied ? std::optional(ConnectionProblem(Kind::ProxyRefused)) : std::nullopt;
    case QNetworkReply::SslHandshakeFailedError:
        return ConnectionProblem::fromSslErrors(sslErrors);
    case QNetworkReply::ProxyNotFoundError:
        return ConnectionProblem(Kind::ProxyNotFound);
    case QNetworkReply::ProxyConnectionRefusedError:
    case QNetworkReply::ProxyConnectionClosedError:
        return ConnectionProblem(Kind::ProxyRefused);
    case QNetworkReply::ProxyAuthenticationRequiredError:
        return ConnectionProblem(proxy.user().isEmpty() ? Kind::ProxyLoginNeeded
                                                        : Kind::ProxyLoginRefused);
    default:
        return std::nullopt;
    }
}

} // namespace

std::optional<QUrl> PairingClient::claimUrl(const QString& apiBase) {
    // Appended as text: a base ending in "/" gives "//api/...", and a base's path is kept.
    const QUrl url(apiBase + QStringLiteral("/api/v1/devices/pair/claim"), QUrl::StrictMode);
    if (!url.isValid() || url.isRelative() || url.scheme().isEmpty()) {
        return std::nullopt;
    }
    const bool web = url.scheme() == u"http" || url.scheme() == u"https";
    if (web && url.host().isEmpty()) {
        return std::nullopt;
    }
    return url;
}

QByteArray PairingClient::claimBody(const QString& code, const QString& deviceName) {
    const QJsonObject body{
        {QStringLiteral("code"), code.trimmed().toUpper()},
        {QStringLiteral("device_name"), deviceName},
        {QStringLiteral("platform"), Platform::claimName()},
    };
    return QJsonDocument(body).toJson(QJsonDocument::Compact);
}

QCoro::Task<ClaimResponse> PairingClient::claim(QString apiBase, QString code, QString deviceName,
                                                std::chrono::milliseconds timeout) {
    const std::optional<QUrl> url = claimUrl(apiBase);
    if (!url) {
        throw PairError::network(QStringLiteral("Bad API URL."));
    }

    QNetworkRequest request(*url);
    request.setRawHeader("Content-Type", "application/json");
    request.setRawHeader("User-Agent", Platform::userAgent());
    request.setTransferTimeout(static_cast<int>(timeout.count()));
    request.setSslConfiguration(TrustStore::configuration());

    // A manager per call keeps the client free of shared state and usable from any thread. It
    // and its reply go only later: the reply resumes this coroutine from inside its own signal.
    auto* manager = new QNetworkAccessManager;
    const auto release = qScopeGuard([manager] { manager->deleteLater(); });
    // The same proxy as the bridge's, found without holding up the event loop; its login, when
    // the setting has one, is offered once.
    QFuture<QNetworkProxy> lookup = ProxyChoice::lookUp(*url);
    const QNetworkProxy proxy = co_await lookup;
    manager->setProxy(proxy);
    auto logins = std::make_shared<int>(0);
    QObject::connect(manager, &QNetworkAccessManager::proxyAuthenticationRequired, manager,
                     [logins](const QNetworkProxy& asking, QAuthenticator* login) {
                         if (++*logins == 1 && !asking.user().isEmpty()) {
                             login->setUser(asking.user());
                             login->setPassword(asking.password());
                         }
                     });
    QNetworkReply* reply = manager->post(request, claimBody(code, deviceName));
    auto sslErrors = std::make_shared<QList<QSslError>>();
    QObject::connect(reply, &QNetworkReply::sslErrors, manager,
                     [sslErrors](const QList<QSslError>& errors) { *sslErrors = errors; });
    co_await reply;

    const QNetworkReply::NetworkError error = reply->error();
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (error == QNetworkReply::OperationCanceledError) {
        // Nothing here cancels a request but the transfer time-out, which Qt reports as a
        // cancellation.
        throw PairError::network(QStringLiteral("The request timed out."));
    }
    // Before the status: a plain proxy's 407 comes with one.
    // Through a proxy only the proxy's name is looked up here; a name not found is the
    // proxy's unless it has an address (then the proxy did not find the service's).
    bool proxyFound = true;
    if (error == QNetworkReply::HostNotFoundError && proxy.type() != QNetworkProxy::NoProxy) {
        const QString proxyHost = proxy.hostName();
        const bool found = co_await resolves(proxyHost, manager);
        proxyFound = found;
    }
    if (const std::optional<ConnectionProblem> problem =
            sharedProblem(error, *sslErrors, proxy, proxyFound)) {
        throw PairError::network(problem->text());
    }
    if (isTransportError(error) || (!status.isValid() && error != QNetworkReply::NoError)) {
        throw PairError::network(reply->errorString());
    }
    if (!status.isValid()) {
        throw PairError::network(QStringLiteral("No response."));
    }
    const int statusCode = status.toInt();
    if (statusCode == 400) {
        throw PairError::invalidCode();
    }
    if (statusCode != 200) {
        throw PairError::network(QStringLiteral("Server returned %1.").arg(statusCode));
    }
    co_return ClaimResponse::fromJson(reply->readAll());
}
