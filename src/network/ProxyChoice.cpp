#include "ProxyChoice.h"

#include <QHostAddress>
#include <QNetworkProxyFactory>
#include <QStringList>
#include <QtConcurrent>

#include <optional>

namespace {

QString firstSet(const QProcessEnvironment& environment, std::initializer_list<const char*> names) {
    for (const char* name : names) {
        const QString value = environment.value(QString::fromLatin1(name)).trimmed();
        if (!value.isEmpty()) {
            return value;
        }
    }
    return QString();
}

bool isLoopback(const QString& host) {
    if (host.compare(u"localhost", Qt::CaseInsensitive) == 0 ||
        host.endsWith(u".localhost", Qt::CaseInsensitive)) {
        return true;
    }
    const QHostAddress address(host);
    return !address.isNull() && address.isLoopback();
}

} // namespace

std::optional<QNetworkProxy> ProxyChoice::parse(const QString& value) {
    const QString text = value.trimmed();
    if (text.isEmpty()) {
        return std::nullopt;
    }
    // Without a scheme the value is an HTTP proxy's host and port.
    const QUrl url(text.contains(QStringLiteral("://")) ? text : QStringLiteral("http://") + text,
                   QUrl::TolerantMode);
    if (!url.isValid() || url.host().isEmpty()) {
        return std::nullopt;
    }
    const QString scheme = url.scheme().toLower();
    QNetworkProxy::ProxyType type = QNetworkProxy::HttpProxy;
    if (scheme == u"socks5" || scheme == u"socks5h" || scheme == u"socks") {
        type = QNetworkProxy::Socks5Proxy;
    } else if (scheme != u"http" && scheme != u"https") {
        return std::nullopt;
    }
    // The command-line tools' default port for a proxy.
    QNetworkProxy proxy(type, url.host(), quint16(url.port(1080)), url.userName(QUrl::FullyDecoded),
                        url.password(QUrl::FullyDecoded));
    return proxy;
}

bool ProxyChoice::exempt(const QString& host, const QString& noProxy) {
    const QHostAddress address(host);
    for (QString entry : noProxy.split(u',', Qt::SkipEmptyParts)) {
        entry = entry.trimmed();
        if (entry.isEmpty()) {
            continue;
        }
        if (entry == u"*") {
            return true;
        }
        if (!address.isNull()) {
            const QPair<QHostAddress, int> network = QHostAddress::parseSubnet(entry);
            if (network.first.isNull() ? QHostAddress(entry) == address
                                       : address.isInSubnet(network)) {
                return true;
            }
            continue;
        }
        // A name covers itself and every name below it; a leading "." changes nothing.
        if (entry.startsWith(u'.')) {
            entry.remove(0, 1);
        }
        if (host.compare(entry, Qt::CaseInsensitive) == 0 ||
            host.endsWith(u'.' + entry, Qt::CaseInsensitive)) {
            return true;
        }
    }
    return false;
}

namespace {

// What the environment says for `target`: a proxy, none, or nothing (then the desktop decides).
std::optional<QNetworkProxy> fromEnvironment(const QUrl& target,
                                             const QProcessEnvironment& environment) {
    const QNetworkProxy none(QNetworkProxy::NoProxy);
    const QString host = target.host();
    if (host.isEmpty() || isLoopback(host)) {
        return none;
    }
    if (ProxyChoice::exempt(host, firstSet(environment, {"no_proxy", "NO_PROXY"}))) {
        return none;
    }
    const QString scheme = target.scheme().toLower();
    const bool secure = scheme == u"https" || scheme == u"wss";
    // HTTP_PROXY in capitals is left alone, as command-line tools do: web servers pass a
    // request's "Proxy:" header to programs in that very name.
    const QString chosen = secure ? firstSet(environment, {"https_proxy", "HTTPS_PROXY"})
                                  : firstSet(environment, {"http_proxy"});
    const QString value =
        chosen.isEmpty() ? firstSet(environment, {"all_proxy", "ALL_PROXY"}) : chosen;
    if (!value.isEmpty()) {
        return ProxyChoice::parse(value).value_or(none);
    }
    // A proxy variable for another scheme still means the environment decides: Qt (through
    // libproxy) would read http_proxy, and HTTP_PROXY in capitals, for https too.
    if (!firstSet(environment, {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY"})
             .isEmpty()) {
        return none;
    }
    return std::nullopt;
}

// The desktop's settings (GNOME, KDE, a PAC file), through Qt.
QNetworkProxy fromDesktop(const QUrl& target) {
    const QNetworkProxy none(QNetworkProxy::NoProxy);
    const QString scheme = target.scheme().toLower();
    QNetworkProxyQuery query(target);
    if (scheme == u"wss" || scheme == u"ws") {
        // Asked as for the web address the connection starts as.
        QUrl web = target;
        web.setScheme(scheme == u"wss" ? QStringLiteral("https") : QStringLiteral("http"));
        query = QNetworkProxyQuery(web);
    }
    for (const QNetworkProxy& proxy : QNetworkProxyFactory::systemProxyForQuery(query)) {
        if (proxy.type() == QNetworkProxy::HttpProxy ||
            proxy.type() == QNetworkProxy::Socks5Proxy) {
            return proxy;
        }
        if (proxy.type() == QNetworkProxy::NoProxy) {
            return none;
        }
    }
    return none;
}

} // namespace

QNetworkProxy ProxyChoice::forUrl(const QUrl& target, const QProcessEnvironment& environment) {
    if (std::optional<QNetworkProxy> decided = fromEnvironment(target, environment)) {
        return *decided;
    }
    return fromDesktop(target);
}

QFuture<QNetworkProxy> ProxyChoice::lookUp(const QUrl& target) {
    if (std::optional<QNetworkProxy> decided =
            fromEnvironment(target, QProcessEnvironment::systemEnvironment())) {
        return QtFuture::makeReadyFuture(*decided);
    }
    return QtConcurrent::run([target] { return fromDesktop(target); });
}
