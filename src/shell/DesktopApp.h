#pragma once

#include "AppOptions.h"
#include "Keychain.h"
#include "WindowPresenter.h"

#include <QString>

#include <functional>
#include <memory>

// The desktop companion's entry point: the tray application that runs when the executable is
// started without arguments. Makes the QApplication, hands over to a companion that is already
// running (exit code 0; a --headless one cannot show a window, which is said, exit code 1),
// gives the state the alert and the folder dialog as its prompts, and runs the AppDelegate
// until "Quit Quillmar OS" or a signal to stop; the bridge is then closed properly.
namespace DesktopApp {

using WindowFactory = std::function<std::unique_ptr<WindowPresenter>()>;

// `makeWindow` is called once, after the QApplication exists and only in the process that
// goes on running. The state keeps the token in `keychain` (tests pin the file) and uses
// what `options` allow. Returns the process's exit code; no QCoreApplication may exist yet.
int run(int& argc, char** argv, const WindowFactory& makeWindow,
        const Keychain& keychain = Keychain(), AppOptions options = {});

// The name shown for the application (window titles, the alert).
QString displayName();
// What a desktop launch says when a companion without a window already runs.
QString runningElsewhereText(qint64 process);

} // namespace DesktopApp
