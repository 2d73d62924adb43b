#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>

// A stand-in for the service's pairing endpoint on 127.0.0.1: answers every request with one
// canned status and JSON body, or holds the answers back until release().
class ClaimStub : public QObject {
    Q_OBJECT

public:
    explicit ClaimStub(QObject* parent = nullptr);

    // "http://127.0.0.1:<port>"
    QString base() const;
    void respond(int status, QByteArray body);
    // Requests wait unanswered from now on.
    void hold();
    // Answers the waiting requests with the current response and stops holding.
    void release();
    // Complete requests received so far.
    int requestCount() const { return m_requestCount; }

private:
    void read(QTcpSocket* socket);
    void answer(QTcpSocket* socket);

    QTcpServer m_server;
    int m_status = 200;
    QByteArray m_body;
    bool m_holding = false;
    int m_requestCount = 0;
    QList<QPointer<QTcpSocket>> m_waiting;
};
