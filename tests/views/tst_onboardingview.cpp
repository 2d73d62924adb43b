#include "AppState.h"
#include "OnboardingStep.h"
#include "ViewHarness.h"

#include <QQuickItem>
#include <QQuickWindow>
#include <QRegularExpression>
#include <QTest>

// The onboarding flow: the pages and their order, the code field's rules, pairing, the folders
// page and the closing message.
class OnboardingViewTest : public QObject {
    Q_OBJECT

    static QString code(ViewHarness& harness) {
        return harness.value(QStringLiteral("codeField"), "text").toString();
    }
    static QColor pairButtonFill(ViewHarness& harness) {
        QQuickItem* button = harness.item(QStringLiteral("pairButton"));
        QQuickItem* fill = ViewHarness::find(button->property("background").value<QQuickItem*>(),
                                             QStringLiteral("fill"));
        return fill->property("color").value<QColor>();
    }
    static void toPairStep(ViewHarness& harness) {
        harness.click(QStringLiteral("getStartedButton"));
        QCOMPARE(harness.step(), int(OnboardingStep::Pair));
    }
    static void toFoldersStep(ViewHarness& harness) {
        toPairStep(harness);
        harness.typeCode(QStringLiteral("abc123"));
        harness.pressReturn();
        QTRY_COMPARE(harness.step(), int(OnboardingStep::Folders));
    }

private slots:
    void welcomePageHasNoStepIndicator() {
        ViewHarness harness;
        harness.start();
        QCOMPARE(harness.step(), int(OnboardingStep::Welcome));
        QVERIFY(harness.item(QStringLiteral("welcomeStep"))->isVisible());
        QVERIFY(!harness.item(QStringLiteral("progressDots"))->isVisible());
        QVERIFY(!harness.item(QStringLiteral("keyringNotice"))->isVisible());
        QCOMPARE(harness.value(QStringLiteral("getStartedButton"), "text").toString(),
                 QStringLiteral("Get Started"));
        QVERIFY(harness.value(QStringLiteral("getStartedButton"), "enabled").toBool());
    }

    void welcomeAndPairPagesSpeakOfThisComputer() {
        ViewHarness harness;
        harness.start();
        QCOMPARE(harness.value(QStringLiteral("welcomeSubtitle"), "text").toString(),
                 QStringLiteral("Give your AI workforce secure access to files on this computer "
                                "— read, summarise, and draft, with your approval."));
        QCOMPARE(harness.value(QStringLiteral("filesStayRow"), "title").toString(),
                 QStringLiteral("Files stay on your computer"));
        QVERIFY(harness.texts().contains(QStringLiteral("Files stay on your computer")));
        toPairStep(harness);
        QCOMPARE(harness.value(QStringLiteral("pairHeader"), "title").toString(),
                 QStringLiteral("Pair this computer"));
        QVERIFY(harness.texts().contains(QStringLiteral("Pair this computer")));
    }

    // Every page, shown or hidden, before and after pairing: the Linux build names no Mac and no
    // menu bar.
    void noPageNamesAMacOrAMenuBar() {
        ViewHarness harness;
        harness.start();
        toFoldersStep(harness);
        harness.addFolder(QStringLiteral("Reports"));
        harness.click(QStringLiteral("foldersContinueButton"));
        QCOMPARE(harness.step(), int(OnboardingStep::Done));
        const QStringList texts = harness.texts();
        QVERIFY(texts.size() > 20);
        const QRegularExpression mac(QStringLiteral("\\bMac\\b|[Mm]enu bar"));
        for (const QString& text : texts) {
            QVERIFY2(!mac.match(text).hasMatch(), qPrintable(text));
        }
    }

    void stepIndicatorFollowsTheStep() {
        ViewHarness harness;
        harness.start();
        toPairStep(harness);
        QQuickItem* dots = harness.item(QStringLiteral("progressDots"));
        QVERIFY(dots->isVisible());
        ViewHarness::settle(500);
        QList<QQuickItem*> capsules;
        for (QQuickItem* child : dots->childItems()) {
            if (child->height() == 7) {
                capsules.append(child);
            }
        }
        QCOMPARE(capsules.size(), 4);
        QCOMPARE(capsules[1]->width(), 18.0);
        QCOMPARE(capsules[1]->property("color").value<QColor>(), ViewHarness::brand());
        for (int i : {0, 2, 3}) {
            QCOMPARE(capsules[i]->width(), 7.0);
        }
    }

    void backReturnsToWelcome() {
        ViewHarness harness;
        harness.start();
        toPairStep(harness);
        harness.click(QStringLiteral("backButton"));
        QCOMPARE(harness.step(), int(OnboardingStep::Welcome));
    }

    void shortCodeLeavesThePairButtonDisabled() {
        ViewHarness harness;
        harness.start();
        toPairStep(harness);
        QCOMPARE(harness.value(QStringLiteral("pairButton"), "text").toString(),
                 QStringLiteral("Pair"));
        harness.typeCode(QStringLiteral("abc"));
        QCOMPARE(code(harness), QStringLiteral("ABC"));
        QVERIFY(!harness.value(QStringLiteral("pairButton"), "enabled").toBool());
        QColor dimmed = ViewHarness::brand();
        dimmed.setAlphaF(0.4f);
        QCOMPARE(pairButtonFill(harness), dimmed);

        harness.typeCode(QStringLiteral("12"));
        QVERIFY(!harness.value(QStringLiteral("pairButton"), "enabled").toBool());
        // The sixth accepted character enables it; rejected ones do not count.
        harness.typeCode(QStringLiteral("-"));
        QVERIFY(!harness.value(QStringLiteral("pairButton"), "enabled").toBool());
        harness.typeCode(QStringLiteral("x"));
        QVERIFY(harness.value(QStringLiteral("pairButton"), "enabled").toBool());
        QCOMPARE(pairButtonFill(harness), ViewHarness::brand());
    }

    void codeFieldNormalisesWhatIsTyped() {
        ViewHarness harness;
        harness.start();
        toPairStep(harness);
        harness.typeCode(QStringLiteral("ab-1 2.c!d3e4f"));
        QCOMPARE(code(harness), QStringLiteral("AB12CD3E"));
        // A ninth character is dropped.
        harness.typeCode(QStringLiteral("z"));
        QCOMPARE(code(harness), QStringLiteral("AB12CD3E"));
        QCOMPARE(harness.item(QStringLiteral("onboardingView"))->property("code").toString(),
                 QStringLiteral("AB12CD3E"));
    }

    void pastedCodeIsNormalised() {
        ViewHarness harness;
        harness.start();
        toPairStep(harness);
        harness.item(QStringLiteral("codeField"))
            ->setProperty("text", QStringLiteral("ab-12 cd34"));
        QCOMPARE(code(harness), QStringLiteral("AB12CD34"));
    }

    void returnWithFiveCharactersDoesNothing() {
        ViewHarness harness;
        AppState& state = harness.start();
        toPairStep(harness);
        harness.typeCode(QStringLiteral("abc12"));
        harness.pressReturn();
        ViewHarness::settle(200);
        QVERIFY(!state.pairing());
        QCOMPARE(harness.service().requestCount(), 0);
        QCOMPARE(harness.changes, 0);
        // Clicking the disabled button does nothing either.
        harness.click(QStringLiteral("pairButton"));
        QCOMPARE(harness.service().requestCount(), 0);
    }

    void whilePairingTheButtonSpinsAndReturnDoesNothing() {
        ViewHarness harness;
        AppState& state = harness.start();
        toPairStep(harness);
        harness.service().hold();
        harness.typeCode(QStringLiteral("abc123"));
        harness.pressReturn();
        QVERIFY(state.pairing());
        QTRY_COMPARE(harness.service().requestCount(), 1);

        QQuickItem* button = harness.item(QStringLiteral("pairButton"));
        QCOMPARE(button->property("text").toString(), QStringLiteral("Pairing…"));
        QVERIFY(!button->property("enabled").toBool());
        QQuickItem* spinner = ViewHarness::find(button, QStringLiteral("spinner"));
        QVERIFY(spinner);
        QVERIFY(spinner->isVisible());

        harness.pressReturn();
        harness.click(button);
        ViewHarness::settle(200);
        QCOMPARE(harness.service().requestCount(), 1);

        harness.service().release();
        QTRY_VERIFY(!state.pairing());
        QVERIFY(state.paired());
        QVERIFY(!spinner->isVisible());
        QTRY_COMPARE(harness.step(), int(OnboardingStep::Folders));
    }

    void failedPairingShowsTheErrorAndKeepsStepAndCode() {
        ViewHarness harness;
        AppState& state = harness.start();
        toPairStep(harness);
        QVERIFY(!harness.item(QStringLiteral("pairErrorText"))->isVisible());
        harness.service().respond(400, ViewHarness::badClaim);
        harness.typeCode(QStringLiteral("bad123"));
        harness.click(QStringLiteral("pairButton"));
        QTRY_VERIFY(state.hasPairError());
        ViewHarness::settle();
        QQuickItem* error = harness.item(QStringLiteral("pairErrorText"));
        QVERIFY(error->isVisible());
        QCOMPARE(error->property("text").toString(),
                 QStringLiteral(
                     "That code is invalid or expired. Generate a fresh one in the web app."));
        QCOMPARE(error->property("color").value<QColor>().red(), 255);
        // Under the field.
        QQuickItem* field = harness.item(QStringLiteral("codeField"));
        QVERIFY(error->mapToScene(QPointF()).y() >=
                field->mapToScene(QPointF(0, field->height())).y());
        QCOMPARE(harness.step(), int(OnboardingStep::Pair));
        QCOMPARE(code(harness), QStringLiteral("BAD123"));
        QVERIFY(!state.paired());
        QVERIFY(harness.value(QStringLiteral("pairButton"), "enabled").toBool());

        // The next attempt clears the error.
        harness.service().respond(200, ViewHarness::okClaim);
        harness.pressReturn();
        QTRY_COMPARE(harness.step(), int(OnboardingStep::Folders));
        QVERIFY(!harness.item(QStringLiteral("pairErrorText"))->isVisible());
    }

    void foldersPageAddsAndRemovesFolders() {
        ViewHarness harness;
        AppState& state = harness.start();
        toFoldersStep(harness);
        QVERIFY(harness.item(QStringLiteral("noFoldersPlaceholder"))->isVisible());
        QVERIFY(!harness.item(QStringLiteral("folderList"))->isVisible());
        QCOMPARE(harness.value(QStringLiteral("foldersContinueButton"), "text").toString(),
                 QStringLiteral("Skip for now"));

        harness.chooser().answers = {harness.folderPath(QStringLiteral("Reports"))};
        harness.click(QStringLiteral("addFolderButton"));
        QCOMPARE(harness.chooser().asked, 1);
        QCOMPARE(state.folders().size(), 1);
        QVERIFY(!harness.item(QStringLiteral("noFoldersPlaceholder"))->isVisible());
        QVERIFY(harness.item(QStringLiteral("folderList"))->isVisible());
        QCOMPARE(harness.value(QStringLiteral("foldersContinueButton"), "text").toString(),
                 QStringLiteral("Continue"));
        QCOMPARE(harness.value(QStringLiteral("folderPath"), "text").toString(),
                 harness.folderPath(QStringLiteral("Reports")));

        // Cancelling the chooser changes nothing.
        harness.click(QStringLiteral("addFolderButton"));
        QCOMPARE(state.folders().size(), 1);

        // Removing the last folder brings the placeholder back.
        harness.click(QStringLiteral("removeFolderButton"));
        QVERIFY(state.folders().isEmpty());
        QVERIFY(harness.item(QStringLiteral("noFoldersPlaceholder"))->isVisible());
        QVERIFY(!harness.item(QStringLiteral("folderList"))->isVisible());
        QCOMPARE(harness.value(QStringLiteral("foldersContinueButton"), "text").toString(),
                 QStringLiteral("Skip for now"));

        harness.click(QStringLiteral("foldersContinueButton"));
        QCOMPARE(harness.step(), int(OnboardingStep::Done));
    }

    void removingOneOfSeveralRemovesThatOne() {
        ViewHarness harness;
        AppState& state = harness.start();
        toFoldersStep(harness);
        harness.addFolder(QStringLiteral("First"));
        harness.addFolder(QStringLiteral("Second"));
        QList<QQuickItem*> removes = harness.items(QStringLiteral("removeFolderButton"));
        QCOMPARE(removes.size(), 2);
        harness.click(removes.constFirst());
        QCOMPARE(state.folders().size(), 1);
        QCOMPARE(state.folders().constFirst().name, QStringLiteral("Second"));
    }

    void doneMessageCountsTheFolders_data() {
        QTest::addColumn<int>("count");
        QTest::addColumn<QString>("message");
        QTest::newRow("none") << 0
                              << QStringLiteral(
                                     "This computer is paired. Add folders anytime from the tray "
                                     "or panel to let agents reach your files.");
        QTest::newRow("one") << 1
                             << QStringLiteral(
                                    "This computer is paired and 1 folder is shared. Quillmar "
                                    "lives in the system tray.");
        QTest::newRow("two") << 2
                             << QStringLiteral(
                                    "This computer is paired and 2 folders are shared. Quillmar "
                                    "lives in the system tray.");
        QTest::newRow("three") << 3
                               << QStringLiteral("This computer is paired and 3 folders are "
                                                 "shared. Quillmar lives in the system tray.");
    }

    void doneMessageCountsTheFolders() {
        QFETCH(int, count);
        QFETCH(QString, message);
        ViewHarness harness;
        harness.start();
        toFoldersStep(harness);
        for (int i = 0; i < count; ++i) {
            harness.addFolder(QStringLiteral("Folder %1").arg(i + 1));
        }
        harness.click(QStringLiteral("foldersContinueButton"));
        QCOMPARE(harness.step(), int(OnboardingStep::Done));
        QCOMPARE(harness.value(QStringLiteral("doneMessage"), "text").toString(), message);
        QCOMPARE(harness.value(QStringLiteral("finishButton"), "text").toString(),
                 QStringLiteral("Finish"));
    }

    void manyFoldersScrollInsteadOfPushingTheButtonsOut() {
        ViewHarness harness;
        harness.start();
        toFoldersStep(harness);
        for (int i = 0; i < 12; ++i) {
            harness.addFolder(QStringLiteral("Folder %1").arg(i + 1));
        }
        QQuickItem* list = harness.item(QStringLiteral("folderList"));
        QVERIFY(list->property("contentHeight").toReal() > list->height());
        QQuickItem* header = harness.item(QStringLiteral("foldersStep"));
        QVERIFY(header->mapToScene(QPointF()).y() >= 36);
        QQuickItem* button = harness.item(QStringLiteral("foldersContinueButton"));
        const qreal buttonBottom = button->mapToScene(QPointF(0, button->height())).y();
        QQuickItem* dots = harness.item(QStringLiteral("progressDots"));
        QVERIFY(buttonBottom <= dots->mapToScene(QPointF()).y() - 16);
    }
};

QTEST_MAIN(OnboardingViewTest)
#include "tst_onboardingview.moc"
