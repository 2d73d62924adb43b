#pragma once

#include <QObject>

class AppState;
class SingleInstance;

// Keeps the running companion's answer to other processes (status) up to date with the state,
// and makes it read its settings again when a command changed them.
class StateAnnouncer : public QObject {
    Q_OBJECT

public:
    StateAnnouncer(AppState& state, SingleInstance& instance, QObject* parent = nullptr);

private:
    void announce();

    AppState& m_state;
    SingleInstance& m_instance;
};
