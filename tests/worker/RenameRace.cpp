#include "RenameRace.h"

#include <QFile>

#include <cerrno>

#include <fcntl.h>
#include <sched.h>
#include <stdio.h>

RenameRace::RenameRace(const QString& first, const QString& second)
    : m_first(QFile::encodeName(first)), m_second(QFile::encodeName(second)) {}

RenameRace::~RenameRace() {
    stop();
}

bool RenameRace::exchange() const {
    return ::renameat2(AT_FDCWD, m_first.constData(), AT_FDCWD, m_second.constData(),
                       RENAME_EXCHANGE) == 0;
}

void RenameRace::start(quint64 most) {
    stop();
    m_stop = false;
    m_exchanges = 0;
    m_error = 0;
    m_thread = std::thread([this, most] {
        for (quint64 i = 0; i < most && !m_stop.load(std::memory_order_relaxed); ++i) {
            if (!exchange()) {
                m_error = errno;
                return;
            }
            m_exchanges.fetch_add(1, std::memory_order_relaxed);
            // Lets the worker run between exchanges on a machine with few cores, after either
            // kind of exchange alike so that neither arrangement is favoured.
            ::sched_yield();
        }
    });
}

quint64 RenameRace::stop() {
    if (!m_thread.joinable()) {
        return m_exchanges.load();
    }
    m_stop = true;
    m_thread.join();
    const quint64 made = m_exchanges.load();
    if (made % 2 != 0 && !exchange()) {
        m_error = errno;
    }
    return made;
}
