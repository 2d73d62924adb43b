#include "PairingClient.h"

#include "Platform.h"
#include "ProxyChoice.h"
#include "TrustStore.h"

#include <QAuthenticator>
#include <QCoroNetworkReply>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QScopeGuard>
#include <QUrl>

#include <memory>

namespace {

// Errors that mean the exchange itself broke (connection, TLS, time-out, redirects), as
// opposed to the ones Qt derives from the HTTP status the server did send.
bool isTransportError(QNetworkReply::NetworkError error) {
    return error > QNetworkReply::NoError && error <= QNetworkReply::UnknownNetworkError;
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
    // The same proxy as the bridge's; its login, when the setting has one, is offered once.
    const QNetworkProxy proxy = ProxyChoice::forUrl(*url);
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
    co_await reply;

    const QNetworkReply::NetworkError error = reply->error();
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (error == QNetworkReply::OperationCanceledError) {
        // Nothing here cancels a request but the transfer time-out, which Qt reports as a
        // cancellation.
        throw PairError::network(QStringLiteral("The request timed out."));
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
