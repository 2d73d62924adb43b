#include "HttpJson.h"

#include <QEventLoop>
#include <QJsonDocument>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>

QJsonObject HttpJson::Reply::json() const {
    return QJsonDocument::fromJson(body).object();
}

HttpJson::HttpJson(QString base) : m_base(std::move(base)) {}

HttpJson::Reply HttpJson::get(const QString& path, int timeoutMs) {
    return finish(m_network.get(QNetworkRequest(QUrl(m_base + path))), timeoutMs);
}

HttpJson::Reply HttpJson::post(const QString& path, const QByteArray& body, int timeoutMs) {
    QNetworkRequest request(QUrl(m_base + path));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    return finish(m_network.post(request, body), timeoutMs);
}

HttpJson::Reply HttpJson::post(const QString& path, const QJsonObject& body, int timeoutMs) {
    return post(path, QJsonDocument(body).toJson(QJsonDocument::Compact), timeoutMs);
}

HttpJson::Reply HttpJson::finish(QNetworkReply* reply, int timeoutMs) {
    QEventLoop loop;
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    timer.start(timeoutMs);
    if (!reply->isFinished()) {
        loop.exec();
    }
    Reply result;
    if (reply->isFinished()) {
        result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        result.body = reply->readAll();
    } else {
        reply->abort();
    }
    reply->deleteLater();
    return result;
}
