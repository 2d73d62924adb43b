// The companion as a user runs it when the keyring is locked (or its unlock prompt cancelled:
// without a display the daemon answers as if it were): pairing says the code was used but
// nothing was kept, status tells "not paired" from "cannot tell", and --headless refuses to run
// unpaired in silence. Real claims against the dev service, a real gnome-keyring on a private
// bus; run through ctest with run_sandboxed.sh, on its own it skips.

#include "CommandRun.h"
#include "CompanionSandbox.h"
#include "DevServiceProcess.h"
#include "HttpJson.h"
#include "KeyringControl.h"
#include "LineProcess.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QString companionBin = QStringLiteral(QUILLMAR_COMPANION_BIN);
const QString connected = QStringLiteral("Connected to Quillmar");
const QString invalidCode =
    QStringLiteral("That code is invalid or expired. Generate a fresh one in the web app.");
const QString lockedPairing =
    QStringLiteral("The code worked, but the pairing couldn't be saved: your keyring is "
                   "locked. Unlock it and pair again with a new code; this one is used up.");
const QString unknownPairing = QStringLiteral(
    "Paired: unknown (the keyring is locked; unlock it so the companion can read its token)");
const QString lockedHeadless =
    QStringLiteral("quillmar-companion: the keyring is locked, so the companion cannot read its "
                   "pairing. Unlock the keyring and start the companion again.");
const QString lockedUnpair =
    QStringLiteral("quillmar-companion: the keyring is locked, so the pairing could not be "
                   "removed. Unlock the keyring and run unpair again.");
// The token's entry, as QtKeychain names it.
const QString account = QStringLiteral("device_token");

} // namespace

class CompanionLockedKeyringTest : public QObject {
    Q_OBJECT

    QTemporaryDir serviceDir;
    std::unique_ptr<CompanionSandbox> sandbox;
    std::unique_ptr<DevServiceProcess> service;
    std::unique_ptr<HttpJson> agent;
    KeyringControl keyring;
    QList<QByteArray> outputs;

    CommandRun companion(const QStringList& arguments) {
        const CommandRun r = CommandRun::run(companionBin, arguments, sandbox->environment());
        outputs << r.out << r.err;
        return r;
    }

    QString freshCode() {
        const HttpJson::Reply reply =
            agent->post(QStringLiteral("/api/v1/agent/pairing-codes"), QJsonObject());
        return reply.status == 201 ? reply.json().value(QStringLiteral("code")).toString()
                                   : QString();
    }

    qsizetype deviceCount() {
        return agent->get(QStringLiteral("/api/v1/agent/devices"))
            .json()
            .value(QStringLiteral("devices"))
            .toArray()
            .size();
    }

    QString firstStatusLine() {
        const CommandRun r = companion({QStringLiteral("status")});
        if (r.exitCode != 0) {
            return QStringLiteral("<exit %1>").arg(r.exitCode);
        }
        return QString::fromUtf8(r.out).section(u'\n', 0, 0);
    }

    void lock() { QVERIFY2(keyring.lock(), qPrintable(keyring.error())); }
    void unlock() { QVERIFY2(keyring.unlock(), qPrintable(keyring.error())); }

private slots:
    void initTestCase() {
        if (qEnvironmentVariable("QUILLMAR_KEYCHAIN_SANDBOX") != u"keyring") {
            QSKIP("needs the private keyring that run_sandboxed.sh sets up; run it through ctest");
        }
        // Only ever against the private keyring of run_sandboxed.sh, never the user's.
        QVERIFY(qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS"));
        QVERIFY(qEnvironmentVariableIsEmpty("DISPLAY"));
        sandbox = std::make_unique<CompanionSandbox>(CompanionSandbox::Bus::Inherited);
        QVERIFY(sandbox->isValid());
        QVERIFY(serviceDir.isValid());
        service =
            std::make_unique<DevServiceProcess>(QStringLiteral(QUILLMAR_DEVSERVICE_BIN),
                                                serviceDir.filePath(QStringLiteral("state.json")));
        QVERIFY2(service->start(), qPrintable(service->describe()));
        agent = std::make_unique<HttpJson>(service->baseUrl());
        sandbox->setApiBase(service->baseUrl());
        // Brings the keyring service up, unlocked, before the first lock.
        QVERIFY(firstStatusLine() == u"Paired: no");
        QCOMPARE(keyring.isLocked(), std::optional<bool>(false));
    }

    void cleanupTestCase() {
        if (service) {
            service->stop();
        }
    }

    void pairingIntoALockedKeyringFailsAndSaysSo() {
        lock();
        const QString code = freshCode();
        QCOMPARE(code.size(), 8);
        const CommandRun r = companion({QStringLiteral("pair"), code});
        QCOMPARE(r.exitCode, 1);
        QCOMPARE(r.out, QByteArray());
        QCOMPARE(QString::fromUtf8(r.err), lockedPairing + u'\n');
        // The claim did go through and used the code up, as the message says.
        QCOMPARE(service->deviceTokens().size(), 1);
        QCOMPARE(deviceCount(), 1);
        const CommandRun again = companion({QStringLiteral("pair"), code});
        QCOMPARE(again.exitCode, 1);
        QCOMPARE(QString::fromUtf8(again.err), invalidCode + u'\n');

        // Nothing was kept anywhere, so this computer is simply not paired.
        QVERIFY(!QFile::exists(sandbox->tokenFile()));
        QCOMPARE(firstStatusLine(), QStringLiteral("Paired: no"));
        QCOMPARE(keyring.entries(account), 0);
        unlock();
        QCOMPARE(keyring.entries(account), 0);
        QCOMPARE(firstStatusLine(), QStringLiteral("Paired: no"));
    }

    void unlockedANewCodePairs() {
        const CommandRun r = companion({QStringLiteral("pair"), freshCode()});
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.err, QByteArray());
        QCOMPARE(QString::fromUtf8(r.out),
                 QStringLiteral("Paired with %1\n").arg(service->baseUrl()));
        QCOMPARE(firstStatusLine(), QStringLiteral("Paired: yes"));
        QCOMPARE(keyring.entries(account), 1);
        QVERIFY(!QFile::exists(sandbox->tokenFile()));
    }

    void lockedKeyringMakesThePairingUnknown() {
        lock();
        const CommandRun status = companion({QStringLiteral("status")});
        QCOMPARE(status.exitCode, 0);
        QVERIFY2(status.out.startsWith(unknownPairing.toUtf8() + "\nRunning: no\n"),
                 status.out.constData());

        LineProcess headless;
        headless.start(companionBin, {QStringLiteral("--headless")}, sandbox->environment());
        QCOMPARE(headless.waitForExit(), 1);
        QVERIFY(headless.lines().isEmpty());
        QCOMPARE(QString::fromUtf8(headless.standardError()), lockedHeadless + u'\n');
        outputs << headless.allOutput();

        // Unpairing cannot remove what it cannot reach, and says so.
        const CommandRun unpair = companion({QStringLiteral("unpair")});
        QCOMPARE(unpair.exitCode, 1);
        QCOMPARE(unpair.out, QByteArray());
        QCOMPARE(QString::fromUtf8(unpair.err), lockedUnpair + u'\n');
        QCOMPARE(keyring.entries(account), 1);
        QVERIFY(!QFile::exists(sandbox->tokenFile()));
    }

    void unlockingBringsThePairingBack() {
        unlock();
        QCOMPARE(firstStatusLine(), QStringLiteral("Paired: yes"));
        LineProcess headless;
        headless.start(companionBin, {QStringLiteral("--headless")}, sandbox->environment());
        QVERIFY2(headless.waitFor(connected) >= 0, qPrintable(headless.describe()));
        QCOMPARE(headless.terminate(), 0);
        outputs << headless.allOutput();
        // Still the one pairing made with a code that could be kept.
        QCOMPARE(service->deviceTokens().size(), 2);
    }

    void tokensNeverShow() {
        const QStringList tokens = service->deviceTokens();
        QCOMPARE(tokens.size(), 2);
        outputs << service->allOutput();
        for (const QString& token : tokens) {
            QVERIFY(token.size() >= 16);
            for (const QByteArray& output : std::as_const(outputs)) {
                QVERIFY(!output.contains(token.toUtf8()));
            }
        }
    }
};

QTEST_GUILESS_MAIN(CompanionLockedKeyringTest)
#include "tst_companionlockedkeyring.moc"
