#include "StatusMenuModel.h"

#include "ActivityLog.h"
#include "ActivityWording.h"
#include "AppState.h"
#include "Platform.h"

#include <algorithm>

QString StatusMenuModel::toolTip() const {
    // The header already names the app; a tray host shows the app's name as the title.
    QString tip = header;
    if (!problem.isEmpty()) {
        tip += u'\n' + problem;
    }
    return tip;
}

StatusMenuModel StatusMenuModel::build(bool online, bool paired, const QString& statusText,
                                       const QList<SharedFolder>& folders,
                                       bool requireWriteApproval, const QString& problem,
                                       bool paused, const QList<ActivityEntry>& recent) {
    StatusMenuModel model;
    model.symbolName = online ? onlineSymbol() : offlineSymbol();
    model.buttonTitle = QStringLiteral(" Quillmar OS");
    model.header = online ? QStringLiteral("Quillmar OS — Connected")
                          : QStringLiteral("Quillmar OS — ") + statusText;

    model.problem = online ? QString() : problem;

    QList<MenuItem>& items = model.items;
    items.append(MenuItem::make(model.header, MenuAction::None, false));
    if (!model.problem.isEmpty()) {
        items.append(MenuItem::make(model.problem, MenuAction::None, false));
    }
    items.append(MenuItem::makeSeparator());

    if (!paired) {
        items.append(MenuItem::make(QStringLiteral("Set Up Quillmar OS…"), MenuAction::OpenSetup));
    } else {
        items.append(MenuItem::make(QStringLiteral("Shared Folders"), MenuAction::None, false));
        if (folders.isEmpty()) {
            items.append(MenuItem::make(QStringLiteral("  (none yet — add one below)"),
                                        MenuAction::None, false));
        }
        for (const SharedFolder& folder : folders) {
            MenuItem entry = MenuItem::make(folderTitle(folder), MenuAction::None);
            entry.submenu.append(MenuItem::make(folder.path, MenuAction::None, false));
            entry.submenu.append(MenuItem::makeSeparator());
            MenuItem readOnly =
                MenuItem::make(QStringLiteral("Read Only"), MenuAction::ToggleReadOnly);
            readOnly.checkable = true;
            readOnly.checked = folder.readOnly;
            readOnly.representedObject = folder.idString();
            entry.submenu.append(readOnly);
            MenuItem stop = MenuItem::make(QStringLiteral("Stop sharing this folder"),
                                           MenuAction::RemoveFolder);
            stop.representedObject = folder.idString();
            entry.submenu.append(stop);
            items.append(entry);
        }
        items.append(MenuItem::make(QStringLiteral("Add Folder…"), MenuAction::AddFolder));
        items.append(
            MenuItem::make(QStringLiteral("Open Quillmar OS Window…"), MenuAction::OpenSetup));
        MenuItem activity = MenuItem::make(QStringLiteral("Recent Activity"), MenuAction::None);
        for (qsizetype i = 0; i < std::min(recent.size(), recentActivityCount); ++i) {
            activity.submenu.append(
                MenuItem::make(ActivityWording::menuLine(recent.at(i)), MenuAction::None, false));
        }
        if (activity.submenu.isEmpty()) {
            activity.submenu.append(
                MenuItem::make(QStringLiteral("(nothing yet)"), MenuAction::None, false));
        }
        items.append(activity);
        items.append(MenuItem::makeSeparator());
        MenuItem approval =
            MenuItem::make(QStringLiteral("Ask before writing files"), MenuAction::ToggleApproval);
        approval.checkable = true;
        approval.checked = requireWriteApproval;
        items.append(approval);
        items.append(MenuItem::make(paused ? QStringLiteral("Resume Sharing")
                                           : QStringLiteral("Pause Sharing"),
                                    MenuAction::TogglePause));
        items.append(MenuItem::make(QStringLiteral("Unpair this ") + Platform::device(),
                                    MenuAction::Unpair));
    }

    items.append(MenuItem::makeSeparator());
    MenuItem quit = MenuItem::make(QStringLiteral("Quit Quillmar OS"), MenuAction::Quit);
    quit.key = QStringLiteral("q");
    items.append(quit);
    return model;
}

StatusMenuModel StatusMenuModel::build(AppState& state) {
    return build(state.online(), state.paired(), state.statusText(), state.folders(),
                 state.requireWriteApproval(), state.connectionProblem(), state.paused(),
                 state.activity().newest(recentActivityCount));
}

QString StatusMenuModel::folderTitle(const SharedFolder& folder) {
    return QStringLiteral("  \U0001F4C1 ") + folder.name;
}
