#pragma once

#include <QSslConfiguration>

// The certificates the companion trusts for the service: the system's, plus the authorities an
// administrator names in SSL_CERT_FILE (a PEM file) and SSL_CERT_DIR (folders of PEM files,
// separated by ":"), which OpenSSL-based tools honour and Qt by itself does not. The files are
// read once for each value of the variables.
namespace TrustStore {

QSslConfiguration configuration();

} // namespace TrustStore
