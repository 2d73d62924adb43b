#include "TrustStore.h"

#include <QDir>
#include <QLoggingCategory>
#include <QSslCertificate>

Q_LOGGING_CATEGORY(lcTrust, "quillmar.network.trust", QtWarningMsg)

QSslConfiguration TrustStore::configuration() {
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    QList<QSslCertificate> extra;
    const QString file = qEnvironmentVariable("SSL_CERT_FILE");
    if (!file.isEmpty()) {
        const QList<QSslCertificate> found = QSslCertificate::fromPath(file, QSsl::Pem);
        if (found.isEmpty()) {
            qCWarning(lcTrust) << "SSL_CERT_FILE holds no certificate:" << file;
        }
        extra += found;
    }
    for (const QString& folder :
         qEnvironmentVariable("SSL_CERT_DIR").split(u':', Qt::SkipEmptyParts)) {
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
