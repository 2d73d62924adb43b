#pragma once

#include <QObject>

class QSocketNotifier;

// Ends the event loop when the process is asked to stop (SIGTERM at logout or shutdown, SIGINT
// from Ctrl-C, SIGHUP when its terminal goes), so that it can close its connection properly
// instead of dying mid-sentence. A signal handler may only write; it writes one byte to a
// socket that the event loop watches.
class QuitOnSignals : public QObject {
    Q_OBJECT

public:
    explicit QuitOnSignals(QObject* parent = nullptr);
    ~QuitOnSignals() override;

    // False when the signals could not be caught (no socket pair): they then end the process.
    bool active() const { return m_notifier != nullptr; }

signals:
    void quitRequested(int signalNumber);

private:
    QSocketNotifier* m_notifier = nullptr;
};
