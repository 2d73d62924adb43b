#include "AppDelegate.h"

#include "ActivityLog.h"
#include "AppState.h"
#include "MainMenuModel.h"
#include "MainMenuShortcuts.h"
#include "StatusIcons.h"
#include "StatusMenuRenderer.h"

#include <QAction>
#include <QApplication>
#include <QCursor>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTimer>

AppDelegate::AppDelegate(AppState& state, std::unique_ptr<WindowPresenter> onboarding,
                         QObject* parent)
    : QObject(parent), m_state(state), m_onboarding(std::move(onboarding)),
      m_terminate([] { QCoreApplication::quit(); }),
      m_trayAvailable([] { return QSystemTrayIcon::isSystemTrayAvailable(); }) {}

AppDelegate::~AppDelegate() {
    // Menus replaced while they were open are deleted when they close; the current one is ours.
    delete m_menu;
}

QMenu* AppDelegate::statusMenu() const {
    return m_menu.data();
}

void AppDelegate::setTerminate(std::function<void()> terminate) {
    m_terminate = std::move(terminate);
}

void AppDelegate::setTrayAvailable(std::function<bool()> trayAvailable) {
    m_trayAvailable = std::move(trayAvailable);
}

void AppDelegate::applicationDidFinishLaunching() {
    // Closing the window never ends the companion; only "Quit Quillmar OS" does.
    QApplication::setQuitOnLastWindowClosed(false);

    installMainMenu();

    m_statusItem = new QSystemTrayIcon(this);
    connect(m_statusItem, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) { statusItemActivated(reason); });

    connect(&m_state, &AppState::changed, this, &AppDelegate::rebuild);
    // The agents' calls are not state changes, but the menu lists the latest of them. Calls can
    // come hundreds a second: the menu follows them a few times a second at most, and never
    // holds up the call's answer.
    m_activityRebuild = new QTimer(this);
    m_activityRebuild->setSingleShot(true);
    m_activityRebuild->setInterval(200);
    connect(m_activityRebuild, &QTimer::timeout, this, &AppDelegate::rebuild);
    ActivityLog& activity = m_state.activity();
    const auto soon = [this] {
        if (!m_activityRebuild->isActive()) {
            m_activityRebuild->start();
        }
    };
    connect(&activity, &ActivityLog::appended, this, soon);
    connect(&activity, &ActivityLog::entryChanged, this, soon);
    rebuild();

    // On X11 Qt watches for a tray and docks the icon as soon as one appears, so it is shown
    // even before; other platforms without a tray have nothing to show it in.
    if (QSystemTrayIcon::isSystemTrayAvailable() || QGuiApplication::platformName() == u"xcb") {
        m_statusItem->show();
    }

    const bool trayAvailable = m_trayAvailable();
    const bool asked = qEnvironmentVariable("QUILLMAR_SHOW_ONBOARDING") == u"1";
    if (!m_state.paired() || asked || !trayAvailable) {
        showWindow();
    }
}

bool AppDelegate::applicationShouldHandleReopen(bool hasVisibleWindows) {
    Q_UNUSED(hasVisibleWindows)
    showWindow();
    return true;
}

void AppDelegate::installMainMenu() {
    m_mainMenuModel = MainMenuModel::build();
    // Hide and Quit are ours; every other key belongs to the focused window.
    m_mainMenu = std::make_unique<MainMenuShortcuts>(
        m_mainMenuModel, QSet<MenuAction>{MenuAction::Hide, MenuAction::Terminate},
        [this](MenuAction action, QObject* receiver) { mainMenuCommand(action, receiver); });
}

void AppDelegate::mainMenuCommand(MenuAction action, QObject* receiver) {
    switch (action) {
    case MenuAction::Hide:
        MainMenuShortcuts::hideWindowOf(receiver);
        break;
    case MenuAction::Terminate:
        m_terminate();
        break;
    default:
        break;
    }
}

void AppDelegate::rebuild() {
    if (!m_statusItem) {
        qFatal("AppDelegate::rebuild() before the tray icon exists");
    }
    m_model = StatusMenuModel::build(m_state);

    m_statusItem->setIcon(iconFor(m_model.symbolName));
    // Panels have no room for a title next to the icon; it goes into the tool tip.
    m_statusItem->setToolTip(m_model.toolTip());

    QPointer<AppDelegate> self(this);
    QMenu* menu =
        StatusMenuRenderer::render(m_model.items, [self](const MenuItem& item, QAction* sender) {
            if (self) {
                self->dispatch(item, sender);
            }
        });
    menu->setObjectName(QStringLiteral("statusMenu"));

    QMenu* old = m_menu;
    m_statusItem->setContextMenu(menu);
    m_menu = menu;
    if (old) {
        // A menu may be replaced while it is open (a status report arrives, or its own command
        // changed the state): it goes when it closes, never under the pointer.
        if (old->isVisible()) {
            connect(old, &QMenu::aboutToHide, old, &QObject::deleteLater);
        } else {
            old->deleteLater();
        }
    }
}

void AppDelegate::dispatch(const MenuItem& item, QAction* sender) {
    switch (item.action) {
    case MenuAction::OpenSetup:
        openSetup();
        break;
    case MenuAction::AddFolder:
        addFolderTapped();
        break;
    case MenuAction::RemoveFolder:
        if (sender) {
            removeFolderTapped(*sender);
        }
        break;
    case MenuAction::ToggleReadOnly:
        if (sender) {
            toggleReadOnlyTapped(*sender);
        }
        break;
    case MenuAction::ToggleApproval:
        toggleApproval();
        break;
    case MenuAction::TogglePause:
        togglePause();
        break;
    case MenuAction::Unpair:
        unpairTapped();
        break;
    case MenuAction::Quit:
        quitTapped();
        break;
    default:
        break;
    }
}

void AppDelegate::statusItemActivated(int reason) {
    // A right click opens the context menu by itself; a left click opens it too, so that either
    // click on the icon shows the commands.
    if (reason == QSystemTrayIcon::Trigger && m_menu) {
        m_menu->popup(QCursor::pos());
    }
}

QIcon AppDelegate::iconFor(const QString& symbolName) {
    if (symbolName == StatusMenuModel::onlineSymbol()) {
        if (m_onlineIcon.isNull()) {
            m_onlineIcon = StatusIcons::icon(symbolName);
        }
        return m_onlineIcon;
    }
    if (symbolName == StatusMenuModel::offlineSymbol()) {
        if (m_offlineIcon.isNull()) {
            m_offlineIcon = StatusIcons::icon(symbolName);
        }
        return m_offlineIcon;
    }
    return StatusIcons::icon(symbolName);
}

void AppDelegate::openSetup() {
    showWindow();
}

void AppDelegate::showWindow() {
    if (m_onboarding) {
        m_onboarding->show();
    }
}

void AppDelegate::addFolderTapped() {
    m_state.addFolder();
}

const SharedFolder* AppDelegate::folderNamedBy(const QAction& sender) const {
    const QVariant represented = sender.data();
    if (represented.typeId() != QMetaType::QString) {
        return nullptr;
    }
    const QString id = represented.toString();
    for (const SharedFolder& folder : m_state.folders()) {
        if (folder.idString() == id) {
            return &folder;
        }
    }
    return nullptr;
}

void AppDelegate::removeFolderTapped(const QAction& sender) {
    if (const SharedFolder* folder = folderNamedBy(sender)) {
        // A copy: removing the folder changes the list it came from.
        const SharedFolder found = *folder;
        m_state.removeFolder(found);
    }
}

void AppDelegate::toggleReadOnlyTapped(const QAction& sender) {
    if (const SharedFolder* folder = folderNamedBy(sender)) {
        // A copy, as above; `changed` then rebuilds the menu with the check mark moved.
        const SharedFolder found = *folder;
        m_state.setFolderReadOnly(found, !found.readOnly);
    }
}

void AppDelegate::toggleApproval() {
    // Flips the setting, stores it under "require_write_approval" and emits `changed`, which
    // rebuilds the menu with the check mark where it now belongs.
    AppState& state = m_state;
    state.storeRequireWriteApproval(!state.requireWriteApproval());
}

void AppDelegate::togglePause() {
    AppState& state = m_state;
    state.setPaused(!state.paused());
}

void AppDelegate::unpairTapped() {
    m_state.unpair();
    showWindow();
}

void AppDelegate::quitTapped() {
    m_terminate();
}
