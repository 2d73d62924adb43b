#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QUrl>

// Blocking JSON-over-HTTP for tests: each request waits at most a few seconds, serving the
// event loop meanwhile, so that servers in the same process keep working.
class HttpJson {
public:
    struct Reply {
        int status = 0; // 0: no HTTP answer (time-out, refused)
        QByteArray body;
        QJsonObject json() const;
    };

    explicit HttpJson(QString base);

    Reply get(const QString& path, int timeoutMs = 10000);
    Reply post(const QString& path, const QByteArray& body, int timeoutMs = 10000);
    Reply post(const QString& path, const QJsonObject& body, int timeoutMs = 10000);

private:
    Reply finish(class QNetworkReply* reply, int timeoutMs);

    QString m_base;
    QNetworkAccessManager m_network;
};
