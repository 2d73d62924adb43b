#include "DesktopApp.h"

#include "ActivationPolicy.h"
#include "AppDelegate.h"
#include "AppIdentity.h"
#include "ApprovalPrompt.h"
#include "FileDialogFolderChooser.h"
#include "FolderChooser.h"
#include "MessageBoxApprovalPrompt.h"
#include "SingleInstance.h"

#include <QApplication>
#include <QTextStream>

#include <cstdio>

QString DesktopApp::displayName() {
    return QStringLiteral("Quillmar OS");
}

int DesktopApp::run(int& argc, char** argv, const WindowFactory& makeWindow) {
    QApplication app(argc, argv);
    QApplication::setApplicationName(AppIdentity::id());
    QApplication::setApplicationDisplayName(displayName());
    QGuiApplication::setDesktopFileName(AppIdentity::id());
    QApplication::setQuitOnLastWindowClosed(false);

    SingleInstance instance;
    switch (instance.start()) {
    case SingleInstance::Role::HandedOver:
        return 0;
    case SingleInstance::Role::Unanswered:
        QTextStream(stderr) << "Quillmar OS is already running but does not answer.\n";
        return 1;
    case SingleInstance::Role::Primary:
    case SingleInstance::Role::Alone:
        break;
    }

    ApprovalPrompt::install(std::make_shared<MessageBoxApprovalPrompt>());
    FolderChooser::install(std::make_shared<FileDialogFolderChooser>());
    ActivationPolicy::accessory();

    AppDelegate delegate(makeWindow());
    QObject::connect(&instance, &SingleInstance::reopenRequested, &delegate,
                     [&delegate] { delegate.applicationShouldHandleReopen(); });
    // Before the event loop runs: launching may wait for the secret store, and that wait must
    // not sit inside a running loop.
    delegate.applicationDidFinishLaunching();
    return QApplication::exec();
}
