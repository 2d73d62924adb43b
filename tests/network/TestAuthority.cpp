#include "TestAuthority.h"

#include <QDir>
#include <QFile>
#include <QProcess>

const QStringList TestAuthority::serverNames{QStringLiteral("quillmar.test"),
                                             QStringLiteral("direct.quillmar.test")};

namespace {

// P-256 keys: made in milliseconds, where RSA keys would take a noticeable while.
const QStringList newKey{QStringLiteral("-newkey"), QStringLiteral("ec"),
                         QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:prime256v1"),
                         QStringLiteral("-nodes")};

QStringList authority(const QString& name, const QString& key, const QString& certificate) {
    return QStringList{QStringLiteral("req"), QStringLiteral("-x509")} + newKey +
           QStringList{
               QStringLiteral("-keyout"), key,
               QStringLiteral("-out"),    certificate,
               QStringLiteral("-days"),   QStringLiteral("3"),
               QStringLiteral("-subj"),   QStringLiteral("/CN=") + name,
               QStringLiteral("-addext"), QStringLiteral("basicConstraints=critical,CA:TRUE"),
               QStringLiteral("-addext"), QStringLiteral("keyUsage=critical,keyCertSign,cRLSign")};
}

} // namespace

TestAuthority::TestAuthority() {
    if (!m_dir.isValid()) {
        m_problem = QStringLiteral("no temporary folder");
        return;
    }
    QFile extensions(path(QStringLiteral("server.ext")));
    QString altNames = QStringLiteral("subjectAltName=IP:127.0.0.1");
    for (const QString& name : serverNames) {
        altNames += QStringLiteral(",DNS:") + name;
    }
    if (!extensions.open(QIODevice::WriteOnly) ||
        extensions.write((altNames + QStringLiteral("\nbasicConstraints=CA:FALSE\n"
                                                    "keyUsage=critical,digitalSignature\n"
                                                    "extendedKeyUsage=serverAuth\n"))
                             .toUtf8()) < 0) {
        m_problem = QStringLiteral("cannot write the certificate's extensions");
        return;
    }
    extensions.close();
    if (!run(authority(QStringLiteral("Quillmar Test Authority"), path(QStringLiteral("ca.key")),
                       caFile())) ||
        !run(authority(QStringLiteral("Unrelated Test Authority"),
                       path(QStringLiteral("other.key")), otherCaFile())) ||
        !run(QStringList{QStringLiteral("req")} + newKey +
             QStringList{QStringLiteral("-keyout"), serverKeyFile(), QStringLiteral("-out"),
                         path(QStringLiteral("server.csr")), QStringLiteral("-subj"),
                         QStringLiteral("/CN=quillmar.test")}) ||
        !run({QStringLiteral("x509"), QStringLiteral("-req"), QStringLiteral("-in"),
              path(QStringLiteral("server.csr")), QStringLiteral("-CA"), caFile(),
              QStringLiteral("-CAkey"), path(QStringLiteral("ca.key")),
              QStringLiteral("-set_serial"), QStringLiteral("7"), QStringLiteral("-days"),
              QStringLiteral("2"), QStringLiteral("-extfile"), path(QStringLiteral("server.ext")),
              QStringLiteral("-out"), serverCertificateFile()})) {
        return;
    }

    // The folder as c_rehash makes it: HASH.0 for each authority.
    if (!QDir().mkpath(caDir())) {
        m_problem = QStringLiteral("cannot make the authorities' folder");
        return;
    }
    for (const QString& certificate : {caFile(), otherCaFile()}) {
        QProcess hash;
        hash.start(QStringLiteral("openssl"),
                   {QStringLiteral("x509"), QStringLiteral("-noout"), QStringLiteral("-hash"),
                    QStringLiteral("-in"), certificate});
        if (!hash.waitForFinished(30000) || hash.exitCode() != 0) {
            m_problem = QStringLiteral("openssl x509 -hash failed");
            return;
        }
        const QString name = QString::fromLatin1(hash.readAllStandardOutput().trimmed());
        if (!QFile::copy(certificate, caDir() + u'/' + name + QStringLiteral(".0"))) {
            m_problem = QStringLiteral("cannot fill the authorities' folder");
            return;
        }
    }
}

QString TestAuthority::caFile() const {
    return path(QStringLiteral("ca.pem"));
}

QString TestAuthority::caDir() const {
    return path(QStringLiteral("authorities"));
}

QString TestAuthority::otherCaFile() const {
    return path(QStringLiteral("other-ca.pem"));
}

QString TestAuthority::serverCertificateFile() const {
    return path(QStringLiteral("server.pem"));
}

QString TestAuthority::serverKeyFile() const {
    return path(QStringLiteral("server.key"));
}

QByteArray TestAuthority::read(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool TestAuthority::run(const QStringList& arguments) {
    QProcess openssl;
    openssl.setProcessChannelMode(QProcess::MergedChannels);
    openssl.start(QStringLiteral("openssl"), arguments);
    if (!openssl.waitForFinished(30000) || openssl.exitStatus() != QProcess::NormalExit ||
        openssl.exitCode() != 0) {
        m_problem = QStringLiteral("openssl %1 failed: %2 %3")
                        .arg(arguments.join(u' '), openssl.errorString(),
                             QString::fromLocal8Bit(openssl.readAll()));
        return false;
    }
    return true;
}

QString TestAuthority::path(const QString& name) const {
    return m_dir.filePath(name);
}
