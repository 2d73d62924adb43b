#pragma once

#include <QByteArray>
#include <QCoroTask>
#include <QJsonObject>
#include <QObject>

#include <functional>

class AppState;
class SingleInstance;

// Keeps the running companion's answer to other processes (status, activity) up to date with
// the state, makes it read its settings again when a command changed them, and runs the tool
// calls that local agents' processes hand over, as the bridge's calls are run.
class StateAnnouncer : public QObject {
    Q_OBJECT

public:
    StateAnnouncer(AppState& state, SingleInstance& instance, QObject* parent = nullptr);

private:
    void announce();
    QCoro::Task<QByteArray> runHandedOverCall(QJsonObject call, std::function<bool()> stillWanted);

    AppState& m_state;
    SingleInstance& m_instance;
};
