#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <sys/types.h>

// A private X server (Xvfb, on a display it picks itself) and a tray host (trayer) for tests
// that need a real system tray. Started before the QApplication, with plain POSIX calls;
// everything started here is stopped by the destructor.
class XvfbSession {
public:
    XvfbSession() = default;
    ~XvfbSession();
    XvfbSession(const XvfbSession&) = delete;
    XvfbSession& operator=(const XvfbSession&) = delete;

    // False, with the reason, when Xvfb is missing or does not come up within 15 s.
    bool startServer(QString* why);
    // Starts trayer on the server with `arguments`; false, with the reason, when it is missing.
    bool startTray(const QStringList& arguments, QString* why);
    void stopTray();

    // ":N", for DISPLAY.
    QByteArray display() const { return m_display; }

    static bool haveExecutable(const QString& name);

private:
    pid_t m_server = -1;
    pid_t m_tray = -1;
    QByteArray m_display;
};
