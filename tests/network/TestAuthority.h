#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

// A private certificate authority made with the openssl command for one test run, and a server
// certificate it signed for quillmar.test, direct.quillmar.test and 127.0.0.1. Nothing on the
// machine trusts it unless told to: SSL_CERT_FILE=caFile() or SSL_CERT_DIR=caDir().
class TestAuthority {
public:
    // The names the server certificate is valid for (besides the address 127.0.0.1).
    static const QStringList serverNames;

    TestAuthority();
    TestAuthority(const TestAuthority&) = delete;
    TestAuthority& operator=(const TestAuthority&) = delete;

    // Whether every file was made; problem() says why not.
    bool isValid() const { return m_problem.isEmpty(); }
    QString problem() const { return m_problem; }

    // The authority's certificate, PEM.
    QString caFile() const;
    // A folder holding it under its hash name, the way c_rehash lays one out, next to another
    // authority's certificate that signed nothing here.
    QString caDir() const;
    // Another authority, which signed nothing the server shows.
    QString otherCaFile() const;
    QString serverCertificateFile() const;
    QString serverKeyFile() const;

    // A file's bytes, empty when it cannot be read.
    static QByteArray read(const QString& path);

private:
    bool run(const QStringList& arguments);
    QString path(const QString& name) const;

    QTemporaryDir m_dir;
    QString m_problem;
};
