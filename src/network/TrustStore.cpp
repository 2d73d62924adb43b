#include "TrustStore.h"

#include <QDir>
#include <QLoggingCategory>
#include <QMutex>
#include <QSslCertificate>

#include <optional>
#include <tuple>

Q_LOGGING_CATEGORY(lcTrust, "quillmar.network.trust", QtWarningMsg)

namespace {

QSslConfiguration build(const QString& file, const QString& folders) {
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    QList<QSslCertificate> extra;
    if (!file.isEmpty()) {
        const QList<QSslCertificate> found = QSslCertificate::fromPath(file, QSsl::Pem);
        if (found.isEmpty()) {
            qCWarning(lcTrust) << "SSL_CERT_FILE holds no certificate:" << file;
        }
        extra += found;
    }
    for (const QString& folder : folders.split(u':', Qt::SkipEmptyParts)) {
        const QDir dir(folder);
        for (const QString& name : dir.entryList(QDir::Files | QDir::Readable)) {
            extra += QSslCertificate::fromPath(dir.filePath(name), QSsl::Pem);
        }
    }
    if (!extra.isEmpty()) {
        // A list of our own ends Qt's loading of the system's authorities on demand (the
        // default list is then empty): they go in the list too, or public services would fail.
        QList<QSslCertificate> trusted = configuration.caCertificates();
        if (trusted.isEmpty()) {
            trusted = QSslConfiguration::systemCaCertificates();
        }
        configuration.setCaCertificates(trusted + extra);
    }
    return configuration;
}

} // namespace

QSslConfiguration TrustStore::configuration() {
    // Reading a few hundred certificates takes Qt a second or more, and each connection asks:
    // made once for each value of the variables, the files are not read again while the
    // companion runs.
    // Never destroyed: at exit Qt's TLS backend may be gone before the certificates.
    static QMutex mutex;
    static auto* made = new std::optional<std::tuple<QString, QString, QSslConfiguration>>;
    const QString file = qEnvironmentVariable("SSL_CERT_FILE");
    const QString folders = qEnvironmentVariable("SSL_CERT_DIR");
    const QMutexLocker locker(&mutex);
    if (!*made || std::get<0>(**made) != file || std::get<1>(**made) != folders) {
        made->emplace(file, folders, build(file, folders));
    }
    return std::get<2>(**made);
}
