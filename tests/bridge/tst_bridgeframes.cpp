// The frames on the bridge: what the client answers, what it drops, and in which order, against
// a real WebSocket server on 127.0.0.1.

#include "BridgeFixture.h"
#include "FileService.h"
#include "JsonReader.h"
#include "TempTree.h"

#include <QCoroSignal>
#include <QCoroTask>
#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>
#include <QTimer>
#include <QUuid>

namespace {

QJsonObject parse(const QString& frame) {
    return JsonReader::parse(frame).object();
}

QString compact(const QJsonObject& object) {
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace

// Lets a test hold a tool call open and decide when it ends.
class CallGate : public QObject {
    Q_OBJECT

signals:
    void opened();
};

class BridgeFramesTest : public QObject {
    Q_OBJECT

    TempTree tree;
    QList<SharedFolder> folders;
    std::unique_ptr<BridgeFixture> f;

    // What the call handler saw, in order, for the ordering tests.
    QStringList events;
    int running = 0;
    int mostRunning = 0;
    CallGate gate;

    // Holds "slow" calls until the gate opens, or for a nested event loop of `nestedMs`; every
    // other method answers at once with its own name.
    static QCoro::Task<ToolResult> recordingDispatch(BridgeFramesTest* test, QString method,
                                                     int nestedMs) {
        test->events.append(QStringLiteral("start ") + method);
        test->mostRunning = std::max(test->mostRunning, ++test->running);
        if (method == u"slow") {
            if (nestedMs > 0) {
                // Like a modal prompt: a nested event loop, in which the socket keeps
                // delivering frames.
                QEventLoop loop;
                QTimer::singleShot(nestedMs, &loop, &QEventLoop::quit);
                loop.exec();
            } else {
                co_await qCoro(&test->gate, &CallGate::opened);
            }
        }
        --test->running;
        test->events.append(QStringLiteral("end ") + method);
        co_return QJsonObject{{QStringLiteral("method"), method}};
    }

    static QCoro::Task<ToolResult> answerWith(QJsonObject object) { co_return object; }

    void useRecordingDispatcher(int nestedMs = 0) {
        f->calls.answer = [this, nestedMs](QString method, QJsonObject) {
            return recordingDispatch(this, method, nestedMs);
        };
        QObject::connect(
            f->client.get(), &BridgeClient::statusChanged,
            [this](bool, const QString& text) { events.append(QStringLiteral("status ") + text); });
    }

    QJsonObject expected(const QString& method, const QJsonObject& params) {
        return QCoro::waitFor(FileService::handle(method, params, folders));
    }

    // Sends a call that the call handler answers with an error and returns the reply to it: once
    // it is there, every frame sent before it has been dealt with.
    bool sentinelAnswered(int framesBefore) {
        f->service.sendText(QStringLiteral(R"({"type":"call","req_id":"sentinel","method":"x"})"));
        return QTest::qWaitFor([&] { return f->service.frames.size() > framesBefore; });
    }

    // After a frame that must be dropped: only the sentinel sent after it was answered, and
    // the status did not change.
    void verifyDropped(qsizetype statusesBefore) {
        QVERIFY(sentinelAnswered(0));
        QTest::qWait(20);
        QCOMPARE(f->service.frames.size(), 1);
        QCOMPARE(parse(f->service.frames.front()).value(QStringLiteral("req_id")).toString(),
                 QStringLiteral("sentinel"));
        QCOMPARE(f->statuses.size(), statusesBefore);
    }

private slots:
    void initTestCase() {
        tree.file(QStringLiteral("Docs/a.txt"), "alpha\n");
        tree.file(QStringLiteral("Docs/sub/b.md"), "# b");
        tree.file(QStringLiteral("Docs/caf\u00e9.txt"), "h\xc3\xa9");
        folders = {SharedFolder{QUuid::createUuid(), QStringLiteral("Docs"),
                                tree.path(QStringLiteral("Docs")), std::nullopt}};
    }

    void init() {
        events.clear();
        running = 0;
        mostRunning = 0;
        f = std::make_unique<BridgeFixture>();
        f->calls.folders = folders;
        QVERIFY(f->connectAndGreet());
    }

    void cleanup() { f.reset(); }

    void helloResetsTheCounterAndReportsOnline() {
        // Two failures first, so there is a counter to reset.
        f->service.dropConnection();
        QTRY_COMPARE(f->client->reconnectAttempt(), 1);
        f->scheduler->advance(std::chrono::seconds(2));
        QTRY_VERIFY(f->service.connectionCount() == 2 && f->service.hasOpenSocket());
        f->service.dropConnection();
        QTRY_COMPARE(f->client->reconnectAttempt(), 2);
        f->scheduler->advance(std::chrono::seconds(4));
        QTRY_VERIFY(f->service.connectionCount() == 3 && f->service.hasOpenSocket());
        QCOMPARE(f->statuses.back(), std::make_pair(false, QStringLiteral("Connecting\u2026")));

        f->service.sendText(QStringLiteral(R"({"type":"hello"})"));
        QTRY_COMPARE(f->client->reconnectAttempt(), 0);
        QCOMPARE(f->statuses.back(), std::make_pair(true, QStringLiteral("Connected to Quillmar")));
        QVERIFY(f->service.frames.isEmpty()); // hello is not answered
    }

    void droppedFrames_data() {
        QTest::addColumn<QString>("frame");
        QTest::newRow("pong") << QStringLiteral(R"({"type":"pong"})");
        QTest::newRow("unknown type") << QStringLiteral(R"({"type":"unknown"})");
        QTest::newRow("type in other case") << QStringLiteral(R"({"type":"Call","method":"x"})");
        QTest::newRow("empty object") << QStringLiteral("{}");
        QTest::newRow("array") << QStringLiteral("[]");
        QTest::newRow("bare string") << QStringLiteral(R"("hello")");
        QTest::newRow("number") << QStringLiteral("5");
        QTest::newRow("type is a number") << QStringLiteral(R"({"type":5})");
        QTest::newRow("type is null") << QStringLiteral(R"({"type":null})");
        QTest::newRow("no type") << QStringLiteral(R"({"req_id":"r","method":"local_list_files"})");
        QTest::newRow("not JSON") << QStringLiteral("this is not json");
        QTest::newRow("cut short") << QStringLiteral(R"({"type":"call","req_id":"r1")");
        QTest::newRow("trailing garbage") << QStringLiteral(R"({"type":"call"} x)");
        QTest::newRow("empty text") << QString();
        QTest::newRow("deep nesting") << QString(5000, u'[') + QString(5000, u']');
    }

    void droppedFrames() {
        QFETCH(QString, frame);
        const qsizetype statusesBefore = f->statuses.size();
        f->service.sendText(frame);
        verifyDropped(statusesBefore);
        if (QTest::currentTestFailed()) {
            return;
        }
        QVERIFY(f->service.hasOpenSocket());
    }

    void callIsAnsweredByExactlyOneCompactResult() {
        const QJsonObject params{{QStringLiteral("path"), QStringLiteral("Docs")}};
        f->service.sendText(compact({{QStringLiteral("type"), QStringLiteral("call")},
                                     {QStringLiteral("req_id"), QStringLiteral("r1")},
                                     {QStringLiteral("method"), QStringLiteral("local_list_files")},
                                     {QStringLiteral("params"), params}}));
        QTRY_COMPARE(f->service.frames.size(), 1);
        QTest::qWait(50);
        QCOMPARE(f->service.frames.size(), 1);

        const QString text = f->service.frames.front();
        QCOMPARE(text, compact(parse(text))); // compact: no blank, no line break
        QCOMPARE(parse(text),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("result")},
                              {QStringLiteral("req_id"), QStringLiteral("r1")},
                              {QStringLiteral("ok"), true},
                              {QStringLiteral("result"),
                               expected(QStringLiteral("local_list_files"), params)}}));
        QCOMPARE(f->service.binaryFrames, 0);
    }

    void failedToolGivesOkFalseWithoutResult() {
        f->service.sendText(QStringLiteral(
            R"({"type":"call","req_id":"r2","method":"local_read_file","params":{"path":"Docs/../../etc/passwd"}})"));
        QTRY_COMPARE(f->service.frames.size(), 1);
        QCOMPARE(parse(f->service.frames.front()),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("result")},
                              {QStringLiteral("req_id"), QStringLiteral("r2")},
                              {QStringLiteral("ok"), false},
                              {QStringLiteral("error"),
                               QStringLiteral("Path escapes the shared folder.")}}));
    }

    void resultIsTheWholeDispatcherObject() {
        // Keys the bridge knows nothing of travel unchanged, and an "error" that is not a
        // string makes no failure.
        const QJsonObject odd{
            {QStringLiteral("error"), 5},
            {QStringLiteral("extra"), QJsonArray{1, QStringLiteral("two"), true}},
            {QStringLiteral("nested"), QJsonObject{{QStringLiteral("n"), QJsonValue::Null},
                                                   {QStringLiteral("big"), qint64(1) << 53}}},
            {QStringLiteral("text"), QStringLiteral("caf\u00e9 \u2026")}};
        f->calls.answer = [odd](QString, QJsonObject) { return answerWith(odd); };
        f->service.sendText(QStringLiteral(R"({"type":"call","req_id":"r3","method":"any"})"));
        QTRY_COMPARE(f->service.frames.size(), 1);
        const QJsonObject reply = parse(f->service.frames.front());
        QCOMPARE(reply.value(QStringLiteral("ok")), QJsonValue(true));
        QCOMPARE(reply.value(QStringLiteral("result")).toObject(), odd);
        QVERIFY(!reply.contains(QStringLiteral("error")));
    }

    void listingsArriveAsTheBytesOfTheirReplyObjects() {
        // A folder listing travels as JSON text written without QJsonObject; on the wire it must
        // be exactly what QJsonDocument writes for the same reply built as an object.
        const QString reqId = QStringLiteral("r\u00e9\"\\\u0001\ufeff");
        const QJsonObject calls[] = {
            {{QStringLiteral("path"), QStringLiteral("Docs")}},
            {{QStringLiteral("path"), QStringLiteral("Docs/sub")}},
            {}, // the shared folders
            {{QStringLiteral("path"), QStringLiteral("Docs/missing")}},
        };
        qsizetype answered = 0;
        for (const QJsonObject& params : calls) {
            f->service.sendText(
                compact({{QStringLiteral("type"), QStringLiteral("call")},
                         {QStringLiteral("req_id"), reqId},
                         {QStringLiteral("method"), QStringLiteral("local_list_files")},
                         {QStringLiteral("params"), params}}));
            ++answered;
            QTRY_COMPARE(f->service.frames.size(), answered);
            const QJsonObject result = expected(QStringLiteral("local_list_files"), params);
            QJsonObject reply{{QStringLiteral("type"), QStringLiteral("result")},
                              {QStringLiteral("req_id"), reqId}};
            if (result.value(QStringLiteral("error")).isString()) {
                reply.insert(QStringLiteral("ok"), false);
                reply.insert(QStringLiteral("error"), result.value(QStringLiteral("error")));
            } else {
                reply.insert(QStringLiteral("ok"), true);
                reply.insert(QStringLiteral("result"), result);
            }
            QCOMPARE(f->service.frames.back(), compact(reply));
        }
    }

    void readResultKeepsNonAsciiText() {
        const QJsonObject params{{QStringLiteral("path"), QStringLiteral("Docs/caf\u00e9.txt")}};
        f->service.sendText(compact({{QStringLiteral("type"), QStringLiteral("call")},
                                     {QStringLiteral("req_id"), QStringLiteral("\u00e9")},
                                     {QStringLiteral("method"), QStringLiteral("local_read_file")},
                                     {QStringLiteral("params"), params}}));
        QTRY_COMPARE(f->service.frames.size(), 1);
        const QJsonObject reply = parse(f->service.frames.front());
        QCOMPARE(reply.value(QStringLiteral("req_id")).toString(), QStringLiteral("\u00e9"));
        QCOMPARE(reply.value(QStringLiteral("result")).toObject(),
                 expected(QStringLiteral("local_read_file"), params));
    }

    void byteOrderMarksOpeningStringsArriveUnchanged() {
        // U+FEFF at the start of a string is a character like any other: "\u{FEFF}Docs/a.txt"
        // is not "Docs/a.txt". Sent raw, the way a service's JSON encoder writes it.
        const QString mark(QChar(0xfeff));
        QString seenMethod;
        QJsonObject seenParams;
        f->calls.answer = [&](QString method, QJsonObject params) {
            seenMethod = method;
            seenParams = params;
            return answerWith(params);
        };
        f->service.sendText(QStringLiteral(R"({"type":"call","req_id":"%1r","method":"%1m",)"
                                           R"("params":{"%1k":["%1v","%1%1w","x%1"]}})")
                                .arg(mark));
        QTRY_COMPARE(f->service.frames.size(), 1);
        const QJsonObject params{
            {mark + u'k', QJsonArray{mark + u'v', mark + mark + u'w', u'x' + mark}}};
        QCOMPARE(seenMethod, mark + u'm');
        QCOMPARE(seenParams, params);
        QCOMPARE(seenParams.keys().front(), mark + u'k');
        const QJsonObject reply = parse(f->service.frames.front());
        QCOMPARE(reply.value(QStringLiteral("req_id")).toString(), mark + u'r');
        QCOMPARE(reply.value(QStringLiteral("result")).toObject(), params);
    }

    void pathOpenedByByteOrderMarkIsNotTheFolder() {
        // With one folder shared, a path that names no folder is looked for inside it.
        const QString mark(QChar(0xfeff));
        f->service.sendText(
            QStringLiteral(
                R"({"type":"call","req_id":"r","method":"local_read_file","params":{"path":"%1Docs/a.txt"}})")
                .arg(mark));
        QTRY_COMPARE(f->service.frames.size(), 1);
        const QJsonObject reply = parse(f->service.frames.front());
        QCOMPARE(reply.value(QStringLiteral("ok")), QJsonValue(false));
        QCOMPARE(reply.value(QStringLiteral("error")).toString(),
                 QStringLiteral("File not found: ") + mark + QStringLiteral("Docs/a.txt"));
    }

    void callWithoutReqIdIsAnsweredWithEmptyId_data() {
        QTest::addColumn<QString>("frame");
        QTest::newRow("missing") << QStringLiteral(
            R"({"type":"call","method":"local_list_files"})");
        QTest::newRow("number") << QStringLiteral(
            R"({"type":"call","req_id":7,"method":"local_list_files"})");
        QTest::newRow("null") << QStringLiteral(
            R"({"type":"call","req_id":null,"method":"local_list_files"})");
    }

    void callWithoutReqIdIsAnsweredWithEmptyId() {
        QFETCH(QString, frame);
        f->service.sendText(frame);
        QTRY_COMPARE(f->service.frames.size(), 1);
        const QJsonObject reply = parse(f->service.frames.front());
        QCOMPARE(reply.value(QStringLiteral("req_id")), QJsonValue(QString()));
        QCOMPARE(reply.value(QStringLiteral("ok")), QJsonValue(true));
        QCOMPARE(reply.value(QStringLiteral("result")).toObject(),
                 expected(QStringLiteral("local_list_files"), {}));
    }

    void missingOrWrongMethodAndParams_data() {
        QTest::addColumn<QString>("frame");
        QTest::addColumn<QString>("error");
        QTest::newRow("no method") << QStringLiteral(R"({"type":"call","req_id":"m"})")
                                   << QStringLiteral("Unknown method: ");
        QTest::newRow("method is a number")
            << QStringLiteral(R"({"type":"call","req_id":"m","method":7})")
            << QStringLiteral("Unknown method: ");
        QTest::newRow("method in other case")
            << QStringLiteral(R"({"type":"call","req_id":"m","method":"LOCAL_LIST_FILES"})")
            << QStringLiteral("Unknown method: LOCAL_LIST_FILES");
        QTest::newRow("params is an array")
            << QStringLiteral(
                   R"({"type":"call","req_id":"m","method":"local_read_file","params":["Docs/a.txt"]})")
            << QStringLiteral("A 'path' is required.");
        QTest::newRow("no params")
            << QStringLiteral(R"({"type":"call","req_id":"m","method":"local_search_files"})")
            << QStringLiteral("A 'query' is required.");
    }

    void missingOrWrongMethodAndParams() {
        QFETCH(QString, frame);
        QFETCH(QString, error);
        f->service.sendText(frame);
        QTRY_COMPARE(f->service.frames.size(), 1);
        QCOMPARE(parse(f->service.frames.front()),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("result")},
                              {QStringLiteral("req_id"), QStringLiteral("m")},
                              {QStringLiteral("ok"), false},
                              {QStringLiteral("error"), error}}));
    }

    void binaryUtf8IsHandledLikeTextAndAnsweredAsText() {
        f->service.sendBinary(QByteArrayLiteral(
            R"({"type":"call","req_id":"b1","method":"local_list_files","params":{"path":"Docs/sub"}})"));
        QTRY_COMPARE(f->service.frames.size(), 1);
        QCOMPARE(f->service.binaryFrames, 0);
        const QJsonObject reply = parse(f->service.frames.front());
        QCOMPARE(reply.value(QStringLiteral("req_id")).toString(), QStringLiteral("b1"));
        QCOMPARE(reply.value(QStringLiteral("result")).toObject(),
                 expected(QStringLiteral("local_list_files"),
                          {{QStringLiteral("path"), QStringLiteral("Docs/sub")}}));

        // A binary hello counts too.
        f->service.dropConnection();
        QTRY_COMPARE(f->client->reconnectAttempt(), 1);
        f->scheduler->advance(std::chrono::seconds(2));
        QTRY_VERIFY(f->service.connectionCount() == 2 && f->service.hasOpenSocket());
        f->service.sendBinary(QByteArrayLiteral(R"({"type":"hello"})"));
        QTRY_COMPARE(f->client->reconnectAttempt(), 0);
    }

    void binaryInvalidUtf8IsDropped_data() {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("stray byte") << QByteArray("{\"type\":\"call\",\"req_id\":\"\xff\"}");
        QTest::newRow("overlong slash")
            << QByteArray("{\"type\":\"call\",\"req_id\":\"\xc0\xaf\"}");
        QTest::newRow("surrogate") << QByteArray("{\"type\":\"call\",\"req_id\":\"\xed\xa0\x80\"}");
        QTest::newRow("cut sequence") << QByteArray("{\"type\":\"call\",\"req_id\":\"\xc3");
        QTest::newRow("hello with stray byte") << QByteArray("{\"type\":\"hello\"}\xff");
    }

    void binaryInvalidUtf8IsDropped() {
        QFETCH(QByteArray, bytes);
        const qsizetype statusesBefore = f->statuses.size();
        f->service.sendBinary(bytes);
        verifyDropped(statusesBefore);
    }

    void callsBackToBackAreAnsweredInOrderOneAfterTheOther() {
        useRecordingDispatcher();
        f->service.sendText(QStringLiteral(R"({"type":"call","req_id":"1","method":"slow"})"));
        f->service.sendText(QStringLiteral(R"({"type":"call","req_id":"2","method":"fast"})"));
        QTRY_COMPARE(events, QStringList{QStringLiteral("start slow")});
        // The second call has arrived by now, and waits.
        QTest::qWait(100);
        QCOMPARE(events, QStringList{QStringLiteral("start slow")});
        QVERIFY(f->service.frames.isEmpty());

        emit gate.opened();
        QTRY_COMPARE(f->service.frames.size(), 2);
        QCOMPARE(events, (QStringList{QStringLiteral("start slow"), QStringLiteral("end slow"),
                                      QStringLiteral("start fast"), QStringLiteral("end fast")}));
        QCOMPARE(parse(f->service.frames[0]).value(QStringLiteral("req_id")).toString(),
                 QStringLiteral("1"));
        QCOMPARE(parse(f->service.frames[1]).value(QStringLiteral("req_id")).toString(),
                 QStringLiteral("2"));
        QCOMPARE(mostRunning, 1);
    }

    void burstDuringSlowCallIsAnsweredStrictlyInOrder_data() {
        QTest::addColumn<int>("nestedMs");
        QTest::newRow("suspended call") << 0;
        QTest::newRow("nested event loop") << 300;
    }

    void burstDuringSlowCallIsAnsweredStrictlyInOrder() {
        QFETCH(int, nestedMs);
        useRecordingDispatcher(nestedMs);
        const QString call = QStringLiteral(R"({"type":"call","req_id":"%1","method":"%2"})");
        f->service.sendText(call.arg(0).arg(QStringLiteral("slow")));
        QStringList expectedEvents{QStringLiteral("start slow"), QStringLiteral("end slow")};
        for (int i = 1; i <= 30; ++i) {
            const QString method = QStringLiteral("m%1").arg(i);
            if (i == 10) {
                f->service.sendText(QStringLiteral("garbage"));
                f->service.sendText(QStringLiteral(R"({"type":"pong"})"));
            }
            if (i == 20) {
                f->service.sendText(QStringLiteral(R"({"type":"hello"})"));
                expectedEvents.append(QStringLiteral("status Connected to Quillmar"));
            }
            // Every third one as a binary frame: both kinds share one queue.
            if (i % 3 == 0) {
                f->service.sendBinary(call.arg(i).arg(method).toUtf8());
            } else {
                f->service.sendText(call.arg(i).arg(method));
            }
            expectedEvents.append(QStringLiteral("start ") + method);
            expectedEvents.append(QStringLiteral("end ") + method);
        }
        if (nestedMs == 0) {
            QTRY_COMPARE(events, QStringList{QStringLiteral("start slow")});
            QTest::qWait(200); // the whole burst is in by now
            QCOMPARE(events, QStringList{QStringLiteral("start slow")});
            emit gate.opened();
        }

        QTRY_COMPARE(f->service.frames.size(), 31);
        QTest::qWait(50);
        QCOMPARE(f->service.frames.size(), 31);
        for (int i = 0; i <= 30; ++i) {
            QCOMPARE(parse(f->service.frames[i]).value(QStringLiteral("req_id")).toString(),
                     QString::number(i));
        }
        QCOMPARE(events, expectedEvents);
        QCOMPARE(mostRunning, 1);
    }

    void disconnectWhileCallRunsDropsItsReply() {
        useRecordingDispatcher();
        f->service.sendText(QStringLiteral(R"({"type":"call","req_id":"1","method":"slow"})"));
        f->service.sendText(QStringLiteral(R"({"type":"call","req_id":"2","method":"fast"})"));
        QTRY_COMPARE(events, QStringList{QStringLiteral("start slow")});

        f->client->disconnect();
        emit gate.opened();
        QTRY_VERIFY(f->service.closeCodes.contains(int(QWebSocketProtocol::CloseCodeGoingAway)));
        QTest::qWait(100);
        QVERIFY(f->service.frames.isEmpty());
        // The call behind it was never started.
        QCOMPARE(events,
                 (QStringList{QStringLiteral("start slow"), QStringLiteral("status Disconnected"),
                              QStringLiteral("end slow")}));
        QCOMPARE(f->statuses.back(), std::make_pair(false, QStringLiteral("Disconnected")));
    }

    void clientDestroyedWhileCallRunsEndsQuietly() {
        useRecordingDispatcher();
        f->service.sendText(QStringLiteral(R"({"type":"call","req_id":"1","method":"slow"})"));
        f->service.sendText(QStringLiteral(R"({"type":"call","req_id":"2","method":"fast"})"));
        QTRY_COMPARE(events, QStringList{QStringLiteral("start slow")});
        f->client.reset();
        emit gate.opened();
        QTest::qWait(100);
        QVERIFY(f->service.frames.isEmpty());
        QCOMPARE(events, (QStringList{QStringLiteral("start slow"), QStringLiteral("end slow")}));
    }
};

QTEST_GUILESS_MAIN(BridgeFramesTest)
#include "tst_bridgeframes.moc"
