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
    case MenuAction::Undo:
        return QStringLiteral("undo:");
    case MenuAction::Redo:
        return QStringLiteral("redo:");
    case MenuAction::Cut:
        return QStringLiteral("cut:");
    case MenuAction::Copy:
        return QStringLiteral("copy:");
    case MenuAction::Paste:
        return QStringLiteral("paste:");
    case MenuAction::SelectAll:
        return QStringLiteral("selectAll:");
    }
    return QString();
}
