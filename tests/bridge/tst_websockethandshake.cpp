// The opening handshake of the companion's WebSocket client, without sockets: the upgrade
// request it writes, and which answers it takes, however they are split.

#include "WebSocketHandshake.h"

#include <QCryptographicHash>
#include <QTest>

using Outcome = WebSocketHandshake::Outcome;

namespace {

// Computed here from the protocol's fixed GUID, not with the code under test.
QByteArray expectedAccept(const QByteArray& key) {
    return QCryptographicHash::hash(key + QByteArrayLiteral("258EAFA5-E914-47DA-95CA-C5AB0DC85B11"),
                                    QCryptographicHash::Sha1)
        .toBase64();
}

// The request's header lines by lower-case name; the request line under "".
QMultiMap<QByteArray, QByteArray> requestLines(const QByteArray& request) {
    QMultiMap<QByteArray, QByteArray> lines;
    const QList<QByteArray> parts = request.split('\n');
    lines.insert(QByteArray(), parts.value(0).chopped(1));
    for (qsizetype i = 1; i < parts.size(); ++i) {
        const QByteArray line = parts[i].endsWith('\r') ? parts[i].chopped(1) : parts[i];
        const qsizetype colon = line.indexOf(':');
        if (colon > 0) {
            lines.insert(line.left(colon).toLower(), line.mid(colon + 1).trimmed());
        }
    }
    return lines;
}

QByteArray keyOf(const WebSocketHandshake& handshake) {
    return requestLines(handshake.request()).value("sec-websocket-key");
}

// A server's answer to `handshake`; `headers` replace the usual ones when given.
QByteArray answer(const WebSocketHandshake& handshake, const QByteArray& extra = QByteArray(),
                  const QByteArray& statusLine = "HTTP/1.1 101 Switching Protocols") {
    return statusLine + "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " +
           expectedAccept(keyOf(handshake)) + "\r\n" + extra + "\r\n";
}

WebSocketHandshake newHandshake() {
    return WebSocketHandshake(QUrl(QStringLiteral("ws://127.0.0.1:8080/bridge?token=t")), {});
}

Outcome feedWhole(WebSocketHandshake& handshake, const QByteArray& bytes, QByteArray& rest) {
    return handshake.feed(bytes, rest);
}

// Byte by byte: every byte before the last must leave it incomplete, unless it fails early.
Outcome feedBytewise(WebSocketHandshake& handshake, const QByteArray& bytes, QByteArray& rest) {
    Outcome outcome = Outcome::Incomplete;
    for (qsizetype i = 0; i < bytes.size() && outcome == Outcome::Incomplete; ++i) {
        outcome = handshake.feed(QByteArrayView(bytes).sliced(i, 1), rest);
    }
    return outcome;
}

} // namespace

class WebSocketHandshakeTest : public QObject {
    Q_OBJECT

private slots:
    // The example of RFC 6455, section 1.3.
    void acceptForTheRfcSample() {
        QCOMPARE(WebSocketHandshake::acceptFor("dGhlIHNhbXBsZSBub25jZQ=="),
                 QByteArray("s3pPLMBiTxaQ9kYGzzhZRbK+xOo="));
        QCOMPARE(expectedAccept("dGhlIHNhbXBsZSBub25jZQ=="),
                 QByteArray("s3pPLMBiTxaQ9kYGzzhZRbK+xOo="));
    }

    void request_data() {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QByteArray>("host");
        QTest::newRow("path and query")
            << QStringLiteral("ws://example.com/chat?x=1&y=%2B") << QByteArray("/chat?x=1&y=%2B")
            << QByteArray("example.com");
        QTest::newRow("no path") << QStringLiteral("ws://example.com:8080") << QByteArray("/")
                                 << QByteArray("example.com:8080");
        QTest::newRow("default ws port") << QStringLiteral("ws://example.com:80/a")
                                         << QByteArray("/a") << QByteArray("example.com");
        QTest::newRow("default wss port") << QStringLiteral("wss://example.com:443/a")
                                          << QByteArray("/a") << QByteArray("example.com");
        QTest::newRow("wss on port 80") << QStringLiteral("wss://example.com:80/a")
                                        << QByteArray("/a") << QByteArray("example.com:80");
        QTest::newRow("IPv6 literal")
            << QStringLiteral("ws://[::1]:9000/p") << QByteArray("/p") << QByteArray("[::1]:9000");
        QTest::newRow("escaped path")
            << QStringLiteral("ws://h/a%20b/c") << QByteArray("/a%20b/c") << QByteArray("h");
    }

    // GET of the path and query, the Host with a port only when it is not the scheme's, the
    // upgrade headers, a fresh 16-byte key, version 13, the caller's headers, a blank line.
    void request() {
        QFETCH(QString, url);
        QFETCH(QByteArray, target);
        QFETCH(QByteArray, host);
        const WebSocketHandshake handshake(QUrl(url), {{"User-Agent", "Test/1"}, {"X-A", "b"}});
        const QByteArray request = handshake.request();
        QVERIFY(request.endsWith("\r\n\r\n"));
        QCOMPARE(request.count("\r\n\r\n"), 1);
        const auto lines = requestLines(request);
        QCOMPARE(lines.value(QByteArray()), "GET " + target + " HTTP/1.1");
        QCOMPARE(lines.values("host"), QList<QByteArray>{host});
        QCOMPARE(lines.value("upgrade").toLower(), QByteArray("websocket"));
        QCOMPARE(lines.value("connection").toLower(), QByteArray("upgrade"));
        QCOMPARE(lines.value("sec-websocket-version"), QByteArray("13"));
        QCOMPARE(lines.value("user-agent"), QByteArray("Test/1"));
        QCOMPARE(lines.value("x-a"), QByteArray("b"));
        const QByteArray key = lines.value("sec-websocket-key");
        const auto decoded =
            QByteArray::fromBase64Encoding(key, QByteArray::AbortOnBase64DecodingErrors);
        QVERIFY(decoded);
        QCOMPARE(decoded.decoded.size(), 16);
        QCOMPARE(decoded.decoded.toBase64(), key);
        // A new key each time.
        QVERIFY(keyOf(WebSocketHandshake(QUrl(url), {})) != key);
    }

    // A proper answer is accepted however it is split, and what follows it is handed on.
    void acceptsAProperAnswer() {
        WebSocketHandshake probe = newHandshake();
        const QByteArray frames("\x81\x02hi\x89\x00", 6);
        {
            WebSocketHandshake handshake = newHandshake();
            QByteArray rest;
            QCOMPARE(feedWhole(handshake, answer(handshake) + frames, rest), Outcome::Accepted);
            QCOMPARE(rest, frames);
            QCOMPARE(handshake.status(), 101);
        }
        const int length = int(answer(probe).size());
        for (int cut = 0; cut <= length; ++cut) {
            WebSocketHandshake handshake = newHandshake();
            const QByteArray bytes = answer(handshake) + frames;
            QByteArray rest;
            const Outcome first = handshake.feed(bytes.first(cut), rest);
            if (cut < length) {
                QCOMPARE(first, Outcome::Incomplete);
                QCOMPARE(handshake.feed(bytes.sliced(cut), rest), Outcome::Accepted);
            } else {
                QCOMPARE(first, Outcome::Accepted);
            }
            QCOMPARE(rest, cut < length ? frames : QByteArray());
        }
        WebSocketHandshake handshake = newHandshake();
        QByteArray rest;
        QCOMPARE(feedBytewise(handshake, answer(handshake), rest), Outcome::Accepted);
        QVERIFY(rest.isEmpty());
    }

    void acceptedVariants_data() {
        QTest::addColumn<QByteArray>("statusLine");
        QTest::addColumn<QByteArray>("extra");
        QTest::newRow("plain") << QByteArray("HTTP/1.1 101 Switching Protocols") << QByteArray();
        QTest::newRow("no reason phrase") << QByteArray("HTTP/1.1 101") << QByteArray();
        QTest::newRow("other headers") << QByteArray("HTTP/1.1 101 Switching Protocols")
                                       << QByteArray("Server: x\r\nDate: today\r\n");
        QTest::newRow("empty extensions")
            << QByteArray("HTTP/1.1 101 OK") << QByteArray("Sec-WebSocket-Extensions:\r\n");
    }

    void acceptedVariants() {
        QFETCH(QByteArray, statusLine);
        QFETCH(QByteArray, extra);
        WebSocketHandshake handshake = newHandshake();
        QByteArray rest;
        QCOMPARE(feedWhole(handshake, answer(handshake, extra, statusLine), rest),
                 Outcome::Accepted);
    }

    // Header names in any case, "WebSocket" in any case, "Upgrade" among other tokens.
    void caseAndTokens() {
        WebSocketHandshake handshake = newHandshake();
        const QByteArray bytes = "HTTP/1.1 101 Switching Protocols\r\nUPGRADE: WebSocket\r\n"
                                 "connection: keep-alive, upgrade\r\nsec-websocket-accept: " +
                                 expectedAccept(keyOf(handshake)) + "\r\n\r\n";
        QByteArray rest;
        QCOMPARE(feedWhole(handshake, bytes, rest), Outcome::Accepted);
    }

    void refused_data() {
        QTest::addColumn<int>("status");
        for (const int status : {100, 200, 204, 301, 302, 400, 401, 403, 404, 426, 500, 503}) {
            QTest::addRow("%d", status) << status;
        }
    }

    // Another status than 101: refused, with the status for the user's message.
    void refused() {
        QFETCH(int, status);
        WebSocketHandshake handshake = newHandshake();
        QByteArray rest;
        const QByteArray bytes =
            "HTTP/1.1 " + QByteArray::number(status) + " Whatever\r\nContent-Length: 0\r\n\r\n";
        QCOMPARE(feedBytewise(handshake, bytes, rest), Outcome::Refused);
        QCOMPARE(handshake.status(), status);
        QVERIFY(!handshake.problem().isEmpty());
    }

    void malformed_data() {
        QTest::addColumn<QByteArray>("bytes");
        const auto line = [](const char* text) { return QByteArray(text); };
        QTest::newRow("not HTTP") << line("SSH-2.0-OpenSSH_9.2\r\n\r\n");
        QTest::newRow("no status") << line("HTTP/1.1\r\n\r\n");
        QTest::newRow("status not a number") << line("HTTP/1.1 abc Switching\r\n\r\n");
        QTest::newRow("HTTP/2") << line("HTTP/2 101\r\n\r\n");
        QTest::newRow("wrong accept") << line("HTTP/1.1 101 Switching Protocols\r\n"
                                              "Upgrade: websocket\r\nConnection: Upgrade\r\n"
                                              "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo="
                                              "\r\n\r\n");
        QTest::newRow("no accept") << line("HTTP/1.1 101 Switching Protocols\r\n"
                                           "Upgrade: websocket\r\nConnection: Upgrade\r\n\r\n");
    }

    void malformed() {
        QFETCH(QByteArray, bytes);
        WebSocketHandshake handshake = newHandshake();
        QByteArray rest;
        QCOMPARE(feedWhole(handshake, bytes, rest), Outcome::Malformed);
        QVERIFY(!handshake.problem().isEmpty());
    }

    void missingPieces_data() {
        QTest::addColumn<QByteArray>("drop");
        QTest::addColumn<QByteArray>("replace");
        QTest::newRow("no Upgrade") << QByteArray("Upgrade: websocket\r\n") << QByteArray();
        QTest::newRow("Upgrade to something else")
            << QByteArray("Upgrade: websocket\r\n") << QByteArray("Upgrade: h2c\r\n");
        QTest::newRow("no Connection") << QByteArray("Connection: Upgrade\r\n") << QByteArray();
        QTest::newRow("Connection without upgrade")
            << QByteArray("Connection: Upgrade\r\n") << QByteArray("Connection: keep-alive\r\n");
        QTest::newRow("Connection with upgrade only inside a token")
            << QByteArray("Connection: Upgrade\r\n") << QByteArray("Connection: upgraded\r\n");
    }

    // An answer to the proper key that lacks a header or says something else in it.
    void missingPieces() {
        QFETCH(QByteArray, drop);
        QFETCH(QByteArray, replace);
        WebSocketHandshake handshake = newHandshake();
        QByteArray bytes = answer(handshake);
        QVERIFY(bytes.contains(drop));
        bytes.replace(drop, replace);
        QByteArray rest;
        QCOMPARE(feedWhole(handshake, bytes, rest), Outcome::Malformed);
    }

    // None were asked for, so a server may use none.
    void extensionsRefused_data() {
        QTest::addColumn<QByteArray>("extra");
        QTest::newRow("permessage-deflate")
            << QByteArray("Sec-WebSocket-Extensions: permessage-deflate\r\n");
        QTest::newRow("with parameters") << QByteArray(
            "Sec-WebSocket-Extensions: permessage-deflate; server_no_context_takeover\r\n");
    }

    void extensionsRefused() {
        QFETCH(QByteArray, extra);
        WebSocketHandshake handshake = newHandshake();
        QByteArray rest;
        QCOMPARE(feedWhole(handshake, answer(handshake, extra), rest), Outcome::Malformed);
        QVERIFY(handshake.problem().contains(QStringLiteral("extension")));
    }

    // Up to 16 KiB of headers (the blank line that ends them included) are read; more are
    // refused, the same whether they arrive at once or in pieces.
    void headerLimit_data() {
        QTest::addColumn<int>("total");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("exactly 16 KiB") << 16 * 1024 << true;
        QTest::newRow("one byte over") << 16 * 1024 + 1 << false;
        QTest::newRow("17 KiB") << 17 * 1024 << false;
        QTest::newRow("64 KiB") << 64 * 1024 << false;
    }

    void headerLimit() {
        QFETCH(int, total);
        QFETCH(bool, accepted);
        for (const int mode : {0, 1, 2}) {
            WebSocketHandshake handshake = newHandshake();
            const QByteArray base = answer(handshake);
            const QByteArray filler = "X-Filler: ";
            const qsizetype room = total - base.size() - filler.size() - 2;
            QVERIFY(room > 0);
            const QByteArray bytes =
                answer(handshake, filler + QByteArray(room, 'f') + "\r\n") + "\x81\x00";
            QCOMPARE(bytes.indexOf("\r\n\r\n") + 4, total);
            QByteArray rest;
            Outcome outcome = Outcome::Incomplete;
            if (mode == 0) {
                outcome = feedWhole(handshake, bytes, rest);
            } else if (mode == 1) {
                outcome = feedBytewise(handshake, bytes, rest);
            } else {
                // In reads of 4 KiB, as a socket might hand them over.
                for (qsizetype at = 0; at < bytes.size() && outcome == Outcome::Incomplete;
                     at += 4096) {
                    outcome = handshake.feed(QByteArrayView(bytes).sliced(at).first(
                                                 std::min<qsizetype>(4096, bytes.size() - at)),
                                             rest);
                }
            }
            QCOMPARE(outcome, accepted ? Outcome::Accepted : Outcome::Malformed);
        }
    }

    // Headers that never end are refused once they pass the limit, not read forever.
    void headersThatNeverEnd() {
        WebSocketHandshake handshake = newHandshake();
        QByteArray rest;
        QCOMPARE(handshake.feed("HTTP/1.1 101 Switching Protocols\r\n", rest), Outcome::Incomplete);
        const QByteArray line = "X-Endless: " + QByteArray(50, 'a') + "\r\n";
        Outcome outcome = Outcome::Incomplete;
        qsizetype read = 0;
        while (outcome == Outcome::Incomplete && read < 1024 * 1024) {
            outcome = handshake.feed(line, rest);
            read += line.size();
        }
        QCOMPARE(outcome, Outcome::Malformed);
        QVERIFY(read <= 16 * 1024 + line.size());
    }

    // A subprotocol the companion did not ask for fails the connection; one it asked for is
    // fine.
    void subprotocols_data() {
        QTest::addColumn<QByteArray>("asked");
        QTest::addColumn<QByteArray>("answered");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("none asked, one answered") << QByteArray() << QByteArray("chat") << false;
        QTest::newRow("asked, another answered")
            << QByteArray("chat, superchat") << QByteArray("other") << false;
        QTest::newRow("asked, one of them answered")
            << QByteArray("chat, superchat") << QByteArray("superchat") << true;
        QTest::newRow("asked, none answered") << QByteArray("chat") << QByteArray() << true;
        QTest::newRow("asked, two answered")
            << QByteArray("chat, superchat") << QByteArray("chat, superchat") << false;
    }

    void subprotocols() {
        QFETCH(QByteArray, asked);
        QFETCH(QByteArray, answered);
        QFETCH(bool, accepted);
        QList<QPair<QByteArray, QByteArray>> headers;
        if (!asked.isEmpty()) {
            headers.append({"Sec-WebSocket-Protocol", asked});
        }
        WebSocketHandshake handshake(QUrl(QStringLiteral("ws://127.0.0.1/")), headers);
        const QByteArray extra =
            answered.isEmpty() ? QByteArray() : "Sec-WebSocket-Protocol: " + answered + "\r\n";
        QByteArray rest;
        QCOMPARE(feedWhole(handshake, answer(handshake, extra), rest),
                 accepted ? Outcome::Accepted : Outcome::Malformed);
    }
};

QTEST_GUILESS_MAIN(WebSocketHandshakeTest)
#include "tst_websockethandshake.moc"
