#pragma once

#include <QByteArray>
#include <QCoroTask>
#include <QHash>
#include <QObject>
#include <QString>

#include <optional>

class QLocalSocket;

// A local agent's process's one connection to the running companion, over which it hands its
// tool calls (see SingleInstance::callStreamMessage). Opened on the first call and again after
// the companion went away; calls may overlap, and each waits for its own answer.
class CompanionLink : public QObject {
    Q_OBJECT

public:
    explicit CompanionLink(QString directory, QObject* parent = nullptr);
    ~CompanionLink() override;

    // Hands one call ({agent, method, params}, compact JSON) over and waits for its answer: "0"
    // and the result's JSON text, or "1" and an error text. Nothing when no companion runs
    // (the caller then runs the call itself); empty when the companion went away before
    // answering. Waits as long as the call takes (the user may be asked), but not for a
    // companion that is gone.
    QCoro::Task<std::optional<QByteArray>> call(QByteArray call);

signals:
    // Internal: an answer arrived, or the connection closed.
    void changed();

private:
    bool ensureConnected();
    void readAnswers();

    QString m_directory;
    QLocalSocket* m_socket = nullptr;
    // Which connection a call went out on: answers do not outlive their connection.
    quint64 m_generation = 0;
    quint64 m_lastId = 0;
    QHash<quint64, QByteArray> m_answers;
};
