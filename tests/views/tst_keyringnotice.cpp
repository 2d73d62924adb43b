// The window with a real gnome-keyring that is locked: the welcome page says the pairing cannot
// be read and offers to read it again, and a pairing that cannot be saved says why under the
// code field. Run through ctest, which starts it with run_sandboxed.sh; on its own it skips.
#include "AppState.h"
#include "KeyringControl.h"
#include "OnboardingStep.h"
#include "ViewHarness.h"

#include <QCoroTask>
#include <QQuickItem>
#include <QTest>

namespace {

const QString lockedProblem =
    QStringLiteral("Your keyring is locked, so the companion can't read its pairing. Unlock "
                   "the keyring, then choose Try Again.");

} // namespace

class KeyringNoticeTest : public QObject {
    Q_OBJECT

    KeyringControl keyring;

    void lock() { QVERIFY2(keyring.lock(), qPrintable(keyring.error())); }
    void unlock() { QVERIFY2(keyring.unlock(), qPrintable(keyring.error())); }

private slots:
    void initTestCase() {
        if (qEnvironmentVariable("QUILLMAR_KEYCHAIN_SANDBOX") != u"keyring") {
            QSKIP("needs the private keyring that run_sandboxed.sh sets up; run it through ctest");
        }
        QVERIFY(qEnvironmentVariableIsEmpty("DISPLAY"));
    }

    void init() {
        unlock();
        QCOMPARE(QCoro::waitFor(Keychain(Keychain::Backend::Automatic).deleteToken()),
                 std::nullopt);
    }

    void cleanup() { unlock(); }

    void welcomeSaysTheKeyringIsLockedAndTryAgainReadsIt() {
        ViewHarness harness(Keychain::Backend::Automatic);
        harness.storeToken();
        lock();
        AppState& state = harness.start();
        QVERIFY(!state.paired());
        QCOMPARE(harness.step(), int(OnboardingStep::Welcome));
        QVERIFY(harness.item(QStringLiteral("keyringNotice"))->isVisible());
        QCOMPARE(harness.value(QStringLiteral("keyringProblemText"), "text").toString(),
                 lockedProblem);
        // The whole text is on the page, above the buttons.
        QQuickItem* text = harness.item(QStringLiteral("keyringProblemText"));
        QVERIFY(text->mapToScene(QPointF(0, 0)).y() >= 0);
        QVERIFY(text->property("lineCount").toInt() <= 3);

        // Still locked: nothing changes.
        harness.click(QStringLiteral("keyringRetryButton"));
        ViewHarness::settle(300);
        QCOMPARE(harness.step(), int(OnboardingStep::Welcome));
        QVERIFY(harness.item(QStringLiteral("keyringNotice"))->isVisible());

        unlock();
        harness.click(QStringLiteral("keyringRetryButton"));
        QTRY_VERIFY_WITH_TIMEOUT(state.paired(), 10000);
        QTRY_COMPARE(harness.step(), int(OnboardingStep::Folders));
        QVERIFY(!harness.item(QStringLiteral("keyringNotice"))->isVisible());
    }

    void openKeyringShowsNoNotice() {
        ViewHarness harness(Keychain::Backend::Automatic);
        harness.start();
        QCOMPARE(harness.step(), int(OnboardingStep::Welcome));
        QVERIFY(!harness.item(QStringLiteral("keyringNotice"))->isVisible());
    }

    void pairingIntoALockedKeyringSaysWhyUnderTheCode() {
        ViewHarness harness(Keychain::Backend::Automatic);
        lock();
        AppState& state = harness.start();
        harness.click(QStringLiteral("getStartedButton"));
        harness.typeCode(QStringLiteral("abcd1234"));
        harness.pressReturn();
        QTRY_VERIFY_WITH_TIMEOUT(state.hasPairError(), 10000);
        QVERIFY(!state.paired());
        QCOMPARE(harness.step(), int(OnboardingStep::Pair));
        QQuickItem* error = harness.item(QStringLiteral("pairErrorText"));
        QVERIFY(error->isVisible());
        QCOMPARE(error->property("text").toString(),
                 QStringLiteral(
                     "The code worked, but the pairing couldn't be saved: your keyring is "
                     "locked. Unlock it and pair again with a new code; this one is used up."));
        QVERIFY(error->property("lineCount").toInt() <= 3);
        QVERIFY(harness.value(QStringLiteral("pairButton"), "enabled").toBool());
    }
};

QTEST_MAIN(KeyringNoticeTest)
#include "tst_keyringnotice.moc"
