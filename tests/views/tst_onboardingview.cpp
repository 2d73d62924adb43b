#include "AppState.h"
#include "OnboardingStep.h"
#include "ViewHarness.h"

#include <QCursor>
#include <QImage>
#include <QQuickItem>
#include <QQuickWindow>
#include <QRegularExpression>
#include <QTest>

#include <cstdlib>

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

    void typingKeepsTheCaretAndCanBeUndone() {
        ViewHarness harness;
        harness.start();
        toPairStep(harness);
        QQuickItem* field = harness.item(QStringLiteral("codeField"));
        harness.typeCode(QStringLiteral("abcd"));
        QCOMPARE(code(harness), QStringLiteral("ABCD"));
        QTest::keyClick(harness.window(), Qt::Key_Left);
        QTest::keyClick(harness.window(), Qt::Key_Left);
        harness.typeCode(QStringLiteral("x"));
        QCOMPARE(code(harness), QStringLiteral("ABXCD"));
        QCOMPARE(field->property("cursorPosition").toInt(), 3);

        QTest::keyClick(harness.window(), Qt::Key_Z, Qt::ControlModifier);
        ViewHarness::settle();
        QCOMPARE(code(harness), QStringLiteral("ABCD"));
        QTest::keyClick(harness.window(), Qt::Key_Z, Qt::ControlModifier);
        ViewHarness::settle();
        QCOMPARE(code(harness), QString());
        QTest::keyClick(harness.window(), Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier);
        ViewHarness::settle();
        QCOMPARE(code(harness), QStringLiteral("ABCD"));
        // Backspace still edits.
        QTest::keyClick(harness.window(), Qt::Key_End);
        QTest::keyClick(harness.window(), Qt::Key_Backspace);
        ViewHarness::settle();
        QCOMPARE(code(harness), QStringLiteral("ABC"));
    }

    // The placeholder is drawn in the focused, empty field, and goes with the first character.
    void placeholderShowsUntilTypingStarts() {
        ViewHarness harness;
        harness.start();
        toPairStep(harness);
        QQuickItem* field = harness.item(QStringLiteral("codeField"));
        QVERIFY(field->hasActiveFocus());
        const auto inkInField = [&] {
            const QImage image = harness.window()->grabWindow();
            const qreal ratio = image.devicePixelRatio();
            const QPointF topLeft = field->mapToScene(QPointF(field->width() / 4, 12));
            const QRect area(
                QPoint(int(topLeft.x() * ratio), int(topLeft.y() * ratio)),
                QSize(int(field->width() / 2 * ratio), int((field->height() - 24) * ratio)));
            const QColor base = image.pixelColor(area.topLeft());
            int differing = 0;
            for (int y = area.top(); y <= area.bottom(); ++y) {
                for (int x = area.left(); x <= area.right(); ++x) {
                    const QColor pixel = image.pixelColor(x, y);
                    differing += std::abs(pixel.lightness() - base.lightness()) > 24 ? 1 : 0;
                }
            }
            return differing;
        };
        QQuickItem* placeholder = harness.item(QStringLiteral("codePlaceholder"));
        QVERIFY(placeholder->isVisible());
        QCOMPARE(placeholder->property("text").toString(), QStringLiteral("XXXXXXXX"));
        // Eight letters' worth of ink, far more than a caret.
        QVERIFY2(inkInField() > 300, qPrintable(QString::number(inkInField())));
        harness.typeCode(QStringLiteral("a"));
        QVERIFY(!placeholder->isVisible());
        QVERIFY(inkInField() < 300);
    }

    void rightClickOffersTheEditCommands() {
        ViewHarness harness;
        harness.start();
        toPairStep(harness);
        QQuickItem* field = harness.item(QStringLiteral("codeField"));
        const auto openMenu = [&] {
            QTest::mouseClick(
                harness.window(), Qt::RightButton, Qt::NoModifier,
                field->mapToScene(QPointF(field->width() / 2, field->height() / 2)).toPoint());
            ViewHarness::settle(200);
        };
        const auto enabled = [&](const char* name) {
            QQuickItem* item = harness.item(QString::fromLatin1(name));
            return item && item->isVisible() && item->isEnabled();
        };
        openMenu();
        QQuickItem* cut = harness.item(QStringLiteral("cutItem"));
        QVERIFY(cut && cut->isVisible());
        QCOMPARE(cut->property("text").toString(), QStringLiteral("Cut"));
        QCOMPARE(harness.value(QStringLiteral("copyItem"), "text").toString(),
                 QStringLiteral("Copy"));
        QCOMPARE(harness.value(QStringLiteral("pasteItem"), "text").toString(),
                 QStringLiteral("Paste"));
        QCOMPARE(harness.value(QStringLiteral("selectAllItem"), "text").toString(),
                 QStringLiteral("Select All"));
        // Nothing typed, nothing selected.
        QVERIFY(!enabled("cutItem"));
        QVERIFY(!enabled("copyItem"));
        QVERIFY(!enabled("selectAllItem"));
        QTest::keyClick(harness.window(), Qt::Key_Escape);
        ViewHarness::settle(200);
        // Escape closed the menu, and only the menu.
        QCOMPARE(harness.step(), int(OnboardingStep::Pair));

        harness.typeCode(QStringLiteral("abc123"));
        openMenu();
        QVERIFY(enabled("selectAllItem"));
        harness.click(QStringLiteral("selectAllItem"));
        QCOMPARE(field->property("selectedText").toString(), QStringLiteral("ABC123"));
        openMenu();
        QVERIFY(enabled("cutItem"));
        QVERIFY(enabled("copyItem"));
        QVERIFY(!enabled("selectAllItem"));
        harness.click(QStringLiteral("cutItem"));
        QCOMPARE(code(harness), QString());
        openMenu();
        QVERIFY(enabled("pasteItem"));
        harness.click(QStringLiteral("pasteItem"));
        QCOMPARE(code(harness), QStringLiteral("ABC123"));
    }

    void enterTakesEachPagesButtonAndEscapeGoesBack() {
        ViewHarness harness;
        AppState& state = harness.start();
        harness.pressReturn();
        QCOMPARE(harness.step(), int(OnboardingStep::Pair));
        QTest::keyClick(harness.window(), Qt::Key_Escape);
        ViewHarness::settle();
        QCOMPARE(harness.step(), int(OnboardingStep::Welcome));
        harness.pressReturn();
        harness.typeCode(QStringLiteral("abc123"));
        harness.pressReturn();
        QTRY_COMPARE(harness.step(), int(OnboardingStep::Folders));
        // No going back from a paired computer's pages.
        QTest::keyClick(harness.window(), Qt::Key_Escape);
        ViewHarness::settle();
        QCOMPARE(harness.step(), int(OnboardingStep::Folders));
        harness.pressReturn();
        QCOMPARE(harness.step(), int(OnboardingStep::Done));
        harness.pressReturn();
        QVERIFY(state.paired());
        QTRY_VERIFY(harness.item(QStringLiteral("homeView")));
    }

    // Tab follows the page from top to bottom, and the control it reaches shows a ring.
    void tabFollowsReadingOrderWithAVisibleRing() {
        ViewHarness harness;
        harness.start();
        toPairStep(harness);
        harness.typeCode(QStringLiteral("abc123"));
        QStringList order;
        for (int i = 0; i < 3; ++i) {
            QQuickItem* focused = harness.tab();
            QVERIFY(focused);
            order.append(focused->objectName());
            // The field shows its focus by its border and caret.
            QVERIFY2(focused == harness.item(QStringLiteral("codeField")) ||
                         ViewHarness::showsFocusRing(focused),
                     qPrintable(order.last()));
        }
        QCOMPARE(order, QStringList({QStringLiteral("pairButton"), QStringLiteral("backButton"),
                                     QStringLiteral("codeField")}));
        // Clicked, not tabbed to: no ring.
        harness.click(QStringLiteral("pairButton"));
        QVERIFY(!ViewHarness::showsFocusRing(harness.item(QStringLiteral("pairButton"))));
    }

    void linksShowAPointingHandUnderThePointer() {
        ViewHarness harness;
        harness.start();
        toPairStep(harness);
        QQuickItem* back = harness.item(QStringLiteral("backButton"));
        QTest::mouseMove(
            harness.window(),
            back->mapToScene(QPointF(back->width() / 2, back->height() / 2)).toPoint());
        ViewHarness::settle();
        QVERIFY(back->property("hovered").toBool());
        QCOMPARE(harness.window()->cursor().shape(), Qt::PointingHandCursor);
    }

    // Unpairing from the tray on a paired computer's pages starts again; no dead end.
    void unpairingOnTheLaterPagesReturnsToWelcome() {
        ViewHarness harness;
        AppState& state = harness.start();
        toFoldersStep(harness);
        state.unpair();
        ViewHarness::settle();
        QCOMPARE(harness.step(), int(OnboardingStep::Welcome));
        QVERIFY(harness.item(QStringLiteral("welcomeStep"))->isVisible());

        toFoldersStep(harness);
        harness.click(QStringLiteral("foldersContinueButton"));
        QCOMPARE(harness.step(), int(OnboardingStep::Done));
        state.unpair();
        ViewHarness::settle();
        QCOMPARE(harness.step(), int(OnboardingStep::Welcome));
        QVERIFY(!harness.item(QStringLiteral("doneStep"))->isVisible());
        toPairStep(harness);
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
