// quillmar-devservice: a local stand-in for the Quillmar service, for development and tests.
// Prints "listening http://HOST:PORT" and "pairing-code CODE", one per line, then serves until
// killed.

#include "DevService.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QTextStream>

#include <cstdio>

namespace {

int usageError(QTextStream& err, const QString& message) {
    err << "quillmar-devservice: " << message << "\n"
        << "usage: quillmar-devservice [--host ADDRESS] [--port N] [--state FILE]\n"
        << Qt::flush;
    return 2;
}

} // namespace

int main(int argc, char* argv[]) {
    // Qt's own event loop rather than GLib's: GLib wakes the loop for every change of a socket
    // notifier, that is twice per buffered write, and the agent waits on every round trip.
    if (!qEnvironmentVariableIsSet("QT_NO_GLIB")) {
        qputenv("QT_NO_GLIB", "1");
    }
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("quillmar-devservice"));

    QTextStream out(stdout);
    QTextStream err(stderr);
    QString host = QStringLiteral("127.0.0.1");
    QString portText = QStringLiteral("0");
    QString statePath;

    const QStringList arguments = app.arguments().mid(1);
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        QString* target = argument == u"--host"    ? &host
                          : argument == u"--port"  ? &portText
                          : argument == u"--state" ? &statePath
                                                   : nullptr;
        if (!target) {
            return usageError(err, QStringLiteral("unexpected argument %1").arg(argument));
        }
        if (i + 1 >= arguments.size()) {
            return usageError(err, QStringLiteral("%1 needs a value").arg(argument));
        }
        *target = arguments[++i];
    }

    bool portOk = false;
    const uint port = portText.toUInt(&portOk);
    if (!portOk || port > 65535) {
        return usageError(err, QStringLiteral("bad port %1").arg(portText));
    }
    const QHostAddress address(host);
    if (address.isNull()) {
        return usageError(err, QStringLiteral("bad host address %1").arg(host));
    }

    DevService service;
    QString error;
    if (!statePath.isEmpty() && !service.useStateFile(statePath, error)) {
        err << "quillmar-devservice: " << error << "\n" << Qt::flush;
        return 1;
    }
    if (!service.listen(address, quint16(port), error)) {
        err << "quillmar-devservice: cannot listen on " << host << ":" << port << ": " << error
            << "\n"
            << Qt::flush;
        return 1;
    }

    const QString shownHost =
        address.protocol() == QAbstractSocket::IPv6Protocol ? u'[' + host + u']' : host;
    out << "listening http://" << shownHost << ":" << service.port() << "\n"
        << "pairing-code " << service.registry().issueCode() << "\n"
        << Qt::flush;
    return QCoreApplication::exec();
}
