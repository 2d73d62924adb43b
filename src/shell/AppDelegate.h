#pragma once

#include "MenuItem.h"
#include "StatusMenuModel.h"
#include "WindowPresenter.h"

#include <QIcon>
#include <QList>
#include <QObject>
#include <QPointer>

#include <functional>
#include <memory>

class AppState;
class MainMenuShortcuts;
class QAction;
class QMenu;
class QTimer;
class QSystemTrayIcon;

// The desktop application's controller, alive for the whole process: it installs the main
// menu's shortcuts, owns the tray icon and its menu, rebuilds that menu from the application
// state on every change (and on every call an agent makes), brings up the onboarding/home window
// when it is needed, and turns each menu command into a call on AppState or on the window.
class AppDelegate : public QObject {
    Q_OBJECT

public:
    // `state` must outlive the delegate.
    AppDelegate(AppState& state, std::unique_ptr<WindowPresenter> onboarding,
                QObject* parent = nullptr);
    ~AppDelegate() override;

    // Launch: main menu, tray icon, the state's change signal, the first menu, and the window
    // when the computer is not paired, when QUILLMAR_SHOW_ONBOARDING is "1", or when there is
    // no tray to reach the menu through.
    void applicationDidFinishLaunching();
    // The companion was launched again while running: bring up the window. Always true.
    bool applicationShouldHandleReopen(bool hasVisibleWindows = false);

    // Menu commands.
    void openSetup();
    void addFolderTapped();
    // Removes the folder whose id the sender carries as its data; does nothing for no data, data
    // that is not a string, or an id no folder has.
    void removeFolderTapped(const QAction& sender);
    // Flips "Read Only" on the folder whose id the sender carries, as removeFolderTapped finds it.
    void toggleReadOnlyTapped(const QAction& sender);
    void toggleApproval();
    void togglePause();
    void unpairTapped();
    void quitTapped();

    // What the tray shows now (null before launch).
    QSystemTrayIcon* statusItem() const { return m_statusItem; }
    QMenu* statusMenu() const;
    const StatusMenuModel& statusMenuModel() const { return m_model; }
    const QList<MenuItem>& mainMenu() const { return m_mainMenuModel; }

    // How the application ends; QCoreApplication::quit() unless replaced (tests).
    void setTerminate(std::function<void()> terminate);
    // Whether the desktop has a tray; QSystemTrayIcon::isSystemTrayAvailable() unless replaced.
    void setTrayAvailable(std::function<bool()> trayAvailable);

private:
    void installMainMenu();
    void rebuild();
    void dispatch(const MenuItem& item, QAction* sender);
    void mainMenuCommand(MenuAction action, QObject* receiver);
    void statusItemActivated(int reason);
    void showWindow();
    const SharedFolder* folderNamedBy(const QAction& sender) const;
    QIcon iconFor(const QString& symbolName);

    AppState& m_state;
    QSystemTrayIcon* m_statusItem = nullptr;
    std::unique_ptr<WindowPresenter> m_onboarding;

    QPointer<QMenu> m_menu;
    QTimer* m_activityRebuild = nullptr;
    StatusMenuModel m_model;
    QList<MenuItem> m_mainMenuModel;
    std::unique_ptr<MainMenuShortcuts> m_mainMenu;
    QIcon m_onlineIcon;
    QIcon m_offlineIcon;
    std::function<void()> m_terminate;
    std::function<bool()> m_trayAvailable;
};
