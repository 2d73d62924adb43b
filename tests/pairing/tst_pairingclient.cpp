#include "ClaimDecodeError.h"
#include "PairError.h"
#include "PairingClient.h"
#include "RecordingHttpServer.h"

#include <QCoroTask>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <memory>

namespace {

const QByteArray goodAnswer =
    "{\"device_token\":\"tok-123\",\"device_id\":\"dev-9\",\"org_id\":\"org-4\"}";
const ClaimResponse goodResponse{QStringLiteral("tok-123"), QStringLiteral("dev-9"),
                                 QStringLiteral("org-4")};

struct Outcome {
    bool finished = false;
    std::optional<ClaimResponse> response;
    std::optional<PairError> pairError;
    std::optional<ClaimDecodeError> decodeError;
};

QCoro::Task<> collect(std::shared_ptr<Outcome> outcome, QString base, QString code, QString name,
                      std::chrono::milliseconds timeout) {
    try {
        outcome->response = co_await PairingClient::claim(base, code, name, timeout);
    } catch (const PairError& error) {
        outcome->pairError = error;
    } catch (const ClaimDecodeError& error) {
        outcome->decodeError = error;
    }
    outcome->finished = true;
}

// Runs one claim to its end, or for at most ten seconds.
std::shared_ptr<Outcome> claim(const QString& base, const QString& code = QStringLiteral("AB12"),
                               const QString& name = QStringLiteral("Test Box"),
                               std::chrono::milliseconds timeout = PairingClient::requestTimeout) {
    auto outcome = std::make_shared<Outcome>();
    // A task dropped unfinished runs on by itself; the outcome it writes to is shared.
    const QCoro::Task<> task = collect(outcome, base, code, name, timeout);
    (void)QTest::qWaitFor([&] { return outcome->finished; }, 10000); // callers check `finished`
    return outcome;
}

QString descriptionOf(const Outcome& outcome) {
    if (outcome.pairError) {
        return outcome.pairError->message();
    }
    if (outcome.decodeError) {
        return outcome.decodeError->message();
    }
    return QString();
}

} // namespace

class PairingClientTest : public QObject {
    Q_OBJECT

private slots:
    void sendsOnePostWithExactHeadersAndBody() {
        RecordingHttpServer server;
        server.respond(200, goodAnswer);
        const auto outcome = claim(server.base(), QStringLiteral(" ab12-cd34\n"));
        QVERIFY(outcome->finished);
        QCOMPARE(descriptionOf(*outcome), QString());
        QCOMPARE(outcome->response, goodResponse);

        QCOMPARE(server.requests().size(), 1);
        const RecordingHttpServer::Request& request = server.requests().constFirst();
        QCOMPARE(request.method, QByteArray("POST"));
        QCOMPARE(request.target, QByteArray("/api/v1/devices/pair/claim"));
        QCOMPARE(request.headerCount("Content-Type"), 1);
        QCOMPARE(request.header("Content-Type"), QByteArray("application/json"));
        QCOMPARE(request.headerCount("User-Agent"), 1);
        QCOMPARE(request.header("User-Agent"), QByteArray("QuillmarCompanion/0.1 (Linux)"));
        QCOMPARE(
            request.body,
            QByteArray(
                "{\"code\":\"AB12-CD34\",\"device_name\":\"Test Box\",\"platform\":\"linux\"}"));
    }

    void codeIsTrimmedAndUpperCased_data() {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("sent");
        QTest::newRow("blank and line break")
            << QStringLiteral(" ab12-cd34\n") << QStringLiteral("AB12-CD34");
        QTest::newRow("tabs and crlf")
            << QStringLiteral("\t\tAb12-cD34\r\n") << QStringLiteral("AB12-CD34");
        QTest::newRow("inner blank kept") << QStringLiteral(" ab 12 ") << QStringLiteral("AB 12");
        QTest::newRow("nothing checked") << QStringLiteral("ß-é!") << QStringLiteral("SS-É!");
        QTest::newRow("only blanks") << QStringLiteral(" \n\t ") << QString();
    }
    void codeIsTrimmedAndUpperCased() {
        QFETCH(QString, typed);
        QFETCH(QString, sent);
        QCOMPARE(PairingClient::claimBody(typed, QStringLiteral("n")),
                 "{\"code\":\"" + sent.toUtf8() +
                     "\",\"device_name\":\"n\",\"platform\":\"linux\"}");
    }

    void deviceNameIsSentUnchanged() {
        RecordingHttpServer server;
        server.respond(200, goodAnswer);
        const QString name = QStringLiteral(" Büro \"Mac\" \\ 日本 ");
        const auto outcome = claim(server.base(), QStringLiteral("x"), name);
        QVERIFY(outcome->finished);
        QCOMPARE(server.requests().size(), 1);
        const QJsonObject body = QJsonDocument::fromJson(server.requests()[0].body).object();
        QCOMPARE(body.value(QStringLiteral("device_name")).toString(), name);
    }

    void emptyCodeIsSentAndItsRejectionIsInvalidCode() {
        RecordingHttpServer server;
        server.respond(400, "{\"error\":\"bad code\"}");
        const auto outcome = claim(server.base(), QString());
        QVERIFY(outcome->finished);
        QCOMPARE(server.requests().size(), 1);
        QCOMPARE(server.requests()[0].body,
                 QByteArray("{\"code\":\"\",\"device_name\":\"Test Box\",\"platform\":\"linux\"}"));
        QVERIFY(outcome->pairError);
        QCOMPARE(outcome->pairError->kind(), PairError::Kind::InvalidCode);
        QCOMPARE(outcome->pairError->message(),
                 QStringLiteral(
                     "That code is invalid or expired. Generate a fresh one in the web app."));
        QCOMPARE(QString::fromUtf8(outcome->pairError->what()), outcome->pairError->message());
    }

    void baseEndingInSlashGivesDoubleSlash() {
        RecordingHttpServer server;
        server.respond(200, goodAnswer);
        const QString base = server.base() + u'/';
        QCOMPARE(PairingClient::claimUrl(base)->path(),
                 QStringLiteral("//api/v1/devices/pair/claim"));
        const auto outcome = claim(base);
        QVERIFY(outcome->finished);
        QCOMPARE(outcome->response, goodResponse);
        QCOMPARE(server.requests().size(), 1);
        // Qt's HTTP stack normalises the path segments of every request it sends.
        QCOMPARE(server.requests()[0].target, QByteArray("/api/v1/devices/pair/claim"));
    }

    void baseWithPathKeepsIt() {
        RecordingHttpServer server;
        server.respond(200, goodAnswer);
        const QString base = server.base() + QStringLiteral("/quillmar");
        QCOMPARE(PairingClient::claimUrl(base)->path(),
                 QStringLiteral("/quillmar/api/v1/devices/pair/claim"));
        const auto outcome = claim(base);
        QVERIFY(outcome->finished);
        QCOMPARE(server.requests().size(), 1);
        QCOMPARE(server.requests()[0].target, QByteArray("/quillmar/api/v1/devices/pair/claim"));
    }

    void statusOtherThan200Or400IsServerReturned_data() {
        QTest::addColumn<int>("status");
        for (const int status : {201, 204, 401, 404, 409, 410, 500, 503}) {
            QTest::addRow("%d", status) << status;
        }
    }
    void statusOtherThan200Or400IsServerReturned() {
        QFETCH(int, status);
        RecordingHttpServer server;
        server.respond(status, status == 204 ? QByteArray() : goodAnswer);
        const auto outcome = claim(server.base());
        QVERIFY(outcome->finished);
        QVERIFY(outcome->pairError);
        QCOMPARE(outcome->pairError->kind(), PairError::Kind::Network);
        QCOMPARE(outcome->pairError->message(), QStringLiteral("Server returned %1.").arg(status));
        QCOMPARE(server.requests().size(), 1); // no retry
    }

    void extraKeysAreIgnored() {
        RecordingHttpServer server;
        server.respond(200, "{\"org_id\":\"org-4\",\"extra\":{\"a\":[1,2]},\"device_id\":\"dev-9\","
                            "\"device_token\":\"tok-123\",\"expires\":null}");
        const auto outcome = claim(server.base());
        QVERIFY(outcome->finished);
        QCOMPARE(descriptionOf(*outcome), QString());
        QCOMPARE(outcome->response, goodResponse);
    }

    void unreadableAnswerIsADecodingError_data() {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("mentions");
        QTest::newRow("no org_id") << QByteArray("{\"device_token\":\"t\",\"device_id\":\"d\"}")
                                   << QStringLiteral("'org_id' is missing");
        QTest::newRow("number") << QByteArray(
                                       "{\"device_token\":\"t\",\"device_id\":\"d\",\"org_id\":4}")
                                << QStringLiteral("'org_id' is not a string");
        QTest::newRow("null token")
            << QByteArray("{\"device_token\":null,\"device_id\":\"d\",\"org_id\":\"o\"}")
            << QStringLiteral("'device_token' is not a string");
        QTest::newRow("not json") << QByteArray("<html>ok</html>")
                                  << QStringLiteral("not valid JSON");
        QTest::newRow("empty") << QByteArray() << QStringLiteral("not valid JSON");
        QTest::newRow("array") << QByteArray("[\"device_token\"]")
                               << QStringLiteral("not a JSON object");
    }
    void unreadableAnswerIsADecodingError() {
        QFETCH(QByteArray, body);
        QFETCH(QString, mentions);
        RecordingHttpServer server;
        server.respond(200, body);
        const auto outcome = claim(server.base());
        QVERIFY(outcome->finished);
        QVERIFY(!outcome->pairError);
        QVERIFY(!outcome->response);
        QVERIFY(outcome->decodeError);
        const QString text = outcome->decodeError->message();
        QVERIFY2(text.startsWith(QStringLiteral("The server's answer could not be read: ")),
                 qPrintable(text));
        QVERIFY2(text.contains(mentions), qPrintable(text));
        QVERIFY(text.endsWith(u'.'));
        QCOMPARE(QString::fromUtf8(outcome->decodeError->what()), text);
    }

    void refusedConnectionGivesTheTransportMessage() {
        quint16 port = 0;
        {
            QTcpServer probe;
            QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
            port = probe.serverPort();
        }
        const auto outcome = claim(QStringLiteral("http://127.0.0.1:%1").arg(port));
        QVERIFY(outcome->finished);
        QVERIFY(outcome->pairError);
        QCOMPARE(outcome->pairError->kind(), PairError::Kind::Network);
        const QString text = outcome->pairError->message();
        QVERIFY2(text.contains(QStringLiteral("refused"), Qt::CaseInsensitive), qPrintable(text));
        QVERIFY(!text.startsWith(QStringLiteral("Server returned")));
    }

    void silentServerTimesOut() {
        QTcpServer silent; // accepts the connection, never answers
        QVERIFY(silent.listen(QHostAddress::LocalHost, 0));
        QElapsedTimer clock;
        clock.start();
        const auto outcome =
            claim(QStringLiteral("http://127.0.0.1:%1").arg(silent.serverPort()),
                  QStringLiteral("x"), QStringLiteral("n"), std::chrono::milliseconds(300));
        QVERIFY(outcome->finished);
        QVERIFY(outcome->pairError);
        QCOMPARE(outcome->pairError->message(), QStringLiteral("The request timed out."));
        QVERIFY(clock.elapsed() < 5000);
    }

    void unusableBaseIsBadApiUrl_data() {
        QTest::addColumn<QString>("base");
        QTest::newRow("empty") << QString();
        QTest::newRow("words") << QStringLiteral("not an url");
        QTest::newRow("blank in host") << QStringLiteral("http://exa mple.com");
        QTest::newRow("no scheme") << QStringLiteral("127.0.0.1:8080");
        QTest::newRow("no host") << QStringLiteral("https:");
        QTest::newRow("bad port") << QStringLiteral("http://127.0.0.1:99999");
        QTest::newRow("bad escape") << QStringLiteral("http://127.0.0.1/%zz");
    }
    void unusableBaseIsBadApiUrl() {
        QFETCH(QString, base);
        QVERIFY(!PairingClient::claimUrl(base));
        const auto outcome = claim(base);
        QVERIFY(outcome->finished);
        QVERIFY(outcome->pairError);
        QCOMPARE(outcome->pairError->kind(), PairError::Kind::Network);
        QCOMPARE(outcome->pairError->message(), QStringLiteral("Bad API URL."));
    }
};

QTEST_GUILESS_MAIN(PairingClientTest)
#include "tst_pairingclient.moc"
