#include "MenuAction.h"

QString menuActionName(MenuAction action) {
    switch (action) {
    case MenuAction::None:
        return QString();
    case MenuAction::OpenSetup:
        return QStringLiteral("openSetup");
    case MenuAction::AddFolder:
        return QStringLiteral("addFolderTapped");
    case MenuAction::RemoveFolder:
        return QStringLiteral("removeFolderTapped");
    case MenuAction::ToggleReadOnly:
        return QStringLiteral("toggleReadOnlyTapped");
    case MenuAction::TogglePause:
        return QStringLiteral("togglePause");
    case MenuAction::ToggleApproval:
        return QStringLiteral("toggleApproval");
    case MenuAction::Unpair:
        return QStringLiteral("unpairTapped");
    case MenuAction::Quit:
        return QStringLiteral("quitTapped");
    case MenuAction::Hide:
        return QStringLiteral("hide:");
    case MenuAction::Terminate:
        return QStringLiteral("terminate:");
    }
    return QString();
}
