#include "AppSettings.h"
#include "AppState.h"
#include "BridgeClient.h"
#include "FolderStore.h"
#include "OnboardingStep.h"
#include "ViewHarness.h"

#include <QPointer>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQmlProperty>
#include <QQuickItem>
#include <QQuickWindow>
#include <QRegularExpression>
#include <QTest>

// The home page: connection state, the shared folders, the write-approval switch and unpairing.
class HomeViewTest : public QObject {
    Q_OBJECT

    static AppState& startPaired(ViewHarness& harness) {
        harness.storeToken();
        AppState& state = harness.start();
        if (!harness.item(QStringLiteral("homeView"))) {
            QTest::qFail("the home page is not shown", __FILE__, __LINE__);
        }
        return state;
    }
    static QColor colour(ViewHarness& harness, const QString& name) {
        return harness.value(name, "color").value<QColor>();
    }

private slots:
    void goingOfflineSwapsHeaderAndCard() {
        ViewHarness harness;
        startPaired(harness);
        harness.reportStatus(true, QStringLiteral("Connected to Quillmar"));
        QCOMPARE(harness.value(QStringLiteral("connectionText"), "text").toString(),
                 QStringLiteral("Connected"));
        QCOMPARE(colour(harness, QStringLiteral("statusDot")), ViewHarness::brand());
        QCOMPARE(harness.item(QStringLiteral("statusDot"))->size(), QSizeF(7, 7));
        QCOMPARE(harness.value(QStringLiteral("statusSymbol"), "name").toString(),
                 QStringLiteral("checkmark.shield.fill"));
        QCOMPARE(colour(harness, QStringLiteral("statusSymbol")), ViewHarness::brand());
        QCOMPARE(harness.value(QStringLiteral("statusCardText"), "text").toString(),
                 QStringLiteral(
                     "Your agents can reach the folders below. Every write asks for approval."));
        const QImage online = harness.window()->grabWindow();

        harness.reportStatus(false, QStringLiteral("Reconnecting in 4s…"));
        QCOMPARE(harness.value(QStringLiteral("connectionText"), "text").toString(),
                 QStringLiteral("Reconnecting in 4s…"));
        QVERIFY(colour(harness, QStringLiteral("statusDot")) != ViewHarness::brand());
        QCOMPARE(harness.value(QStringLiteral("statusSymbol"), "name").toString(),
                 QStringLiteral("shield.slash"));
        QVERIFY(colour(harness, QStringLiteral("statusSymbol")) != ViewHarness::brand());
        QCOMPARE(
            harness.value(QStringLiteral("statusCardText"), "text").toString(),
            QStringLiteral("Reconnecting to Quillmar — your shared folders resume automatically."));

        // Nothing below the status card moves or changes.
        const QImage offline = harness.window()->grabWindow();
        QQuickItem* card = harness.item(QStringLiteral("statusCard"));
        const int below =
            int(card->mapToScene(QPointF(0, card->height())).y() * offline.devicePixelRatio()) + 1;
        QCOMPARE(online.copy(0, below, online.width(), online.height() - below),
                 offline.copy(0, below, offline.width(), offline.height() - below));

        // The text is shown as the bridge gives it.
        harness.reportStatus(false, QStringLiteral("Bad API URL"));
        QCOMPARE(harness.value(QStringLiteral("connectionText"), "text").toString(),
                 QStringLiteral("Bad API URL"));
    }

    void offlineCardSaysWhyWhenTheBridgeKnows() {
        ViewHarness harness;
        AppState& state = startPaired(harness);
        QVERIFY(!harness.value(QStringLiteral("problemText"), "visible").toBool());
        // A service that turns the device token down, as it does for a device removed from it.
        harness.service().respond(401, QByteArray());
        state.bridge().connect(QStringLiteral("tok-stored"), state.apiBase());
        QTRY_COMPARE(harness.value(QStringLiteral("problemText"), "text").toString(),
                     QStringLiteral("The service refused this computer's token \u2014 pair it "
                                    "again."));
        QVERIFY(harness.value(QStringLiteral("problemText"), "visible").toBool());
        QCOMPARE(
            harness.value(QStringLiteral("statusCardText"), "text").toString(),
            QStringLiteral("Reconnecting to Quillmar — your shared folders resume automatically."));
        QVERIFY(harness.value(QStringLiteral("connectionText"), "text")
                    .toString()
                    .startsWith(QStringLiteral("Reconnecting in ")));
        // Gone once connected, and after unpairing.
        harness.reportStatus(true, QStringLiteral("Connected to Quillmar"));
        QVERIFY(!harness.value(QStringLiteral("problemText"), "visible").toBool());
        state.bridge().disconnect();
    }

    void noFoldersShowsOnePlaceholderCardUntilTheFirstIsAdded() {
        ViewHarness harness;
        AppState& state = startPaired(harness);
        QVERIFY(harness.item(QStringLiteral("noFoldersCard"))->isVisible());
        QVERIFY(!harness.item(QStringLiteral("folderList"))->isVisible());
        QCOMPARE(harness.items(QStringLiteral("removeFolderButton")).size(), 0);

        harness.chooser().answers = {harness.folderPath(QStringLiteral("Invoices"))};
        harness.click(QStringLiteral("homeAddButton"));
        QCOMPARE(state.folders().size(), 1);
        QVERIFY(!harness.item(QStringLiteral("noFoldersCard"))->isVisible());
        QVERIFY(harness.item(QStringLiteral("folderList"))->isVisible());
        QCOMPARE(harness.items(QStringLiteral("removeFolderButton")).size(), 1);
    }

    void foldersAreListedInOrderAndRemovedWithoutConfirmation() {
        ViewHarness harness;
        AppState& state = startPaired(harness);
        const QString first = harness.addFolder(QStringLiteral("Alpha"));
        const QString second = harness.addFolder(QStringLiteral("Beta"));
        const QList<QQuickItem*> paths = harness.items(QStringLiteral("folderPath"));
        QCOMPARE(paths.size(), 2);
        QCOMPARE(paths[0]->property("text").toString(), first);
        QCOMPARE(paths[1]->property("text").toString(), second);

        QQuickItem* remove = harness.items(QStringLiteral("removeFolderButton")).value(1);
        QVERIFY(remove);
        QCOMPARE(QQmlProperty::read(remove, QStringLiteral("ToolTip.text"), qmlContext(remove))
                     .toString(),
                 QStringLiteral("Stop sharing this folder"));
        harness.click(remove);
        QCOMPARE(state.folders().size(), 1);
        QCOMPARE(state.folders().constFirst().path, first);
    }

    void longPathIsElidedInTheMiddleOnOneLine() {
        ViewHarness harness;
        startPaired(harness);
        QString name = QStringLiteral("start");
        for (int i = 0; i < 12; ++i) {
            name += QStringLiteral("/a-rather-long-folder-name-%1").arg(i);
        }
        name += QStringLiteral("/the-end");
        const QString path = harness.addFolder(name);
        QQuickItem* text = harness.item(QStringLiteral("folderPath"));
        QCOMPARE(text->property("text").toString(), path);
        QVERIFY(text->property("truncated").toBool());
        QCOMPARE(text->property("elide").toInt(), int(Qt::ElideMiddle));
        QCOMPARE(text->property("lineCount").toInt(), 1);
        QVERIFY(text->height() < 20);
        // It stays inside its card.
        QQuickItem* card = text->parentItem()->parentItem()->parentItem();
        QVERIFY(text->mapToItem(card, QPointF(text->width(), 0)).x() <= card->width());
    }

    void manyFoldersScroll() {
        ViewHarness harness;
        startPaired(harness);
        for (int i = 0; i < 12; ++i) {
            harness.addFolder(QStringLiteral("Folder %1").arg(i + 1));
        }
        QQuickItem* list = harness.item(QStringLiteral("folderList"));
        QVERIFY(list->property("contentHeight").toReal() > list->height());
        QQuickItem* unpair = harness.item(QStringLiteral("unpairButton"));
        QVERIFY(unpair->mapToScene(QPointF(0, unpair->height())).y() <= 600 - 24 + 0.5);
        QQuickItem* approval = harness.item(QStringLiteral("approvalCard"));
        QQuickItem* divider = harness.item(QStringLiteral("divider"));
        QVERIFY(approval->mapToScene(QPointF(0, approval->height())).y() + 40 <=
                divider->mapToScene(QPointF()).y() + 0.5);
    }

    // Ten folders: each one can be reached, by the scroll bar and by Tab, which scrolls the
    // list so that the focused row is seen whole; the rest of the page keeps its place.
    void everyOneOfTenFoldersCanBeReached() {
        ViewHarness harness;
        startPaired(harness);
        for (int i = 0; i < 10; ++i) {
            harness.addFolder(QStringLiteral("Folder %1").arg(i + 1));
        }
        QQuickItem* list = harness.item(QStringLiteral("folderList"));
        QVERIFY(list->property("contentHeight").toReal() > list->height());
        QQuickItem* bar = ViewHarness::find(list, QStringLiteral("listScrollBar"));
        QVERIFY(bar);
        QVERIFY(bar->isVisible());
        QVERIFY(bar->property("size").toReal() < 1);
        QCOMPARE(bar->property("policy").toInt(), 2); // ScrollBar.AlwaysOn
        QQuickItem* unpair = harness.item(QStringLiteral("unpairButton"));
        QVERIFY(unpair->mapToScene(QPointF(0, unpair->height())).y() <= 600 - 24 + 0.5);

        const QRectF viewport(list->mapToScene(QPointF()), list->size());
        QStringList reached;
        for (int i = 0; i < 40 && reached.size() < 10; ++i) {
            QQuickItem* focused = harness.tab();
            if (!focused || focused->objectName() != QStringLiteral("removeFolderButton")) {
                continue;
            }
            const QRectF shown(focused->mapToScene(QPointF()), focused->size());
            QVERIFY2(viewport.contains(shown), qPrintable(QString::number(reached.size())));
            reached.append(
                QQmlProperty::read(focused, QStringLiteral("Accessible.name"), qmlContext(focused))
                    .toString());
        }
        QStringList expected;
        for (int i = 0; i < 10; ++i) {
            expected.append(QStringLiteral("Stop sharing Folder %1").arg(i + 1));
        }
        QCOMPARE(reached, expected);
        // The last one is at the bottom of the list, scrolled to its end.
        QVERIFY(list->property("contentY").toReal() > 0);
    }

    // Tab goes through the page as it reads, each control showing the ring.
    void tabFollowsReadingOrderWithAVisibleRing() {
        ViewHarness harness;
        startPaired(harness);
        harness.addFolder(QStringLiteral("Alpha"));
        QStringList order;
        for (int i = 0; i < 7; ++i) {
            QQuickItem* focused = harness.tab();
            QVERIFY(focused);
            order.append(focused->objectName());
            QVERIFY2(ViewHarness::showsFocusRing(focused), qPrintable(order.last()));
        }
        QCOMPARE(order,
                 QStringList({QStringLiteral("activityButton"), QStringLiteral("pauseButton"),
                              QStringLiteral("homeAddButton"), QStringLiteral("accessToggle"),
                              QStringLiteral("removeFolderButton"),
                              QStringLiteral("approvalSwitch"), QStringLiteral("unpairButton")}));
    }

    void eachFolderShowsItsAccessAndTheToggleFlipsIt() {
        ViewHarness harness;
        AppState& state = startPaired(harness);
        harness.addFolder(QStringLiteral("Alpha"));
        harness.addFolder(QStringLiteral("Beta"));
        QList<QQuickItem*> toggles = harness.items(QStringLiteral("accessToggle"));
        QCOMPARE(toggles.size(), 2);
        for (QQuickItem* toggle : toggles) {
            QVERIFY(!toggle->property("checked").toBool());
            QCOMPARE(toggle->property("text").toString(), QStringLiteral("Read & write"));
        }
        QPointer<QQuickItem> beta = toggles[1];
        QVERIFY(QQmlProperty::read(beta, QStringLiteral("Accessible.name"), qmlContext(beta))
                    .toString()
                    .contains(QStringLiteral("Beta")));
        const int before = harness.changes;

        harness.click(beta);
        QVERIFY(!state.folders().at(0).readOnly);
        QVERIFY(state.folders().at(1).readOnly);
        QVERIFY(FolderStore::load().at(1).readOnly);
        QCOMPARE(harness.changes, before + 1);
        // The same row, now saying so: the control keeps its place (and the keyboard focus).
        QVERIFY(beta);
        QVERIFY(beta->property("checked").toBool());
        QCOMPARE(beta->property("text").toString(), QStringLiteral("Read only"));
        QCOMPARE(harness.items(QStringLiteral("accessToggle")).value(1), beta.data());

        // By keyboard: Space on the focused toggle flips it back.
        beta->forceActiveFocus(Qt::TabFocusReason);
        QTest::keyClick(harness.window(), Qt::Key_Space);
        ViewHarness::settle();
        QVERIFY(!state.folders().at(1).readOnly);
        QVERIFY(!beta->property("checked").toBool());

        // A change from elsewhere (the tray menu) moves the toggle.
        state.setFolderReadOnly(state.folders().at(0), true);
        ViewHarness::settle();
        QVERIFY(
            harness.items(QStringLiteral("accessToggle")).value(0)->property("checked").toBool());
        // The path still fits beside it.
        QQuickItem* path = harness.items(QStringLiteral("folderPath")).value(0);
        QVERIFY(path->mapToScene(QPointF(path->width(), 0)).x() <=
                toggles[0]->mapToScene(QPointF()).x());
    }

    void pausingFromTheHomePage() {
        ViewHarness harness;
        AppState& state = startPaired(harness);
        harness.reportStatus(true, QStringLiteral("Connected to Quillmar"));
        QCOMPARE(harness.value(QStringLiteral("pauseButton"), "text").toString(),
                 QStringLiteral("Pause"));
        QVERIFY(!harness.value(QStringLiteral("resumeButton"), "visible").toBool());
        const int before = harness.changes;

        harness.click(QStringLiteral("pauseButton"));
        QVERIFY(state.paused());
        QCOMPARE(AppSettings::boolean(AppState::pausedSettingKey()), std::optional<bool>(true));
        QVERIFY(harness.changes > before);
        QCOMPARE(harness.value(QStringLiteral("connectionText"), "text").toString(),
                 QStringLiteral("Paused"));
        // Paused on purpose, not broken: its own symbol and words, no problem text.
        QCOMPARE(harness.value(QStringLiteral("statusSymbol"), "name").toString(),
                 QStringLiteral("pause.circle.fill"));
        QVERIFY(colour(harness, QStringLiteral("statusSymbol")) !=
                QColor(QStringLiteral("#ff3b30")));
        QCOMPARE(
            harness.value(QStringLiteral("statusCardText"), "text").toString(),
            QStringLiteral("Sharing is paused. Agents can't reach your folders until you resume."));
        QVERIFY(!harness.value(QStringLiteral("problemText"), "visible").toBool());
        QCOMPARE(harness.value(QStringLiteral("pauseButton"), "text").toString(),
                 QStringLiteral("Resume"));
        QVERIFY(harness.value(QStringLiteral("resumeButton"), "visible").toBool());

        harness.click(QStringLiteral("resumeButton"));
        QVERIFY(!state.paused());
        QCOMPARE(AppSettings::boolean(AppState::pausedSettingKey()), std::optional<bool>(false));
        QVERIFY(!harness.value(QStringLiteral("resumeButton"), "visible").toBool());
        QCOMPARE(harness.value(QStringLiteral("statusSymbol"), "name").toString(),
                 QStringLiteral("shield.slash"));

        // The header button works both ways; so does the tray's command.
        harness.click(QStringLiteral("pauseButton"));
        QVERIFY(state.paused());
        harness.click(QStringLiteral("pauseButton"));
        QVERIFY(!state.paused());
        state.setPaused(true);
        ViewHarness::settle();
        QCOMPARE(harness.value(QStringLiteral("pauseButton"), "text").toString(),
                 QStringLiteral("Resume"));
    }

    void approvalSwitchPersistsAtOnceAndRefreshesTheMenu() {
        ViewHarness harness;
        AppState& state = startPaired(harness);
        QQuickItem* toggle = harness.item(QStringLiteral("approvalSwitch"));
        QVERIFY(toggle->property("checked").toBool());
        const int before = harness.changes;
        harness.click(toggle);
        QVERIFY(!toggle->property("checked").toBool());
        QVERIFY(!state.requireWriteApproval());
        QCOMPARE(AppSettings::boolean(QStringLiteral("require_write_approval")),
                 std::optional<bool>(false));
        QCOMPARE(harness.changes, before + 1);

        harness.click(toggle);
        QVERIFY(state.requireWriteApproval());
        QCOMPARE(AppSettings::boolean(QStringLiteral("require_write_approval")),
                 std::optional<bool>(true));
        QCOMPARE(harness.changes, before + 2);

        // A change from elsewhere (the tray menu) moves the switch.
        state.storeRequireWriteApproval(false);
        ViewHarness::settle();
        QVERIFY(!toggle->property("checked").toBool());
    }

    void homeSpeaksOfThisComputer() {
        ViewHarness harness;
        startPaired(harness);
        harness.addFolder(QStringLiteral("Reports"));
        ViewHarness::settle();
        QCOMPARE(harness.value(QStringLiteral("approvalNote"), "text").toString(),
                 QStringLiteral("Confirm each write on this computer, on top of the in-app "
                                "approval."));
        const QStringList texts = harness.texts();
        QVERIFY(texts.contains(QStringLiteral("Unpair this computer")));
        const QRegularExpression mac(QStringLiteral("\\bMac\\b|[Mm]enu bar"));
        for (const QString& text : texts) {
            QVERIFY2(!mac.match(text).hasMatch(), qPrintable(text));
        }
    }

    void approvalSwitchShowsTheStoredSettingAfterARestart() {
        ViewHarness harness;
        AppSettings::setBoolean(QStringLiteral("require_write_approval"), false);
        startPaired(harness);
        QVERIFY(!harness.value(QStringLiteral("approvalSwitch"), "checked").toBool());
    }

    void unpairActsAtOnceAndReturnsToWelcome() {
        ViewHarness harness;
        AppState& state = startPaired(harness);
        harness.addFolder(QStringLiteral("Kept"));
        QCOMPARE(harness.value(QStringLiteral("unpairButton"), "text").toString(),
                 QStringLiteral("Unpair this computer"));
        harness.click(QStringLiteral("unpairButton"));
        QVERIFY(!state.paired());
        QCOMPARE(state.folders().size(), 1);
        QVERIFY(harness.item(QStringLiteral("onboardingView")));
        QCOMPARE(harness.step(), int(OnboardingStep::Welcome));
    }

    void homeStyle() {
        ViewHarness harness;
        startPaired(harness);
        QCOMPARE(harness.value(QStringLiteral("windowBackground"), "tint").toReal(), 0.05);
        QCOMPARE(harness.item(QStringLiteral("homeLogo"))->size(), QSizeF(40, 40));
        QCOMPARE(harness.value(QStringLiteral("divider"), "opacity").toReal(), 0.5);
        QCOMPARE(harness.item(QStringLiteral("homeView"))->size(), QSizeF(460, 600));
    }
};

QTEST_MAIN(HomeViewTest)
#include "tst_homeview.moc"
