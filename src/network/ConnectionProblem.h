#pragma once

#include <QList>
#include <QSslError>
#include <QString>

// Why the bridge could not connect or lost its connection, or why pairing could not reach the
// service, for the user in plain words (the status texts say what the bridge does; this says
// why). One vocabulary for the window, the tray, --headless, status and pair.
class ConnectionProblem {
public:
    enum class Kind {
        None,
        HostNotFound, // the service's name does not resolve
        Refused,      // nothing listens at the service's address
        NoAnswer,     // no answer in time, or a connection that went silent
        Broken,       // the connection broke (network down, reset)
        CertificateUntrusted,
        CertificateInvalid, // expired, not yet valid, for another name, revoked
        SecureFailed,       // TLS could not be set up for another reason
        TokenRefused,       // HTTP 401/403 on the upgrade: the device token is not accepted
        HandshakeRefused,   // another HTTP status instead of the upgrade
        NotWebSocket,       // an answer that is not a WebSocket server's
        ProxyNotFound,
        ProxyRefused,      // the proxy does not accept connections or refuses the tunnel
        ProxyLoginNeeded,  // it asks for a login and none is configured
        ProxyLoginRefused, // the login configured was not accepted
        ClosedByService,   // the service closed the connection
        Unreadable,        // the service broke the protocol (bad frames, bad text)
        TooBig,            // a message over the companion's ceiling
    };

    ConnectionProblem() = default;
    ConnectionProblem(Kind kind, QString detail = QString(), int number = 0);

    // A TLS handshake that failed with these errors (none: it failed for another reason).
    static ConnectionProblem fromSslErrors(const QList<QSslError>& errors);

    Kind kind() const { return m_kind; }
    bool isNone() const { return m_kind == Kind::None; }
    // The system's or the server's own words, for the log.
    const QString& detail() const { return m_detail; }
    // The HTTP status or close code involved, 0 when none.
    int number() const { return m_number; }

    // One sentence for the user, with what to do where there is something to do.
    QString text() const;
    // Whether trying again by itself cannot help (the user has to act first).
    bool needsUser() const { return m_kind == Kind::TokenRefused; }

    friend bool operator==(const ConnectionProblem& a, const ConnectionProblem& b) {
        return a.m_kind == b.m_kind && a.m_number == b.m_number && a.m_detail == b.m_detail;
    }

private:
    Kind m_kind = Kind::None;
    QString m_detail;
    int m_number = 0;
};
