#include "WebConsole.h"

#include <QFile>
#include <QHttpServer>
#include <QHttpServerRequest>
#include <QHttpServerResponse>
#include <QJsonDocument>
#include <QJsonObject>

#include <array>

namespace {

struct Asset {
    QStringView name;
    QByteArrayView mimeType;
};

constexpr std::array assets{
    Asset{u"index.html", "text/html; charset=utf-8"},
    Asset{u"console.css", "text/css; charset=utf-8"},
    Asset{u"console.js", "text/javascript; charset=utf-8"},
    Asset{u"favicon.svg", "image/svg+xml"},
};

// The page loads nothing but its own files and talks to nothing but this service; a device
// name or a file name that slipped into the markup still could not run.
constexpr QByteArrayView contentPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

} // namespace

void WebConsole::addRoutes(QHttpServer& http) {
    using Method = QHttpServerRequest::Method;
    http.route(QStringLiteral("/"), Method::Get,
               [] { return asset(QStringLiteral("index.html")); });
    http.route(QStringLiteral("/console/<arg>"), Method::Get,
               [](const QString& name) { return asset(name); });
}

QHttpServerResponse WebConsole::asset(const QString& name) {
    for (const Asset& candidate : assets) {
        if (candidate.name != name) {
            continue;
        }
        QFile file(QStringLiteral(":/console/") + name);
        if (!file.open(QIODevice::ReadOnly)) {
            break;
        }
        QHttpServerResponse response(candidate.mimeType.toByteArray(), file.readAll());
        // A rebuilt service should never meet a cached page of the previous one.
        response.setHeader(QByteArrayLiteral("Cache-Control"), QByteArrayLiteral("no-store"));
        response.setHeader(QByteArrayLiteral("X-Content-Type-Options"),
                           QByteArrayLiteral("nosniff"));
        response.setHeader(QByteArrayLiteral("Referrer-Policy"), QByteArrayLiteral("no-referrer"));
        response.setHeader(QByteArrayLiteral("Content-Security-Policy"),
                           contentPolicy.toByteArray());
        return response;
    }
    return QHttpServerResponse(
        QByteArrayLiteral("application/json"),
        QJsonDocument(QJsonObject{{QStringLiteral("error"), QStringLiteral("Not found.")}})
            .toJson(QJsonDocument::Compact),
        QHttpServerResponse::StatusCode::NotFound);
}
