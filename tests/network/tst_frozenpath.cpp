// A path to the service that goes silent without closing: the relay between the real
// `quillmar-companion --headless` and the dev service stops passing anything, both sockets
// open. Nothing fails on the companion's side, so only its own keep-alive can tell: it must
// drop the connection within one keep-alive interval and one answer time-out (plus slack), say
// why, and reconnect as soon as the path carries bytes again.

#include "BridgeClient.h"
#include "DevServiceProcess.h"
#include "PairedCompanion.h"
#include "ServiceFront.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QString companionBin = QStringLiteral(QUILLMAR_COMPANION_BIN);
const QString serviceBin = QStringLiteral(QUILLMAR_DEVSERVICE_BIN);
const QString connected = QStringLiteral("Connected to Quillmar");
const QString reconnecting = QStringLiteral("Reconnecting in 2s\u2026");
const QString noAnswer = QStringLiteral("No answer from the service.");

// Generous: the machine may be slow, this is no measure of speed.
constexpr int slackMs = 15000;

} // namespace

class FrozenPathTest : public QObject {
    Q_OBJECT

private slots:
    void frozenPathIsNoticedAndLeft() {
        QTemporaryDir stateDir;
        DevServiceProcess service(serviceBin, stateDir.filePath(QStringLiteral("service.json")));
        QVERIFY2(service.start(), qPrintable(service.describe()));
        ServiceFront front(service.port());
        QVERIFY(front.listen());
        const QString base = QStringLiteral("http://127.0.0.1:%1").arg(front.serverPort());

        PairedCompanion companion(companionBin);
        QVERIFY2(companion.isValid(), qPrintable(companion.problem()));
        const CommandRun paired =
            companion.command({QStringLiteral("pair"), service.pairingCode()}, base);
        QVERIFY2(paired.exitCode == 0, qPrintable(paired.describe()));
        QVERIFY2(companion.start(base), qPrintable(companion.describe()));
        const qsizetype online = companion.lines().indexOf(connected);
        QCOMPARE(front.accepted(), 2); // the claim and the bridge

        front.setFrozen(true);
        QElapsedTimer frozen;
        frozen.start();
        const int boundMs = int(std::chrono::milliseconds(BridgeClient::keepAliveInterval +
                                                          BridgeClient::answerTimeout)
                                    .count()) +
                            slackMs;
        const qsizetype dropped = companion.waitFor(reconnecting, online, boundMs);
        QVERIFY2(dropped > online, qPrintable(companion.describe()));
        // It is the keep-alive that noticed, not anything the relay did: a whole answer time-out
        // passed with the path frozen.
        QVERIFY2(frozen.elapsed() >=
                     std::chrono::milliseconds(BridgeClient::answerTimeout).count() - 1000,
                 qPrintable(QString::number(frozen.elapsed())));
        QCOMPARE(companion.waitFor(noAnswer, dropped + 1, 5000), dropped + 1);
        QCOMPARE(companion.lines().mid(online + 1, dropped - online - 1), QStringList());

        // The next attempt reaches the relay and waits there; once it thaws, it goes through.
        QTRY_VERIFY_WITH_TIMEOUT(front.accepted() >= 3, 10000);
        front.setFrozen(false);
        const qsizetype back = companion.waitFor(connected, dropped + 2, 30000);
        QVERIFY2(back > dropped, qPrintable(companion.describe()));
        QCOMPARE(companion.stop(), 0);
    }
};

QTEST_GUILESS_MAIN(FrozenPathTest)
#include "tst_frozenpath.moc"
