#include "DesktopApp.h"

#include "AppDelegate.h"
#include "AppIdentity.h"
#include "AppState.h"
#include "BridgeClient.h"
#include "DesktopFolderChooser.h"
#include "MessageBoxApprovalPrompt.h"
#include "QuitOnSignals.h"
#include "SingleInstance.h"
#include "StateAnnouncer.h"

#include <QApplication>
#include <QMessageBox>
#include <QTextStream>

#include <cstdio>

QString DesktopApp::displayName() {
    return QStringLiteral("Quillmar OS");
}

int DesktopApp::run(int& argc, char** argv, const WindowFactory& makeWindow,
                    const Keychain& keychain, AppOptions options) {
    QApplication app(argc, argv);
    // Tray hosts take the application name as the tray item's title, so it is the name people
    // know. Nothing finds files through it: every path comes from AppIdentity.
    QApplication::setApplicationName(displayName());
    QApplication::setApplicationDisplayName(displayName());
    QGuiApplication::setDesktopFileName(AppIdentity::id());
    QApplication::setQuitOnLastWindowClosed(false);

    SingleInstance instance;
    switch (instance.start(std::chrono::seconds(5), SingleInstance::Launch::Desktop)) {
    case SingleInstance::Role::HandedOver:
        return 0;
    case SingleInstance::Role::RunningElsewhere: {
        // Launched from a menu there is no terminal to read stderr: say it in a window too,
        // where there is a screen to show one.
        const QString text = runningElsewhereText(instance.runningProcess());
        QTextStream(stderr) << text << "\n" << Qt::flush;
        if (QGuiApplication::platformName() != u"offscreen") {
            QMessageBox::information(nullptr, displayName(), text);
        }
        return 1;
    }
    case SingleInstance::Role::Unanswered:
        QTextStream(stderr) << "Quillmar OS is already running but does not answer.\n";
        return 1;
    case SingleInstance::Role::Primary:
    case SingleInstance::Role::Alone:
        break;
    }
    instance.setMode(QStringLiteral("desktop"));
    // Logging out or `kill` ends the loop, so that the bridge is closed properly below.
    QuitOnSignals quitOnSignals;

    // Dialogs attach to the window while it is open. The delegate holds the window for as long
    // as the state can ask anything.
    const WindowPresenter* presenter = nullptr;
    const auto openWindow = [&presenter] { return presenter ? presenter->openWindow() : nullptr; };
    // Before the event loop runs: creating the state may wait for the secret store, and that
    // wait must not sit inside a running loop.
    AppState state(AppServices{std::make_shared<MessageBoxApprovalPrompt>(openWindow),
                               std::make_shared<DesktopFolderChooser>(openWindow), keychain},
                   options);
    std::unique_ptr<WindowPresenter> window = makeWindow();
    presenter = window.get();
    AppDelegate delegate(state, std::move(window));
    QObject::connect(&instance, &SingleInstance::reopenRequested, &delegate,
                     [&delegate] { delegate.applicationShouldHandleReopen(); });
    delegate.applicationDidFinishLaunching();
    StateAnnouncer announcer(state, instance);
    const int status = QApplication::exec();
    // A normal close frame, not a connection that just drops.
    state.bridge().disconnect();
    return status;
}

QString DesktopApp::runningElsewhereText(qint64 process) {
    return QStringLiteral("Quillmar OS is already running without a window (quillmar-companion "
                          "--headless, process %1), and it keeps the connection. Stop it to use "
                          "the window and the tray.")
        .arg(process);
}
