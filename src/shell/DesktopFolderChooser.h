#pragma once

#include "FileDialogFolderChooser.h"
#include "FolderChooser.h"
#include "PortalFolderChooser.h"

#include <functional>

class QWindow;

// The folder chooser of the desktop app: the desktop's own, through the XDG desktop portal,
// and a file dialog where the portal cannot answer. Either is attached to the window while
// the window is open.
class DesktopFolderChooser : public FolderChooser {
public:
    explicit DesktopFolderChooser(std::function<QWindow*()> parentWindow = {},
                                  QDBusConnection bus = QDBusConnection::sessionBus());

    QCoro::Task<std::optional<QString>> chooseFolder(QString prompt, QString message) override;

private:
    std::function<QWindow*()> m_parentWindow;
    PortalFolderChooser m_portal;
    FileDialogFolderChooser m_dialog;
};
