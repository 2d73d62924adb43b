#include "LoopbackPort.h"

#include <QFile>
#include <QRandomGenerator>
#include <QTcpServer>

quint16 LoopbackPort::pick() {
    int firstEphemeral = 32768;
    QFile range(QStringLiteral("/proc/sys/net/ipv4/ip_local_port_range"));
    if (range.open(QIODevice::ReadOnly)) {
        const QList<QByteArray> bounds = range.readAll().simplified().split(' ');
        if (!bounds.isEmpty() && bounds.front().toInt() > 0) {
            firstEphemeral = bounds.front().toInt();
        }
    }
    const int lowest = 10000;
    const int highest = firstEphemeral - 1;
    if (highest <= lowest) {
        return 0;
    }
    for (int attempt = 0; attempt < 200; ++attempt) {
        const auto port = quint16(QRandomGenerator::global()->bounded(lowest, highest + 1));
        QTcpServer probe;
        if (probe.listen(QHostAddress::LocalHost, port)) {
            return port;
        }
    }
    return 0;
}
