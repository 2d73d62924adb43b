// The authorities the companion trusts: the system's, plus those named in SSL_CERT_FILE and
// SSL_CERT_DIR, read from real PEM files made by openssl for this run.

#include "TempTree.h"
#include "TestAuthority.h"
#include "TrustStore.h"

#include <QSslCertificate>
#include <QTest>

namespace {

class ScopedVariable {
public:
    ScopedVariable(const char* name, const QString& value) : m_name(name) {
        qputenv(name, QFile::encodeName(value));
    }
    ~ScopedVariable() { qunsetenv(m_name); }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    const char* m_name;
};

QSslCertificate certificateIn(const QString& path) {
    const QList<QSslCertificate> found = QSslCertificate::fromPath(path);
    return found.size() == 1 ? found.front() : QSslCertificate();
}

} // namespace

class TrustStoreTest : public QObject {
    Q_OBJECT

    TestAuthority authority;
    QSslCertificate ca;
    QSslCertificate otherCa;
    QList<QSslCertificate> system;

private slots:
    void initTestCase() {
        QVERIFY2(authority.isValid(), qPrintable(authority.problem()));
        qunsetenv("SSL_CERT_FILE");
        qunsetenv("SSL_CERT_DIR");
        ca = certificateIn(authority.caFile());
        otherCa = certificateIn(authority.otherCaFile());
        QVERIFY(!ca.isNull());
        QVERIFY(!otherCa.isNull());
        system = QSslConfiguration::systemCaCertificates();
    }

    void withoutVariablesItIsQtsDefault() {
        const QSslConfiguration configuration = TrustStore::configuration();
        QCOMPARE(configuration.caCertificates(),
                 QSslConfiguration::defaultConfiguration().caCertificates());
        QVERIFY(!configuration.caCertificates().contains(ca));
    }

    void aFileAddsItsAuthority() {
        const ScopedVariable file("SSL_CERT_FILE", authority.caFile());
        const QList<QSslCertificate> trusted = TrustStore::configuration().caCertificates();
        QVERIFY(trusted.contains(ca));
        QVERIFY(!trusted.contains(otherCa));
    }

    void theSystemsAuthoritiesStayTrusted_data() {
        QTest::addColumn<QByteArray>("variable");
        QTest::newRow("SSL_CERT_FILE") << QByteArray("SSL_CERT_FILE");
        QTest::newRow("SSL_CERT_DIR") << QByteArray("SSL_CERT_DIR");
    }
    void theSystemsAuthoritiesStayTrusted() {
        QFETCH(QByteArray, variable);
        if (system.isEmpty()) {
            QSKIP("this machine has no system authorities (install ca-certificates)");
        }
        const ScopedVariable set(variable.constData(), variable == "SSL_CERT_FILE"
                                                           ? authority.caFile()
                                                           : authority.caDir());
        const QList<QSslCertificate> trusted = TrustStore::configuration().caCertificates();
        QVERIFY(trusted.contains(ca));
        // A public service must still be reached when an administrator adds a private authority.
        for (const QSslCertificate& certificate : std::as_const(system)) {
            QVERIFY2(trusted.contains(certificate),
                     qPrintable(certificate.subjectDisplayName() + QStringLiteral(" was dropped")));
        }
    }

    void aFileWithSeveralAuthoritiesAndJunk() {
        TempTree tree;
        const QByteArray junk = "junk before\n-----BEGIN CERTIFICATE-----\nbm90IGEgY2VydA==\n"
                                "-----END CERTIFICATE-----\nmore junk\n";
        const QString file =
            tree.file(QStringLiteral("bundle.pem"),
                      junk + TestAuthority::read(authority.caFile()) + "\r\nbetween\r\n" +
                          TestAuthority::read(authority.otherCaFile()) + junk);
        const ScopedVariable set("SSL_CERT_FILE", file);
        const QList<QSslCertificate> trusted = TrustStore::configuration().caCertificates();
        QVERIFY(trusted.contains(ca));
        QVERIFY(trusted.contains(otherCa));
    }

    void aFileOfJunkAddsNothing_data() {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("text") << QByteArray("this is not a certificate\n");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("bad base64") << QByteArray("-----BEGIN CERTIFICATE-----\n!!!!\n"
                                                  "-----END CERTIFICATE-----\n");
        QTest::newRow("binary") << QByteArray("\x30\x82\x01\x00\xff\xfe", 6);
    }
    void aFileOfJunkAddsNothing() {
        QFETCH(QByteArray, bytes);
        TempTree tree;
        const ScopedVariable set("SSL_CERT_FILE", tree.file(QStringLiteral("junk.pem"), bytes));
        QCOMPARE(TrustStore::configuration().caCertificates(),
                 QSslConfiguration::defaultConfiguration().caCertificates());
    }

    void aMissingFileAddsNothing() {
        const ScopedVariable set("SSL_CERT_FILE", QStringLiteral("/nonexistent/quillmar/ca.pem"));
        QCOMPARE(TrustStore::configuration().caCertificates(),
                 QSslConfiguration::defaultConfiguration().caCertificates());
    }

    void aFolderAddsEveryAuthorityInIt() {
        const ScopedVariable set("SSL_CERT_DIR", authority.caDir());
        const QList<QSslCertificate> trusted = TrustStore::configuration().caCertificates();
        QVERIFY(trusted.contains(ca));
        QVERIFY(trusted.contains(otherCa));
    }

    void aFolderWithJunkAndSubfolders() {
        TempTree tree;
        tree.file(QStringLiteral("certs/a.pem"), TestAuthority::read(authority.caFile()));
        tree.file(QStringLiteral("certs/README"), "not a certificate");
        tree.file(QStringLiteral("certs/empty.pem"));
        tree.file(QStringLiteral("certs/deeper/b.pem"),
                  TestAuthority::read(authority.otherCaFile()));
        const ScopedVariable set("SSL_CERT_DIR", tree.path(QStringLiteral("certs")));
        const QList<QSslCertificate> trusted = TrustStore::configuration().caCertificates();
        QVERIFY(trusted.contains(ca));
        // Like OpenSSL's own lookup, a folder's subfolders are not searched.
        QVERIFY(!trusted.contains(otherCa));
    }

    void severalFoldersSeparatedByColons() {
        TempTree tree;
        tree.file(QStringLiteral("one/a.pem"), TestAuthority::read(authority.caFile()));
        tree.file(QStringLiteral("two/b.pem"), TestAuthority::read(authority.otherCaFile()));
        const ScopedVariable set("SSL_CERT_DIR", tree.path(QStringLiteral("one")) +
                                                     QStringLiteral("::/nonexistent/quillmar:") +
                                                     tree.path(QStringLiteral("two")));
        const QList<QSslCertificate> trusted = TrustStore::configuration().caCertificates();
        QVERIFY(trusted.contains(ca));
        QVERIFY(trusted.contains(otherCa));
    }

    void fileAndFolderTogether() {
        TempTree tree;
        tree.file(QStringLiteral("certs/b.pem"), TestAuthority::read(authority.otherCaFile()));
        const ScopedVariable file("SSL_CERT_FILE", authority.caFile());
        const ScopedVariable dir("SSL_CERT_DIR", tree.path(QStringLiteral("certs")));
        const QList<QSslCertificate> trusted = TrustStore::configuration().caCertificates();
        QVERIFY(trusted.contains(ca));
        QVERIFY(trusted.contains(otherCa));
    }
};

QTEST_GUILESS_MAIN(TrustStoreTest)
#include "tst_truststore.moc"
