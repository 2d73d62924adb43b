// a11y_probe PAGE SECONDS
//
// Shows one page of the window, on a throw-away state (ViewHarness), on whatever platform the
// environment gives (xcb for the accessibility check), prints "ready PAGE" once it is up, and
// quits by itself after SECONDS. Pages: welcome, pair-code, pair-error, folders, done,
// home-online, home-offline, home-paused, activity.

#include "ActivityLog.h"
#include "AppState.h"
#include "OnboardingStep.h"
#include "ViewHarness.h"

#include <QDateTime>
#include <QGuiApplication>
#include <QQuickItem>
#include <QTextStream>
#include <QTimer>

#include <cstdio>

namespace {

bool waitFor(const std::function<bool()>& condition) {
    for (int i = 0; i < 500 && !condition(); ++i) {
        ViewHarness::settle(20);
    }
    return condition();
}

void addActivity(AppState& state) {
    ActivityEntry read;
    read.time = QDateTime::currentDateTime();
    read.tool = QStringLiteral("local_read_file");
    read.subject = QStringLiteral("Reports/summary.md");
    read.bytes = 2210;
    state.activity().append(read);
    ActivityEntry failed = read;
    failed.tool = QStringLiteral("local_write_file");
    failed.outcome = ActivityEntry::Outcome::Failed;
    failed.error = QStringLiteral("The folder 'Reports' is shared read-only.");
    state.activity().append(failed);
}

bool showPage(ViewHarness& harness, const QString& page) {
    const bool home = page.startsWith(QStringLiteral("home")) || page == QStringLiteral("activity");
    if (home) {
        harness.storeToken();
    }
    AppState& state = harness.start();
    if (home) {
        harness.addFolder(QStringLiteral("Reports"));
        harness.addFolder(QStringLiteral("Contracts"));
        harness.reportStatus(page != QStringLiteral("home-offline"),
                             page == QStringLiteral("home-offline")
                                 ? QStringLiteral("Reconnecting in 4s…")
                                 : QStringLiteral("Connected to Quillmar"));
        if (page == QStringLiteral("home-paused")) {
            state.setPaused(true);
        }
        if (page == QStringLiteral("activity")) {
            addActivity(state);
            QMetaObject::invokeMethod(harness.item(QStringLiteral("homeView")), "showActivity");
        }
        ViewHarness::settle(200);
        return harness.item(QStringLiteral("homeView")) != nullptr;
    }
    QQuickItem* onboarding = harness.item(QStringLiteral("onboardingView"));
    if (!onboarding || page == QStringLiteral("welcome")) {
        return onboarding != nullptr;
    }
    onboarding->setProperty("step", OnboardingStep::Pair);
    if (page == QStringLiteral("pair-code")) {
        harness.typeCode(QStringLiteral("7kq2m9"));
        return true;
    }
    if (page == QStringLiteral("pair-error")) {
        harness.service().respond(400, ViewHarness::badClaim);
        harness.typeCode(QStringLiteral("bad123"));
        harness.pressReturn();
        return waitFor([&] { return state.hasPairError(); });
    }
    harness.typeCode(QStringLiteral("abc123"));
    harness.pressReturn();
    if (!waitFor([&] { return state.paired(); })) {
        return false;
    }
    harness.addFolder(QStringLiteral("Reports"));
    harness.addFolder(QStringLiteral("Contracts"));
    if (page == QStringLiteral("done")) {
        onboarding->setProperty("step", OnboardingStep::Done);
    }
    ViewHarness::settle(200);
    return page == QStringLiteral("folders") || page == QStringLiteral("done");
}

} // namespace

int main(int argc, char* argv[]) {
    QGuiApplication app(argc, argv);
    if (argc != 3) {
        QTextStream(stderr) << "usage: a11y_probe PAGE SECONDS\n";
        return 2;
    }
    const QString page = QString::fromLocal8Bit(argv[1]);
    const int seconds = qBound(1, QByteArray(argv[2]).toInt(), 120);
    ViewHarness harness;
    if (!showPage(harness, page)) {
        QTextStream(stderr) << "could not show the page " << page << "\n";
        return 1;
    }
    std::printf("ready %s\n", qPrintable(page));
    std::fflush(stdout);
    QTimer::singleShot(seconds * 1000, &app, &QCoreApplication::quit);
    return app.exec();
}
