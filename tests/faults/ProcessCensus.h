#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QSet>
#include <QTimer>

// Every process that descends from this one, seen through /proc while it runs: its argument
// list and its environment, each time they change (an exec keeps the pid and changes both).
// Looks a hundred times a second while the event loop runs, and whenever asked.
class ProcessCensus : public QObject {
    Q_OBJECT

public:
    struct Sighting {
        qint64 pid = 0;
        QByteArray commandLine; // arguments separated by NUL, as /proc/PID/cmdline holds them
        QByteArray environment; // likewise
    };

    explicit ProcessCensus(QObject* parent = nullptr);

    void look();
    const QList<Sighting>& sightings() const { return m_sightings; }

private:
    QTimer m_timer;
    QList<Sighting> m_sightings;
    QSet<QByteArray> m_known;
};
