#include "AppState.h"
#include "OnboardingStep.h"
#include "OnboardingWindowController.h"
#include "ViewHarness.h"
#include "ViewsModule.h"

#include <QFont>
#include <QGuiApplication>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickView>
#include <QQuickWindow>
#include <QScreen>
#include <QSignalSpy>
#include <QTest>

// The window and its root view: one lazily created, fixed-size window that only hides when
// closed; home or onboarding by showHome and paired; the shared style.
class RootViewTest : public QObject {
    Q_OBJECT

private slots:
    void noWindowBeforeTheFirstShow() {
        ViewHarness harness;
        OnboardingWindowController controller;
        QVERIFY(!controller.window());
        QVERIFY(!controller.isVisible());
        QVERIFY(!controller.rootView());
    }

    void windowIsFixedCentredAndTitled() {
        ViewHarness harness;
        harness.start();
        QQuickWindow* window = harness.window();
        QVERIFY(harness.controller().isVisible());
        QCOMPARE(window->title(), QStringLiteral("Quillmar OS"));
        QCOMPARE(window->size(), QSize(460, 600));
        QCOMPARE(window->minimumSize(), QSize(460, 600));
        QCOMPARE(window->maximumSize(), QSize(460, 600));
        QVERIFY(!(window->flags() & Qt::WindowMaximizeButtonHint));
        QVERIFY(!(window->flags() & Qt::WindowMinimizeButtonHint));
        QVERIFY(window->flags() & Qt::WindowCloseButtonHint);
        QCOMPARE(harness.controller().rootView()->size(), QSizeF(460, 600));
        const QRect available = window->screen()->availableGeometry();
        QCOMPARE(window->geometry().center(),
                 QRect(available.center() - QPoint(230, 300), QSize(460, 600)).center());
    }

    // A desktop font half as large again makes everything half as large again, the window
    // included, so that nothing is cut off.
    void aLargerDesktopFontMakesALargerWindow() {
        const QFont original = QGuiApplication::font();
        QFont large = original;
        large.setPointSizeF(original.pointSizeF() * 1.5);
        QGuiApplication::setFont(large);
        {
            ViewHarness harness;
            harness.start();
            QCOMPARE(harness.window()->size(), QSize(690, 900));
            QCOMPARE(harness.controller().rootView()->size(), QSizeF(690, 900));
            QCOMPARE(harness.item(QStringLiteral("welcomeLogo"))->size(), QSizeF(138, 138));
            QQuickItem* button = harness.item(QStringLiteral("getStartedButton"));
            QVERIFY(button->mapToScene(QPointF(0, button->height())).y() <= 900 - 54 + 0.5);
            QQuickItem* subtitle = harness.item(QStringLiteral("welcomeSubtitle"));
            QCOMPARE(subtitle->property("font").value<QFont>().pixelSize(), 20);
            QVERIFY(subtitle->mapToScene(QPointF()).y() >= 54);
        }
        QGuiApplication::setFont(original);
    }

    void closingHidesAndReopeningReturnsTheSameWindowWithItsState() {
        ViewHarness harness;
        harness.start();
        QSignalSpy closed(&harness.controller(), &OnboardingWindowController::closed);
        QSignalSpy shown(&harness.controller(), &OnboardingWindowController::shown);
        QSignalSpy lastWindowClosed(qGuiApp, &QGuiApplication::lastWindowClosed);
        harness.click(QStringLiteral("getStartedButton"));
        harness.typeCode(QStringLiteral("abc12"));
        QQuickWindow* window = harness.window();
        QQuickItem* onboarding = harness.item(QStringLiteral("onboardingView"));
        // The user moves the window, then closes it.
        window->setPosition(17, 23);
        window->close();
        ViewHarness::settle();
        QVERIFY(!harness.controller().isVisible());
        QCOMPARE(closed.count(), 1);
        // Hiding is not the end of the application.
        QCOMPARE(lastWindowClosed.count(), 0);

        harness.controller().show();
        QVERIFY(QTest::qWaitForWindowExposed(window));
        QCOMPARE(shown.count(), 1);
        QCOMPARE(harness.controller().window(), window);
        QVERIFY(harness.controller().isVisible());
        QCOMPARE(harness.item(QStringLiteral("onboardingView")), onboarding);
        QCOMPARE(harness.step(), int(OnboardingStep::Pair));
        QCOMPARE(harness.value(QStringLiteral("codeField"), "text").toString(),
                 QStringLiteral("ABC12"));
        // Centred only when created.
        QCOMPARE(window->position(), QPoint(17, 23));

        // Showing again while shown is harmless.
        harness.controller().show();
        harness.controller().show();
        QCOMPARE(harness.controller().window(), window);
        QVERIFY(harness.controller().isVisible());
    }

    void launchWhilePairedShowsHome() {
        ViewHarness harness;
        harness.storeToken();
        harness.start();
        QVERIFY(harness.state().paired());
        QVERIFY(harness.item(QStringLiteral("homeView")));
        QVERIFY(!harness.item(QStringLiteral("onboardingView")));
        QCOMPARE(harness.controller().rootView()->property("showHome").toBool(), true);
    }

    void pairingStaysInOnboardingUntilFinish() {
        ViewHarness harness;
        AppState& state = harness.start();
        harness.click(QStringLiteral("getStartedButton"));
        harness.typeCode(QStringLiteral("abc123"));
        harness.click(QStringLiteral("pairButton"));
        QTRY_VERIFY(state.paired());
        ViewHarness::settle();
        QVERIFY(harness.item(QStringLiteral("onboardingView")));
        QVERIFY(!harness.item(QStringLiteral("homeView")));
        QCOMPARE(harness.step(), int(OnboardingStep::Folders));

        harness.click(QStringLiteral("foldersContinueButton"));
        QCOMPARE(harness.step(), int(OnboardingStep::Done));
        QVERIFY(harness.item(QStringLiteral("onboardingView")));

        harness.click(QStringLiteral("finishButton"));
        QVERIFY(harness.item(QStringLiteral("homeView")));
        QVERIFY(!harness.item(QStringLiteral("onboardingView")));
    }

    void unpairingFromHomeReturnsToTheWelcomeStep() {
        ViewHarness harness;
        harness.storeToken();
        AppState& state = harness.start();
        QVERIFY(harness.item(QStringLiteral("homeView")));
        harness.click(QStringLiteral("unpairButton"));
        QVERIFY(!state.paired());
        QVERIFY(!harness.item(QStringLiteral("homeView")));
        QVERIFY(harness.item(QStringLiteral("onboardingView")));
        QCOMPARE(harness.step(), int(OnboardingStep::Welcome));
        QCOMPARE(harness.value(QStringLiteral("codeField"), "text").toString(), QString());
        QCOMPARE(harness.controller().rootView()->property("showHome").toBool(), false);

        // Pairing again stays in onboarding.
        harness.click(QStringLiteral("getStartedButton"));
        harness.typeCode(QStringLiteral("abc123"));
        harness.pressReturn();
        QTRY_VERIFY(state.paired());
        ViewHarness::settle();
        QVERIFY(harness.item(QStringLiteral("onboardingView")));
        QCOMPARE(harness.step(), int(OnboardingStep::Folders));
    }

    void unpairingFromTheTrayAlsoReturnsToOnboarding() {
        ViewHarness harness;
        harness.storeToken();
        AppState& state = harness.start();
        state.unpair();
        ViewHarness::settle();
        QVERIFY(harness.item(QStringLiteral("onboardingView")));
        QCOMPARE(harness.step(), int(OnboardingStep::Welcome));
    }

    void missingLogoShowsTheDashedCircle() {
        ViewHarness harness;
        harness.start();
        QQuickItem* logo = harness.item(QStringLiteral("welcomeLogo"));
        QVERIFY(logo);
        QCOMPARE(logo->size(), QSizeF(92, 92));
        QVERIFY(logo->property("showsImage").toBool());

        QObject* theme = harness.singleton("Theme");
        QVERIFY(theme);
        theme->setProperty("logoSource", QUrl(QStringLiteral("qrc:/nowhere/quillmar-logo.png")));
        ViewHarness::settle();
        QVERIFY(!logo->property("showsImage").toBool());
        QQuickItem* fallback = ViewHarness::find(logo, QStringLiteral("logoFallback"));
        QVERIFY(fallback);
        QVERIFY(fallback->isVisible());
        QCOMPARE(fallback->property("name").toString(), QStringLiteral("circle.dashed"));
        // It fills the logo's frame.
        QVERIFY(fallback->width() >= 88 && fallback->width() <= 92);
    }

    void missingIconFontFallsBackToText() {
        ViewHarness harness;
        harness.start();
        QObject* symbols = harness.singleton("Symbols");
        QVERIFY(symbols);
        QVERIFY(symbols->property("available").toBool());
        QQuickItem* symbol = harness.item(QStringLiteral("logoFallback"));
        QCOMPARE(symbol->property("glyph").toString(), QString(QChar(0xe836)));

        symbols->setProperty("fontSource", QUrl(QStringLiteral("file:///nowhere/NoIcons.ttf")));
        ViewHarness::settle();
        QVERIFY(!symbols->property("available").toBool());
        // A plain-text stand-in takes the glyph's place; the pages keep working.
        QCOMPARE(symbol->property("glyph").toString(), QStringLiteral("\u25cc"));
        QVERIFY(symbol->implicitWidth() > 0);
        harness.click(QStringLiteral("getStartedButton"));
        QCOMPARE(harness.step(), int(OnboardingStep::Pair));
        QVERIFY(harness.window()->grabWindow().width() > 0);
    }

    void sharedStyle() {
        ViewHarness harness;
        harness.start();
        QObject* theme = harness.singleton("Theme");
        QVERIFY(theme);
        QCOMPARE(theme->property("brand").value<QColor>(), ViewHarness::brand());
        QCOMPARE(theme->property("brandDeep").value<QColor>(), ViewHarness::brandDeep());
        QCOMPARE(theme->property("brand").value<QColor>().alphaF(), 1.0);
        QVariant logo;
        QMetaObject::invokeMethod(theme, "brandLogo", Q_RETURN_ARG(QVariant, logo));
        QCOMPARE(logo.toUrl(),
                 QUrl(QStringLiteral("qrc:/Quillmar/Views/assets/quillmar-logo.png")));
        QVERIFY(!QImage(ViewsModule::logoResource()).isNull());
        QCOMPARE(harness.value(QStringLiteral("windowBackground"), "tint").toReal(), 0.06);
    }

    void onboardingOpenedWhilePairedSkipsToFoldersOrDone() {
        ViewHarness harness;
        harness.storeToken();
        QVERIFY(harness.state().paired());
        // A root view told not to show home while paired (as after pairing in a window that
        // was created unpaired) opens onboarding at the folders step...
        for (bool withFolders : {false, true}) {
            if (withFolders) {
                harness.addFolder(QStringLiteral("Docs"));
            }
            QQuickView view;
            ViewsModule::prepare(*view.engine());
            view.setInitialProperties({{QStringLiteral("showHome"), false}});
            view.setSource(OnboardingWindowController::rootViewUrl());
            QVERIFY2(view.errors().isEmpty(), qPrintable(view.errors().value(0).toString()));
            QQuickItem* onboarding =
                ViewHarness::find(view.rootObject(), QStringLiteral("onboardingView"));
            QVERIFY(onboarding);
            // ... or, with folders shared already, at the done step.
            QCOMPARE(onboarding->property("step").toInt(),
                     int(withFolders ? OnboardingStep::Done : OnboardingStep::Folders));
        }
    }
};

QTEST_MAIN(RootViewTest)
#include "tst_rootview.moc"
